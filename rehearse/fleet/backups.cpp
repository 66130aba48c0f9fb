#include "rehearse/fleet/backups.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/site/own_settings.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

/// A cut archive is a backup too: its site must not be missing from the result.
bool IsArchive(const fs::path& path) {
    const std::string name = path.filename();
    for (const std::string_view end : {".tar", ".tar.gz", ".tar.xz", ".tar.zst", ".tar.bz2",
                                       ".tar.lz4", ".tgz", ".txz", ".tzst", ".tbz2"})
        if (name.ends_with(end))
            return true;
    constexpr std::size_t head = 512;  // of a tar archive
    std::error_code error;
    const std::string bytes = ReadAll(fs::canonical(path, error), head);  // of what a link leads to
    using namespace std::string_view_literals;
    for (const std::string_view begin : {"\x1f\x8b"sv,
                                         "\xfd"
                                         "7zXZ"sv,
                                         "\x28\xb5\x2f\xfd"sv, "BZh"sv, "\x04\x22\x4d\x18"sv})
        if (bytes.starts_with(begin))
            return true;
    constexpr std::size_t magicAt = 257;
    return bytes.size() == head && bytes.substr(magicAt, 5) == "ustar";
}

/// Whatever cannot be looked at counts as a backup, and its rehearsal says what is wrong with it.
bool IsBackup(const fs::directory_entry& entry) {
    std::error_code error;
    const fs::file_type type = entry.status(error).type();
    if (type == fs::file_type::regular)
        return access(entry.path().c_str(), R_OK) != 0 || IsArchive(entry.path());
    return type == fs::file_type::directory || entry.is_symlink(error);
}

}  // namespace

Backups FindBackups(const std::string& directory, const std::vector<std::string>& patterns) {
    Backups backups;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        const std::string name = entry.path().filename();
        if (name.starts_with('.') || name.ends_with(ownSettingsName))
            continue;
        const bool isWanted =
            patterns.empty() ||
            std::any_of(patterns.begin(), patterns.end(), [&](const std::string& pattern) {
                return fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
            });
        if (!IsBackup(entry))
            ++backups.passedOver;
        else if (isWanted)
            backups.names.push_back(name);
    }
    std::sort(backups.names.begin(), backups.names.end());
    if (backups.names.empty())
        throw Failure(directory + " holds no backups" + (patterns.empty() ? "" : " that match"));
    return backups;
}

}  // namespace rehearse
