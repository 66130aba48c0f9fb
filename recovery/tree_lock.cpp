#include "recovery/tree_lock.h"

#include <sys/file.h>

#include <cerrno>

#include "files/replace.h"
#include "files/sync.h"

TreeLock::TreeLock(const std::string& tree)
    : directory_(files::OpenDirectory(files::DirectoryOf(tree))) {
    if (!directory_.IsOpen())
        directory_ = files::OpenDirectory(tree);
    while (directory_.IsOpen() && flock(directory_.Get(), LOCK_EX) != 0 && errno == EINTR) {
    }
}
