// A whole run on an appliance with one hostile file: it ends, nothing outside the telephony
// directory and the voice data goes, and no name from a file is more than a word to the shell.
//
// The first byte of the input says which file, the second from which version the unit comes; the
// rest is the file.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "app/config_upgrader.h"
#include "files/mirror.h"
#include "files/read.h"
#include "tests/support/appliance_at.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* spoilt[] = {"telephony/linedb",
                                  "telephony/extensiondb",
                                  "telephony/sip.cfg",
                                  "telephony/nat.cfg",
                                  "telephony/rtp.cfg",
                                  "telephony/stun.cfg",
                                  "telephony/voicemaildb",
                                  "telephony/dialplan.cfg",
                                  "telephony/localrouttabledb",
                                  "telephony/isdn.cfg",
                                  "telephony/isdn/trunk0.cfg",
                                  "telephony/e1t1/trunk0.cfg",
                                  "telephony/21/servicesdb",
                                  "telephony/21/huntdb",
                                  "telephony/21/forwardlistdb",
                                  "telephony/21/speedcalldb",
                                  "telephony/21/addresspatterndb",
                                  "telephony/21/grouplistdb",
                                  "telephony/00/voicemaildb",
                                  "telephony/gatewaydb",
                                  "stun.cfg",
                                  "sysconfig/rc.conf",
                                  "config_label.txt",
                                  "../../proc/orix/hw-info",
                                  "../default-conf/telephony/04-lines/extensiondb"};

constexpr const char* versions[] = {"2.2.0", "2.4.20", "3.0.0", "3.0.20", "3.1.0", "4.0.0", "5.0"};

void Check(bool holds) {
    if (!holds)
        std::abort();
}

/// Outside single quotes a command holds only what the program itself puts there.
int RunChecked(const std::string& command) {
    bool quoted = false;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char c = command[i];
        if (c == '\'')
            quoted = !quoted;
        else if (!quoted && c == '\\')
            Check(++i < command.size() && command[i] == '\'');
        else if (!quoted)
            Check(std::string(" *>_.,:=@%+-/").find(c) != std::string::npos ||
                  (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'));
    }
    Check(!quoted);
    return std::system(command.c_str());
}

/// The units to begin from: as sold with the oldest firmware, and as upgraded once.
class Unit {
public:
    Unit() : root_("/dev/shm/mend-fuzz-" + std::to_string(getpid()) + "-unit") {
        if (!fs::exists("/dev/shm"))
            root_.replace(0, 8, "/tmp");
        fs::create_directories(root_);
        for (const char* base : {"/new", "/live"})
            fs::copy(SAMPLE_APPLIANCE, root_ + base,
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        fs::create_directories(root_ + "/live/tmp");
        appliance_ = ApplianceAt(root_ + "/live");
        appliance_.voiceStorageSize = [](const std::string&) { return std::uint64_t{8'000'000}; };
        { ConfigUpgrader(appliance_).Run(); }
        fs::copy(root_ + "/live", root_ + "/upgraded",
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        appliance_.runShell = RunChecked;
        std::ofstream(root_ + "/keep") << "outside";
    }
    ~Unit() { fs::remove_all(root_); }

    void Run(const char* file, const char* version, std::string_view bytes) {
        const bool isOldest = version == versions[0];
        Check(files::MirrorTree(root_ + (isOldest ? "/new" : "/upgraded"), root_ + "/live",
                                files::By::Copying)
                  .empty());
        fs::create_directories(root_ + "/live/tmp");
        const std::string live = root_ + "/live/etc/orix-conf/";
        std::ofstream(live + "config_label.txt") << version << "\n";
        std::ofstream(live + file, std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        { ConfigUpgrader(appliance_).Run(); }
        Check(fs::exists(root_ + "/keep") && fs::exists(live + "sysconfig/rc.conf") &&
              fs::exists(live + "telephony") && fs::exists(root_ + "/live/mnt/bbram"));
        // A command that fails counts as the disk's failure: then the copy stays, and the log says
        // so.
        if (files::ReadFile(appliance_.log).bytes.value_or("").find("next start begins") ==
            std::string::npos)
            for (const auto& entry : fs::recursive_directory_iterator(live))
                Check(entry.path().string().find(".mend-") == std::string::npos);
        // Without a linedb the run ends before there is a log.
        Check(!fs::exists(appliance_.log) ||
              fs::file_size(appliance_.log) < 1'000'000 + 200 * bytes.size());
    }

private:
    std::string root_;
    Appliance appliance_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static Unit unit;
    if (size < 2)
        return 0;
    unit.Run(spoilt[data[0] % std::size(spoilt)], versions[data[1] % std::size(versions)],
             {reinterpret_cast<const char*>(data) + 2, size - 2});
    return 0;
}
