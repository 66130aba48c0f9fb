#pragma once

#include <string>

#include "files/file_descriptor.h"

/// Keeps a second upgrade of the same tree waiting until this one has ended, however it ends. The
/// lock is the directory's that the tree stands in (the tree's own, where that one cannot be
/// opened), and goes with the process. A file system without locks stops nobody.
///
/// Anybody who may read the directory can lock it, so the wait has an end: many times what an
/// upgrade takes, and less than a unit can be without its phones.
class TreeLock {
public:
    /// Waits as long as somebody else has the lock, ten minutes at most.
    explicit TreeLock(const std::string& tree);

    /// Whether somebody else had it all the time.
    bool IsDenied() const { return isDenied_; }
    /// What is locked.
    const std::string& Path() const { return path_; }

private:
    std::string path_;
    files::FileDescriptor directory_;
    bool isDenied_ = false;
};
