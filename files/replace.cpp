#include "files/replace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "files/refusals.h"

namespace files {

namespace {

std::string Reason(const char* what) {
    const int error = errno;
    NoteRefusal(error);
    return std::string(what) + ": " + std::strerror(error);
}

FileDescriptor OpenDirectory(const std::string& path) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// The one that lives. There is one process, one thread and one tree.
SyncLater* syncLater = nullptr;

/// Gives a new file mode and owner of an old one.
std::string KeepAttributes(const FileDescriptor& file, const struct stat& old) {
    struct stat made {};
    if (fstat(file.Get(), &made) != 0)
        return Reason("can't read the new file's owner");
    const bool sameOwner = made.st_uid == old.st_uid && made.st_gid == old.st_gid;
    if (!sameOwner && fchown(file.Get(), old.st_uid, old.st_gid) != 0)
        return Reason("can't keep the owner");
    const bool sameMode = ((made.st_mode ^ old.st_mode) & 07777) == 0;
    const bool special = (old.st_mode & 07000) != 0;  // a change of owner takes these bits off
    if ((!sameMode || (special && !sameOwner)) && fchmod(file.Get(), old.st_mode & 07777) != 0)
        return Reason("can't keep the mode");
    return {};
}

/// Writes the bytes into a new file at `path`, with the mode and owner of `old`, if there is one;
/// durably, unless that is left for later.
std::string WriteTemporary(const std::string& path, const struct stat* old,
                           std::string_view bytes) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
    const mode_t mode = old != nullptr ? old->st_mode & 0777 : 0666;
    FileDescriptor file(open(path.c_str(), flags, mode));
    if (!file.IsOpen() && errno == EEXIST && unlink(path.c_str()) == 0)  // a killed run's
        file = FileDescriptor(open(path.c_str(), flags, mode));
    if (!file.IsOpen())
        return Reason("can't create the new file");
    std::string error = old != nullptr ? KeepAttributes(file, *old) : "";
    if (!error.empty())
        return error;
    if (!WriteAll(file.Get(), bytes))
        return Reason("can't write");
    if (syncLater == nullptr && fsync(file.Get()) != 0)
        return Reason("can't sync");
    if (!file.Close())
        return Reason("can't close");
    return {};
}

}  // namespace

SyncLater::SyncLater() {
    syncLater = this;
}

SyncLater::~SyncLater() {
    syncLater = nullptr;
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

bool SyncFileSystem(const std::string& directory) {
    const FileDescriptor file = OpenDirectory(directory);
    return file.IsOpen() && syncfs(file.Get()) == 0;
}

bool SyncChangesBelow(const std::string& directory) {
    return syncLater == nullptr ? SyncFileSystem(directory) : syncLater->NoteChange(directory);
}

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

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
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

std::string ReplaceFile(const std::string& path, std::string_view bytes,
                        const std::optional<Standing>& known) {
    std::string target = path;
    struct stat old {};
    bool exists = false;
    if (known) {
        exists = known->exists;
        old = known->info;
    } else {
        exists = lstat(path.c_str(), &old) == 0;
    }
    if (exists && S_ISLNK(old.st_mode)) {
        target = BehindLinks(path);
        if (target.empty())
            return Reason("can't follow the link");
        exists = stat(target.c_str(), &old) == 0;
    }
    if (!exists && !known && errno != ENOENT)
        return Reason("can't read the old file");
    if (exists && !S_ISREG(old.st_mode))
        return "the old file is not a regular file";

    // Opened first: once the file is renamed, nothing may be left that can fail for a reason which
    // was there before.
    const std::string parent = DirectoryOf(target);
    const FileDescriptor directory =
        syncLater != nullptr ? FileDescriptor(-1) : OpenDirectory(parent);
    if (syncLater != nullptr ? !syncLater->NoteChange(parent) : !directory.IsOpen())
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
    if (directory.IsOpen() && fsync(directory.Get()) != 0 && errno != EINVAL)
        return Reason("can't sync the directory");
    return {};
}

bool MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0777) == 0)
        return true;
    const int error = errno;
    NoteRefusal(error);
    errno = error;
    return false;
}

bool MakeOpenDirectory(const std::string& path) {
    const mode_t mask = umask(0);
    const bool made = MakeDirectory(path);
    const int error = errno;
    umask(mask);
    errno = error;
    return made;
}

bool RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        return true;
    NoteRefusal(errno, "Can't remove: " + path);
    return false;
}

void RemoveSpecialFile(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        unlink(path.c_str());
}

}  // namespace files
