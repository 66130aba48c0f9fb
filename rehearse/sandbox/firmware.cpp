#include "rehearse/sandbox/firmware.h"

#include <filesystem>
#include <fmt/format.h>

#include "app/version.h"
#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/sandbox/backup.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

constexpr const char* firmwarePlaces[] = {"etc/default-conf", "usr/share/regional", "bin"};

}  // namespace

void TakeFirmware(const std::string& source, const std::string& to,
                  const std::function<void()>& goOn) {
    if (!fs::exists(source))
        throw Failure("no such firmware: " + source);
    std::string root = source;
    const std::string unpacked = to + "/unpacked";
    if (!fs::is_directory(source)) {
        CopyBackup(source, unpacked, goOn);
        root = unpacked;
    }
    root = FindRoot(root, source);
    for (const char* place : firmwarePlaces) {
        const std::string real = RealBelow(root, place);
        if (real.empty())
            continue;
        fs::create_directories(fs::path(to + "/" + place).parent_path());
        CopyBackup(real, to + "/" + place, goOn);
    }
    std::error_code ignored;
    fs::remove_all(unpacked, ignored);
}

std::vector<std::string> LayFirmware(const std::string& firmware, const std::string& root,
                                     const std::function<void()>& goOn) {
    std::vector<std::string> asides;
    for (const fs::path place : firmwarePlaces) {
        const std::string above = place.parent_path();
        if (!above.empty() && RealBelow(root, above).empty())
            MakeDirectories(root, above);
        // The directory above may be a link; what stands in it under the name is not followed.
        const std::string there =
            (above.empty() ? root : RealBelow(root, above)) + "/" + place.filename().string();
        if (fs::exists(fs::symlink_status(there))) {
            const std::string version = place.filename() == "default-conf" ? TargetOf(root) : "";
            asides.push_back(place.string() + (version.empty() ? "" : " (" + version + ")"));
            fs::remove_all(there);
        }
        const std::string brought = RealBelow(firmware, place);
        if (!brought.empty())
            CopyBackup(brought, there, goOn);
    }
    return asides;
}

std::string TargetOf(const std::string& root) {
    const std::string path = RealBelow(root, "etc/default-conf/config_label.txt");
    const Label label = path.empty() ? Label{} : ReadLabel(path);
    return label.IsUsable() ? *label.text : "";
}

}  // namespace rehearse
