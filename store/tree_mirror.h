#pragma once

#include <cstdint>
#include <string>

namespace Configuration {

/// How MirrorTree gives a file to the other tree. A link needs no room; it serves where nobody
/// writes into the file itself, as no save does.
enum class By { Copying, Linking };

/// Makes the directory `destination` hold what `source` holds, with modes, owners and times:
/// entries that differ or are missing are replaced, entries that `source` lacks are removed, all
/// else is not touched. Symbolic links are copied as links. FIFOs, sockets and devices hold no
/// settings: they are neither copied nor removed. The temporaries of saves are not copied. Called
/// again after it was interrupted, it goes on. Nothing is synced.
///
/// Returns the reason in words on failure, with the rest not done; an empty text on success.
std::string MirrorTree(const std::string& source, const std::string& destination, By by);

/// Saves in `copy`, a mirror of `tree`, the files that links of the tree lead to: a save writes
/// through them. The names of these copies end as temporaries do. Returns the reason in words on
/// failure.
std::string SaveLinkedFiles(const std::string& tree, const std::string& copy, By by);

/// Writes them back through the links of `tree` where the bytes differ.
std::string PutBackLinkedFiles(const std::string& copy, const std::string& tree);

/// The room that the regular files below a directory take, in bytes.
std::uint64_t TreeSize(const std::string& directory);

/// Completes a copy of a file or directory that the shell made: what a full disk cut or left out is
/// copied again. Returns the reason in words when that fails, too.
std::string CompleteCopy(const std::string& original, const std::string& copy);

/// Moves what the directory `from` holds into the directory `to`: a new file or a link comes as it
/// is, a file that exists there gets the bytes and keeps its own mode and owner, directories are
/// merged.
/// Each file is whole, old or new. Returns the first reason in words on failure, having gone on
/// with the other files.
std::string MoveInto(const std::string& from, const std::string& to);

}  // namespace Configuration
