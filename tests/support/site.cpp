#include "tests/support/site.h"

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/thread.h"
#include "tests/support/appliance_at.h"
#include "tests/support/text.h"

namespace fs = std::filesystem;

Site::Site(Content content) {
    static int count = 0;
    // In memory where that is possible: a run syncs all that it writes. TMPDIR has the last word.
    const bool inMemory = std::getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0;
    const std::string base = inMemory ? "/dev/shm" : fs::temp_directory_path().string();
    // The name must not end in digits: "21/" anywhere in a path counts as extension 21's.
    root_ = base + "/mend-" + std::to_string(getpid()) + "-" + std::to_string(++count) + "-unit";
    fs::remove_all(root_);
    fs::create_directories(Path("tmp"));

    appliance = ApplianceAt(root_);
    appliance.runShell = RunShell;
    if (content == Content::Sample)
        fs::copy(SAMPLE_APPLIANCE, root_,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    else
        for (const std::string& place : {Live(""), Factory("04-lines/")})
            for (const char* database : {"linedb", "extensiondb"})
                Write(place + database, "");
    Thread::SetCommandLine(0, nullptr);
}

Site::~Site() {
    std::error_code error;
    fs::remove_all(root_, error);
    if (!error)
        return;
    // A test may have left directories that their owner may not write into.
    for (const auto& entry : fs::recursive_directory_iterator(root_, error))
        if (entry.is_directory() && !entry.is_symlink())
            fs::permissions(entry, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(root_, error);
}

int Site::RunShell(const std::string& command) {
    const bool isPlain =
        command.starts_with("cp -p ") && command.find_first_of("'\"$;&|<>") == command.npos;
    std::istringstream words(Replaced(command, " -r ", " "));
    std::string cp;
    std::string option;
    std::string from;
    std::string to;
    std::error_code error;
    const auto isOfType = [&](const std::string& path, fs::file_type type) {
        return fs::symlink_status(path, error).type() == type;
    };
    if (!isPlain || !(words >> cp >> option >> from >> to) || !words.eof() ||
        !isOfType(from, fs::file_type::regular) || !isOfType(to, fs::file_type::not_found) ||
        !fs::copy_file(from, to, error))
        return std::system(command.c_str());
    fs::last_write_time(to, fs::last_write_time(from));
    return 0;
}

std::string Site::Live(const std::string& name) const {
    return appliance.liveConf + "telephony/" + name;
}

std::string Site::Factory(const std::string& name) const {
    return appliance.factoryTelephony + name;
}

void Site::Write(const std::string& path, const std::string& text) const {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string Site::Read(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return "(missing)";
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string Site::Upgrade() const {
    setenv("ORIX_PATH", appliance.liveConf.c_str(), 1);  // there may be another site
    const std::size_t before = Exists(appliance.log) ? Read(appliance.log).size() : 0;
    ConfigUpgrader(appliance).Run();
    return Read(appliance.log).substr(before);
}

std::unique_ptr<ConfigUpgrader> Site::Upgrader(const std::string& version) const {
    auto upgrader = std::make_unique<ConfigUpgrader>(appliance);
    upgrader->configRoot = Live("");
    upgrader->liveVersion = version;
    upgrader->linesDir = "04-lines/";
    upgrader->log = std::make_unique<LogStream>(appliance.log, true, false, 3, 1, 2048, false);
    const auto open = [](const std::string& path) {
        return std::make_unique<Configuration::MultiSectionFile>(path);
    };
    upgrader->lineDb = open(Live("linedb"));
    upgrader->extensionDb = open(Live("extensiondb"));
    upgrader->defaultLineDb = open(Factory("04-lines/linedb"));
    upgrader->defaultExtensionDb = open(Factory("04-lines/extensiondb"));
    return upgrader;
}

std::string Site::TakeLog(ConfigUpgrader& upgrader) const {
    upgrader.FlushReport();
    const std::string text = Read(appliance.log);
    fs::resize_file(appliance.log, 0);
    return text;
}

std::map<std::string, std::string> Site::Snapshot() const {
    std::map<std::string, std::string> tree;
    for (const char* part : {"etc/orix-conf", "mnt"})
        for (const auto& entry : fs::recursive_directory_iterator(Path(part))) {
            std::string what;
            if (entry.is_symlink())
                what = " -> " + fs::read_symlink(entry.path()).string();
            else if (entry.is_regular_file())
                what = ":\n" + Read(entry.path());
            tree.erase(entry.path().parent_path().string().substr(root_.size()));
            tree[entry.path().string().substr(root_.size())] = Replaced(what, root_, "");
        }
    return tree;
}
