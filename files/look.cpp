#include "files/look.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "files/own_names.h"
#include "files/refusals.h"

namespace files {
namespace {

/// A file that the disk does not tell of must not pass for a missing one without notice.
bool IsTold(int result, const std::string& path) {
    if (result != 0)
        NoteRefusal(errno, "Can't read: " + path);
    return result == 0;
}

DirectoryEntry::Type TypeOf(const dirent& entry) {
    switch (entry.d_type) {
        case DT_REG:
            return DirectoryEntry::Type::File;
        case DT_DIR:
            return DirectoryEntry::Type::Directory;
        case DT_LNK:
            return DirectoryEntry::Type::Link;
        case DT_UNKNOWN:
            return DirectoryEntry::Type::Unknown;
        default:
            return DirectoryEntry::Type::Special;
    }
}

}  // namespace

Kind KindOf(const std::string& path) {
    struct stat info {};
    if (!IsTold(stat(path.c_str(), &info), path))
        return Kind::Missing;
    return S_ISDIR(info.st_mode) ? Kind::Directory : Kind::Other;
}

bool IsThere(const std::string& path) {
    struct stat info {};
    return IsTold(lstat(path.c_str(), &info), path);
}

bool IsOwnDirectory(const std::string& path) {
    struct stat info {};
    return IsTold(lstat(path.c_str(), &info), path) && S_ISDIR(info.st_mode);
}

bool IsLink(const std::string& path) {
    struct stat info {};
    return IsTold(lstat(path.c_str(), &info), path) && S_ISLNK(info.st_mode);
}

std::optional<std::string> LinkTarget(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0)
        return std::nullopt;
    return std::string(target, static_cast<std::size_t>(length));
}

std::string RealPath(const std::string& path) {
    char real[PATH_MAX];
    return IsTold(realpath(path.c_str(), real) != nullptr ? 0 : -1, path) ? real : "";
}

bool IsWithin(const std::string& path, const std::string& directory) {
    return directory == "/" || (path.starts_with(directory) &&
                                (path.size() == directory.size() || path[directory.size()] == '/'));
}

bool IsDirectoryName(const std::string& text) {
    return !text.empty() && text != "." && text != ".." && !IsOwnName(text) &&
           text.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

Directory::Directory(int file) : directory_(file < 0 ? nullptr : fdopendir(file)) {
    if (file >= 0 && !directory_)
        close(file);
}

Directory::Directory(const std::string& path) : directory_(opendir(path.c_str())) {}

Directory::Directory(const Directory& parent, const std::string& name)
    : Directory(openat(parent.Descriptor(), name.c_str(),
                       O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {}

bool Directory::Look(const std::string& name, struct stat& info) const {
    return fstatat(Descriptor(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
}

std::optional<std::vector<DirectoryEntry>> Directory::Entries() {
    std::vector<DirectoryEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(directory_.get());
        if (entry == nullptr)
            break;
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back({std::move(name), TypeOf(*entry)});
    }
    if (errno != 0)
        return std::nullopt;
    return entries;
}

std::optional<DirectoryListing> ListDirectory(const std::string& path) {
    Directory directory(path);
    struct stat info {};
    if (directory.IsOpen() && fstat(directory.Descriptor(), &info) == 0)
        if (auto entries = directory.Entries())
            return DirectoryListing{{info.st_dev, info.st_ino}, std::move(*entries)};
    NoteRefusal(errno, "Can't read: " + path);
    return std::nullopt;
}

Kind KindOf(const std::string& path, const DirectoryEntry& entry) {
    switch (entry.type) {
        case DirectoryEntry::Type::Directory:
            return Kind::Directory;
        case DirectoryEntry::Type::File:
            return Kind::Other;
        default:
            return KindOf(path + (path.ends_with('/') ? "" : "/") + entry.name);
    }
}

}  // namespace files
