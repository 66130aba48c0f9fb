#pragma once

#include <sys/stat.h>

#include <functional>
#include <string>

namespace files {

/// How MirrorTree gives a file to the other tree. A link needs no room; it serves where nobody
/// writes into the file itself, as no save does.
enum class By { Copying, Linking };

/// Makes the directory `destination` hold what `source` holds, with modes, owners and times:
/// entries that differ or are missing are replaced, entries that `source` lacks are removed, all
/// else is not touched. Symbolic links are copied as links. FIFOs, sockets and devices hold no
/// settings: they are neither copied nor removed. Names that end as temporaries do are not copied.
/// Called again after it was interrupted, it goes on. Nothing is synced.
///
/// `visit` is told of each entry of the source that the destination then has: its name below the
/// source, which begins with "/", and what it is.
///
/// Returns the reason in words on failure, with the rest not done; an empty text on success.
using EntryVisitor = std::function<void(const std::string& name, const struct stat& info)>;
std::string MirrorTree(const std::string& source, const std::string& destination, By by,
                       const EntryVisitor& visit = nullptr);

/// Copies a regular file or a link (as a link) under a name that is free, with mode, owner and
/// times. Returns the reason in words on failure, which leaves nothing behind.
std::string CopyEntry(const std::string& source, const std::string& destination, By by);

/// Completes a copy of a file or directory that `cp -p -r` made: what a full disk cut or left out
/// is copied again. An owner, mode or time that could not be kept is no reason to. Returns the
/// reason in words when the copy cannot be completed.
std::string CompleteCopy(const std::string& original, const std::string& copy);

/// Moves a file, link or directory: by a rename or, to another file system, by a copy that is whole
/// before it gets its name and before the original goes. A file or link that has the name already
/// is replaced. Returns the reason in words on failure, with the original in its place.
std::string MoveEntry(const std::string& from, const std::string& to);

/// Puts the directory `fresh` in the place of `old`, and what `old` was under the name `fresh`;
/// with it what MirrorTree did not copy into it, FIFOs and the like. Returns the reason in words on
/// failure, with both as they were.
std::string SwapDirectories(const std::string& fresh, const std::string& old);

/// Removes a file, a link (not what it leads to) or a directory with all it holds. False, with
/// errno set, when something of it is left.
bool RemoveTree(const std::string& path);

}  // namespace files
