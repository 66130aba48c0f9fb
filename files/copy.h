#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

namespace files {

/// How a file is given to another tree. A link costs nothing, and serves where nobody writes into
/// the file itself, as no save does. Where the file system or its rules have no link for a file, it
/// is copied.
enum class By { Copying, Linking };

/// Copies a regular file or a link (as a link) under a name that is free, with all that belongs to
/// it. Returns the reason in words on failure, which leaves nothing behind.
std::string CopyEntry(const std::string& source, const std::string& destination, By by);

/// The same for what `info` says of the source; `hash` becomes that of its bytes or target.
std::string GiveEntry(const std::string& source, const struct stat& info,
                      const std::string& destination, By by, std::uint64_t& hash);

/// Puts a regular file or a link in the place of what has the name, unless that is the same: made
/// beside it and renamed, so that it is whole there, old or new. Returns the reason in words on
/// failure. `hash` is that of what was given, 0 when nothing was.
std::string ReplaceEntry(const std::string& source, const struct stat& info,
                         const std::string& destination, By by, std::uint64_t& hash);

/// A hash of a regular file's bytes or of a link's target. Nothing, with errno set, when it cannot
/// be read.
std::optional<std::uint64_t> HashOf(const std::string& path, const struct stat& info);

/// Whether two files hold the same bytes; false, too, when one of them cannot be read.
bool HaveSameBytes(const std::string& a, const std::string& b);

}  // namespace files
