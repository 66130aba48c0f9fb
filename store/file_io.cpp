#include "store/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "platform/disk_failures.h"
#include "platform/file_descriptor.h"

namespace Configuration {
namespace {

using platform::FileDescriptor;

std::string Reason(const char* what) {
    const int error = errno;
    CountDiskFailure(error);
    return std::string(what) + ": " + std::strerror(error);
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

/// Writes `bytes` into the new file `temporary` with `old`'s mode and owner, if there is one.
std::string WriteTemporary(const std::string& temporary, const struct stat* old,
                           std::string_view bytes) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
    const mode_t mode = old != nullptr ? S_IRUSR | S_IWUSR : 0666;
    FileDescriptor file(open(temporary.c_str(), flags, mode));
    if (!file.IsOpen() && errno == EEXIST && unlink(temporary.c_str()) == 0)  // a killed run's
        file = FileDescriptor(open(temporary.c_str(), flags, mode));
    if (!file.IsOpen())
        return Reason("can't create the new file");

    if (old != nullptr) {
        struct stat made {};
        if (fstat(file.Get(), &made) != 0)
            return Reason("can't read the new file's owner");
        const bool sameOwner = made.st_uid == old->st_uid && made.st_gid == old->st_gid;
        if (!sameOwner && fchown(file.Get(), old->st_uid, old->st_gid) != 0)
            return Reason("can't keep the owner");
        if (fchmod(file.Get(), old->st_mode & 07777) != 0)
            return Reason("can't keep the mode");
    }
    if (!WriteAll(file.Get(), bytes))
        return Reason("can't write");
    if (fsync(file.Get()) != 0)
        return Reason("can't sync");
    if (!file.Close())
        return Reason("can't close");
    return {};
}

}  // namespace

std::string BehindLinks(std::string path) {
    for (int depth = 0; depth < 40; ++depth) {
        char target[PATH_MAX];
        const ssize_t length = readlink(path.c_str(), target, sizeof target);
        if (length < 0)
            return errno == EINVAL || errno == ENOENT ? path : std::string();
        if (static_cast<std::size_t>(length) >= sizeof target)
            break;
        const std::string link(target, static_cast<std::size_t>(length));
        const std::size_t slash = path.rfind('/');
        const bool relative = link.empty() || link.front() != '/';
        path = (relative && slash != std::string::npos ? path.substr(0, slash + 1) : "") + link;
    }
    errno = ELOOP;
    return {};
}

bool WriteAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

ReadResult ReadFile(const std::string& path) {
    ReadResult result;
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info {};
    if (!file.IsOpen() || fstat(file.Get(), &info) != 0) {
        const int error = errno;
        CountDiskFailure(error, path);
        result.missing = error == ENOENT;
        result.error = std::strerror(error);
        return result;
    }
    if (!S_ISREG(info.st_mode)) {
        result.error = S_ISDIR(info.st_mode) ? "is a directory" : "is not a regular file";
        return result;
    }
    std::string bytes;
    // One byte more than the size, so that no read is short of room. Kernel files say 0, and some
    // answer a single read only.
    constexpr std::size_t leastRead = 4096;
    std::size_t filled = 0;
    bytes.resize(std::max(static_cast<std::size_t>(info.st_size) + 1, leastRead));
    for (;;) {
        const ssize_t got = read(file.Get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            const int error = errno;
            CountDiskFailure(error, path);
            result.error = std::strerror(error);
            return result;
        }
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
        if (filled == bytes.size())
            bytes.resize(bytes.size() * 2);
    }
    bytes.resize(filled);
    result.bytes = std::move(bytes);
    return result;
}

std::string ReplaceFile(const std::string& path, std::string_view bytes) {
    const std::string target = BehindLinks(path);
    if (target.empty())
        return Reason("can't follow the link");
    struct stat old {};
    const bool exists = stat(target.c_str(), &old) == 0;
    if (!exists && errno != ENOENT)
        return Reason("can't read the old file");
    if (exists && !S_ISREG(old.st_mode))
        return "the old file is not a regular file";

    // Opened first: once the file is renamed, nothing may be left that can fail for a reason which
    // was there before.
    const FileDescriptor directory(
        open(DirectoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen())
        return Reason("can't open the directory");
    const std::string temporary = target + temporarySuffix;
    std::string error = WriteTemporary(temporary, exists ? &old : nullptr, bytes);
    if (error.empty() && rename(temporary.c_str(), target.c_str()) != 0)
        error = Reason("can't rename the new file");
    if (!error.empty()) {
        unlink(temporary.c_str());
        return error;
    }
    // Some file systems cannot sync a directory and say EINVAL: nothing more can be done there.
    if (fsync(directory.Get()) != 0 && errno != EINVAL)
        return Reason("can't sync the directory");
    return {};
}

}  // namespace Configuration
