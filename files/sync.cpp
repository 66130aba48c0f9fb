#include "files/sync.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace files {
namespace {

// There is one process, one thread and one tree.
SyncLater* living = nullptr;

}  // namespace

SyncLater::SyncLater() {
    living = this;
}

SyncLater::~SyncLater() {
    living = nullptr;
}

SyncLater* SyncLater::Living() {
    return living;
}

bool SyncLater::SyncAll() {
    bool synced = true;
    int error = 0;
    for (const auto& [device, directory] : written_) {
        if (syncfs(directory.Get()) != 0) {
            error = errno;
            synced = false;
        }
    }
    errno = error;
    return synced;
}

bool SyncLater::NoteChange(const std::string& directory) {
    if (directory == last_)
        return true;
    struct stat info {};
    if (stat(directory.c_str(), &info) != 0)
        return false;
    if (!written_.contains(info.st_dev)) {
        FileDescriptor file = OpenDirectory(directory);
        if (!file.IsOpen())
            return false;
        written_.emplace(info.st_dev, std::move(file));
    }
    last_ = directory;
    return true;
}

FileDescriptor OpenDirectory(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool SyncFileSystem(const std::string& directory) {
    const FileDescriptor file = OpenDirectory(directory);
    return file.IsOpen() && syncfs(file.Get()) == 0;
}

bool SyncChangesBelow(const std::string& directory) {
    return living == nullptr ? SyncFileSystem(directory) : living->NoteChange(directory);
}

}  // namespace files
