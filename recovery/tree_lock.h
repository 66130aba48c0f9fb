#pragma once

#include <string>

#include "files/file_descriptor.h"

/// Keeps a second upgrade of the same tree waiting until this one has ended, however it ends. The
/// lock is the directory's that the tree stands in (the tree's own, where that one cannot be
/// opened), and goes with the process. A file system without locks stops nobody.
class TreeLock {
public:
    /// Waits as long as somebody else has the lock.
    explicit TreeLock(const std::string& tree);

private:
    files::FileDescriptor directory_;
};
