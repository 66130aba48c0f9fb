#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace rehearse {

/// What a directory of backups holds.
struct Backups {
    std::vector<std::string> names;  // sorted
    std::size_t passedOver = 0;      // files that are no backups, such as a README or checksums
};

/// The backups in a directory: directories, links and whatever is an archive by its name or its
/// first bytes. With patterns, as those of the shell, only what matches one of them.
Backups FindBackups(const std::string& directory, const std::vector<std::string>& patterns);

}  // namespace rehearse
