#pragma once

#include <string>

namespace files {

/// Moves a file, link or directory: by a rename or, to another file system, by a copy that is whole
/// before it gets its name and before the original goes. A file or link that has the name already
/// is replaced. Returns the reason in words on failure, with the original in its place.
std::string MoveEntry(const std::string& from, const std::string& to);

/// Puts the directory `fresh` in the place of `old`, and what `old` was under the name `fresh`;
/// with it what MirrorTree did not copy into it, FIFOs and the like. A directory that cannot change
/// its name, for something is mounted on it, gets the entries of `fresh` one by one instead.
/// Returns the reason in words on failure, with both as they were.
std::string SwapDirectories(const std::string& fresh, const std::string& old);

}  // namespace files
