#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/own_names.h"
#include "files/read.h"

namespace files {

/// The name under which what will stand at `path` is made.
inline std::string TemporaryFor(const std::string& path) {
    return path + temporarySuffix;
}

/// Replaces a file whole or not at all: a temporary beside it, its data synced, renamed over it,
/// the directory synced. A symbolic link is written through; mode, owner, access list and other
/// attributes of an existing file are kept. Returns the reason in words on failure, after which the
/// old file is as it was (but for a directory that could not be synced: then the new one is in
/// place, and may not survive a power cut) and no temporary is left; an empty text on success.
///
/// While a SyncLater lives, nothing is synced: the file is whole when the program is killed, and
/// durable when SyncAll has said so.
///
/// `known` is what reading told of the path, if nothing has changed it since; it saves a look.
/// A file that is new, or is open to more users than one of `models`, gets the rights of the first
/// of them, less those that any other denies; without models a new one gets what the umask leaves.
/// Models that are not there do not count.
std::string ReplaceFile(const std::string& path, std::string_view bytes,
                        const std::optional<Standing>& known = std::nullopt,
                        const std::vector<std::string>& models = {});

/// Gives a temporary the name of the file or link that it replaces, if there is one; both stand in
/// one directory. False, with errno set, when it can't: then both are as they were.
bool PutInPlace(const std::string& temporary, const std::string& path);

/// The file behind a chain of symbolic links, which need not exist yet. Empty, with errno set and
/// noted where it is the disk's fault, when the chain does not end.
std::string BehindLinks(std::string path);

/// The directory that a path lies in.
std::string DirectoryOf(const std::string& path);

/// Writes all of `bytes`; false, with errno set, when the file does not take them.
bool WriteAll(int file, std::string_view bytes);

/// Creates a directory with mode 0777 less the umask; an open one has all of 0777 from the moment
/// it has its name. False, with errno set, and noted where it is the disk's fault, when it can't.
bool MakeDirectory(const std::string& path);
bool MakeOpenDirectory(const std::string& path);

}  // namespace files
