#pragma once

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "files/file_descriptor.h"
#include "files/read.h"

namespace files {

/// Ends the names of the temporaries that become a file or directory by a rename, so that what a
/// killed run left is known.
inline constexpr const char* temporarySuffix = ".mend-tmp";

/// Replaces a file whole or not at all: a temporary beside it, its data synced, renamed over it,
/// the directory synced. A symbolic link is written through; mode and owner of an existing file
/// are kept. Returns the reason in words on failure, after which the old file is as it was (but for
/// a directory that could not be synced: then the new one is in place, and may not survive a power
/// cut) and no temporary is left; an empty text on success.
///
/// While a SyncLater lives, nothing is synced: the file is whole when the program is killed, and
/// durable when SyncAll has said so.
///
/// `known` is what reading told of the path, if nothing has changed it since; it saves a look.
std::string ReplaceFile(const std::string& path, std::string_view bytes,
                        const std::optional<Standing>& known = std::nullopt);

/// Leaves syncing to the end, for a run that has a copy of the tree to begin again from: one call
/// for each file system that was written to, instead of two for each file.
class SyncLater {
public:
    SyncLater();
    ~SyncLater();
    SyncLater(const SyncLater&) = delete;
    SyncLater& operator=(const SyncLater&) = delete;

    /// Brings all that was written meanwhile to its disks. False, with errno set, when one of them
    /// refused: nothing may then be taken for durable.
    bool SyncAll();

    /// Has the file system of a directory among those to be synced. False, with errno set, when it
    /// could not be.
    bool NoteChange(const std::string& directory);

private:
    std::map<dev_t, FileDescriptor> written_;  // one open directory for each file system
    std::string last_;                         // the directory noted last
};

/// Brings all that was written to the file system of a directory to its disk. False, with errno
/// set, when that failed.
bool SyncFileSystem(const std::string& directory);

/// The same for a change made below a directory otherwise than by ReplaceFile; at the end, while a
/// SyncLater lives.
bool SyncChangesBelow(const std::string& directory);

/// The file behind a chain of symbolic links, which need not exist yet. Empty, with errno set,
/// when the chain does not end.
std::string BehindLinks(std::string path);

/// The directory that a path lies in.
std::string DirectoryOf(const std::string& path);

/// Writes all of `bytes`; false, with errno set, when the file does not take them.
bool WriteAll(int file, std::string_view bytes);

/// Creates a directory with mode 0777 less the umask; an open one has all of 0777 from the moment
/// it has its name. False, with errno set, and noted where it is the disk's fault, when it can't.
bool MakeDirectory(const std::string& path);
bool MakeOpenDirectory(const std::string& path);

/// Removes a file. False when that failed or there is none.
bool RemoveFile(const std::string& path);

/// Removes a FIFO, socket or device (or a link to one) that stands where a file belongs: a copy
/// over it would block or write into the device.
void RemoveSpecialFile(const std::string& path);

}  // namespace files
