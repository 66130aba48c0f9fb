#include "recovery/tree_lock.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "files/replace.h"
#include "files/sync.h"

namespace {

constexpr unsigned pauseMicroseconds = 100'000;
constexpr unsigned mostPauses = 6'000;

/// Whether somebody else has the lock; otherwise it is ours, or there are no locks.
bool IsTaken(int directory) {
    return flock(directory, LOCK_EX | LOCK_NB) != 0 && (errno == EWOULDBLOCK || errno == EINTR);
}

}  // namespace

TreeLock::TreeLock(const std::string& tree)
    : path_(files::DirectoryOf(tree)), directory_(files::OpenDirectory(path_)) {
    if (!directory_.IsOpen()) {
        path_ = tree;
        directory_ = files::OpenDirectory(tree);
    }
    isDenied_ = directory_.IsOpen();
    for (unsigned pauses = 0; isDenied_ && pauses < mostPauses; ++pauses) {
        isDenied_ = IsTaken(directory_.Get());
        if (isDenied_)
            usleep(pauseMicroseconds);
    }
}
