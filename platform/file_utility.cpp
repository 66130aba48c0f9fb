#include "platform/file_utility.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/disk_failures.h"
#include "platform/file_descriptor.h"

int FileExist(const std::string& path) {
    return FileUtility::KindOf(path) != FileUtility::Kind::Missing;
}

int CorrectPath(const std::string& path) {
    return FileUtility::KindOf(path) == FileUtility::Kind::Directory;
}

namespace FileUtility {
namespace {

/// Removes what a directory holds, by descriptors: a directory that someone swaps for a link
/// meanwhile is not followed.
bool RemoveAt(int parent, const char* name) {
    if (unlinkat(parent, name, 0) == 0)
        return true;
    if (errno != EISDIR && errno != EPERM)
        return false;
    const int file = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (file < 0)
        return false;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(file), closedir);
    if (!directory) {
        close(file);
        return false;
    }
    bool removed = true;  // an entry that readdir does not give keeps the directory from going
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        removed = RemoveAt(dirfd(directory.get()), entry->d_name) && removed;
    }
    return unlinkat(parent, name, AT_REMOVEDIR) == 0 && removed;
}

}  // namespace

void AdjustPath(std::string& path, char separator) {
    if (!path.empty() && path.back() != separator)
        path += separator;
}

bool RemoveDirOrFile(const std::string& path) {
    return RemoveAt(AT_FDCWD, path.c_str());
}

namespace {

/// A file that the disk does not tell of must not pass for a missing one without notice.
bool LookAt(int result, const std::string& path) {
    if (result != 0)
        CountDiskFailure(errno, path);
    return result == 0;
}

}  // namespace

Kind KindOf(const std::string& path) {
    struct stat info {};
    if (!LookAt(stat(path.c_str(), &info), path))
        return Kind::Missing;
    return S_ISDIR(info.st_mode) ? Kind::Directory : Kind::Other;
}

bool IsThere(const std::string& path) {
    struct stat info {};
    return LookAt(lstat(path.c_str(), &info), path);
}

bool IsOwnDirectory(const std::string& path) {
    struct stat info {};
    return LookAt(lstat(path.c_str(), &info), path) && S_ISDIR(info.st_mode);
}

bool SyncFileSystem(const std::string& directory) {
    const platform::FileDescriptor file(
        open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return file.IsOpen() && syncfs(file.Get()) == 0;
}

std::uint64_t GetVmStorageSize(const std::string& path, bool) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.f_blocks) * info.f_frsize;
}

std::optional<std::string> ReadStart(const std::string& path, std::size_t limit) {
    const platform::FileDescriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.IsOpen()) {
        CountDiskFailure(errno, path);
        return std::nullopt;
    }
    struct stat info {};
    // A FIFO or device could hold up the start of the appliance.
    if (fstat(file.Get(), &info) != 0) {
        CountDiskFailure(errno, path);
        return std::string();
    }
    if (!S_ISREG(info.st_mode))
        return std::string();
    std::string bytes(limit, '\0');
    ssize_t got = 0;
    do
        got = read(file.Get(), bytes.data(), limit);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        CountDiskFailure(errno, path);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

bool IsDirectoryName(const std::string& text) {
    return !text.empty() && text != "." && text != ".." &&
           text.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

void RemoveSpecialFile(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        unlink(path.c_str());
}

bool MakeOpenDirectory(const std::string& path) {
    if (MakeDirectory(path) && chmod(path.c_str(), 0777) == 0)
        return true;
    CountDiskFailure(errno, path);
    return false;
}

bool MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0777) == 0)
        return true;
    CountDiskFailure(errno, path);
    return false;
}

bool RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        return true;
    CountDiskFailure(errno, path);
    return false;
}

}  // namespace FileUtility
