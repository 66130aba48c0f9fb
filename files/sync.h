#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "files/file_descriptor.h"

namespace files {

/// Leaves syncing to the end, for a run that has a copy of the tree to begin again from: one call
/// for each file system that was written to, instead of two for each file.
class SyncLater {
public:
    SyncLater();
    ~SyncLater();
    SyncLater(const SyncLater&) = delete;
    SyncLater& operator=(const SyncLater&) = delete;

    /// The one that lives; null when every change is synced by itself.
    static SyncLater* Living();

    /// Brings all that was written meanwhile to its disks. False, with errno set, when one of them
    /// refused: nothing may then be taken for durable.
    bool SyncAll();

    /// Adds the file system of a directory to those that SyncAll syncs. False, with errno set, when
    /// that failed.
    bool NoteChange(const std::string& directory);

private:
    std::map<dev_t, FileDescriptor> written_;  // one open directory for each file system
    std::string last_;                         // the directory noted last
};

/// Opens a directory, to sync it or to hold it.
FileDescriptor OpenDirectory(const std::string& path);

/// Brings all that was written to the file system of a directory to its disk. False, with errno
/// set, when that failed.
bool SyncFileSystem(const std::string& directory);

/// The same for a change made below a directory otherwise than by ReplaceFile; at the end, while a
/// SyncLater lives.
bool SyncChangesBelow(const std::string& directory);

}  // namespace files
