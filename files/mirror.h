#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>

#include "files/copy.h"

namespace files {

/// What a mirror may be told besides its two directories.
struct MirrorOptions {
    /// Told of each entry of the source that the destination then has: its name below the source,
    /// which begins with "/", what it is, and the hash of the bytes or target that were given.
    std::function<void(const std::string& name, const struct stat& info, std::uint64_t hash)> visit;
    /// Whether an entry of either directory is none of the mirror's: neither copied nor removed.
    std::function<bool(const std::string& name, const struct stat& info)> isLeftAlone;
};

/// Makes the directory `destination` hold what `source` holds, with all that belongs to it: entries
/// that differ or are missing are replaced, entries that `source` lacks are removed, all else is
/// not touched. Symbolic links are copied as links. FIFOs, sockets and devices hold no settings:
/// they are neither copied nor removed. Names that end as temporaries do are not copied. Called
/// again after it was interrupted, it goes on. Nothing is synced.
///
/// Returns the reason in words on failure, with the rest not done; an empty text on success.
std::string MirrorTree(const std::string& source, const std::string& destination, By by,
                       const MirrorOptions& options = {});

}  // namespace files
