#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What tells a directory from all others: device and inode. A link to it has the same.
using DirectoryId = std::pair<std::uint64_t, std::uint64_t>;

struct DirectoryListing {
    DirectoryId id;
    std::vector<std::string> names;  // without "." and "..", in the directory's own order
};

/// Reads a directory's names at once; nothing when it cannot be opened.
std::optional<DirectoryListing> ListDirectory(const std::string& path);
