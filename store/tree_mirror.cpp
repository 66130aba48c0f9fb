#include "store/tree_mirror.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include "platform/disk_failures.h"
#include "platform/file_descriptor.h"
#include "platform/file_utility.h"
#include "store/file_io.h"
#include "util/directory.h"

namespace Configuration {
namespace {

using platform::FileDescriptor;

constexpr std::size_t blockSize = 65536;   // of reads
constexpr std::uint64_t fileBlock = 4096;  // what file systems give room in

std::string Reason(const std::string& path) {
    const int error = errno;
    CountDiskFailure(error);
    return path + ": " + std::strerror(error);
}

bool SameAttributes(const struct stat& a, const struct stat& b) {
    return a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

/// Reads until the block is full or the file ends; the number of bytes, or -1.
ssize_t ReadBlock(int file, std::string& block) {
    std::size_t filled = 0;
    while (filled < block.size()) {
        const ssize_t got = read(file, block.data() + filled, block.size() - filled);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    return static_cast<ssize_t>(filled);
}

FileDescriptor OpenForReading(const std::string& path) {
    return FileDescriptor(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
}

bool SameBytes(const std::string& a, const std::string& b) {
    const FileDescriptor left = OpenForReading(a);
    const FileDescriptor right = OpenForReading(b);
    std::string leftBlock(blockSize, '\0');
    std::string rightBlock(blockSize, '\0');
    for (;;) {
        const ssize_t got = ReadBlock(left.Get(), leftBlock);
        if (got < 0 || got != ReadBlock(right.Get(), rightBlock))
            return false;
        if (got == 0)
            return true;
        if (leftBlock.compare(0, static_cast<std::size_t>(got), rightBlock, 0,
                              static_cast<std::size_t>(got)) != 0)
            return false;
    }
}

/// Owner first: the system takes the set-user-id bit off when the owner changes.
bool GiveAttributes(int file, const struct stat& from) {
    const struct timespec times[] = {from.st_atim, from.st_mtim};
    return fchown(file, from.st_uid, from.st_gid) == 0 && fchmod(file, from.st_mode & 07777) == 0 &&
           futimens(file, times) == 0;
}

std::optional<std::string> LinkTarget(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0)
        return std::nullopt;
    return std::string(target, static_cast<std::size_t>(length));
}

std::string CopyFile(const std::string& source, const struct stat& info, const std::string& path) {
    const FileDescriptor from = OpenForReading(source);
    if (!from.IsOpen())
        return Reason(source);
    FileDescriptor to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                           S_IRUSR | S_IWUSR));
    if (!to.IsOpen())
        return Reason(path);
    std::string block(std::min(blockSize, static_cast<std::size_t>(info.st_size) + 1), '\0');
    for (;;) {
        const ssize_t got = ReadBlock(from.Get(), block);
        if (got < 0)
            return Reason(source);
        if (got == 0)
            break;
        if (!WriteAll(to.Get(), std::string_view(block).substr(0, static_cast<std::size_t>(got))))
            return Reason(path);
    }
    if (!GiveAttributes(to.Get(), info) || !to.Close())
        return Reason(path);
    return {};
}

std::string GiveFile(const std::string& source, const struct stat& info, const std::string& path,
                     By by) {
    if (by == By::Copying)
        return CopyFile(source, info, path);
    return link(source.c_str(), path.c_str()) == 0 ? "" : Reason(path);
}

std::string CopyLink(const std::string& source, const struct stat& info, const std::string& path) {
    const auto target = LinkTarget(source);
    if (!target)
        return Reason(source);
    const struct timespec times[] = {info.st_atim, info.st_mtim};
    if (symlink(target->c_str(), path.c_str()) != 0 ||
        lchown(path.c_str(), info.st_uid, info.st_gid) != 0 ||
        utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        return Reason(path);
    return {};
}

bool IsSame(const std::string& source, const struct stat& from, const std::string& destination,
            const struct stat& to) {
    if (from.st_dev == to.st_dev && from.st_ino == to.st_ino)
        return true;
    if (!SameAttributes(from, to) || from.st_size != to.st_size)
        return false;
    return S_ISLNK(from.st_mode) ? LinkTarget(source) == LinkTarget(destination)
                                 : SameBytes(source, destination);
}

/// A regular file or a link: made beside the destination and renamed, so that it is whole there,
/// old or new.
std::string MirrorEntry(const std::string& source, const struct stat& info,
                        const std::string& destination, By by) {
    struct stat old {};
    const bool exists = lstat(destination.c_str(), &old) == 0;
    if (exists && IsSame(source, info, destination, old))
        return {};
    if (exists && S_ISDIR(old.st_mode) && !FileUtility::RemoveDirOrFile(destination))
        return Reason(destination);
    // A name too long for the suffix is taken itself: what is cut there is seen by the next call.
    const std::size_t nameLength = destination.size() - destination.rfind('/') - 1;
    const bool isLong = nameLength + std::strlen(temporarySuffix) > NAME_MAX;
    const std::string temporary = isLong ? destination : destination + temporarySuffix;
    FileUtility::RemoveDirOrFile(temporary);
    std::string error = S_ISLNK(info.st_mode) ? CopyLink(source, info, temporary)
                                              : GiveFile(source, info, temporary, by);
    if (error.empty() && !isLong && rename(temporary.c_str(), destination.c_str()) != 0)
        error = Reason(destination);
    if (!error.empty())
        unlink(temporary.c_str());
    return error;
}

bool IsSpecial(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode) &&
           !S_ISLNK(info.st_mode);
}

/// Ends the name under which a copy of a tree keeps what one of its links led to.
constexpr const char* linkedSuffix = ".linked.mend-tmp";

bool EndsWith(const std::string& name, std::string_view suffix) {
    return name.size() > suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::string MirrorTree(const std::string& source, const std::string& destination, By by) {
    struct stat info {};
    auto from = ListDirectory(source);
    if (!from || stat(source.c_str(), &info) != 0)
        return Reason(source);
    struct stat old {};
    if (lstat(destination.c_str(), &old) == 0 && !S_ISDIR(old.st_mode))
        FileUtility::RemoveDirOrFile(destination);
    if (mkdir(destination.c_str(), S_IRWXU) != 0 && errno != EEXIST)
        return Reason(destination);
    const auto to = ListDirectory(destination);
    if (!to)
        return Reason(destination);

    std::sort(from->names.begin(), from->names.end());
    for (const std::string& name : to->names) {
        const std::string path = destination + "/" + name;
        if (!std::binary_search(from->names.begin(), from->names.end(), name) && !IsSpecial(path) &&
            !FileUtility::RemoveDirOrFile(path))
            return Reason(path);
    }
    for (const std::string& name : from->names) {
        if (EndsWith(name, temporarySuffix))
            continue;
        const std::string path = source + "/" + name;
        struct stat entry {};
        if (lstat(path.c_str(), &entry) != 0)
            return Reason(path);
        std::string error;
        if (S_ISDIR(entry.st_mode))
            error = MirrorTree(path, destination + "/" + name, by);
        else if (S_ISREG(entry.st_mode) || S_ISLNK(entry.st_mode))
            error = MirrorEntry(path, entry, destination + "/" + name, by);
        if (!error.empty())
            return error;
    }

    const FileDescriptor directory(
        open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory.IsOpen() || fstat(directory.Get(), &old) != 0 ||
        (!SameAttributes(info, old) && !GiveAttributes(directory.Get(), info)))
        return Reason(destination);
    return {};
}

std::string SaveLinkedFiles(const std::string& tree, const std::string& copy, By by) {
    const auto listing = ListDirectory(tree);
    if (!listing)
        return Reason(tree);
    std::string error;
    for (const std::string& name : listing->names) {
        const std::string path = tree + "/" + name;
        struct stat info {};
        if (FileUtility::IsOwnDirectory(path))
            error = SaveLinkedFiles(path, copy + "/" + name, by);
        else if (LinkTarget(path) && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
            error = GiveFile(BehindLinks(path), info, copy + "/" + name + linkedSuffix, by);
        if (!error.empty())
            return error;
    }
    return {};
}

std::string PutBackLinkedFiles(const std::string& copy, const std::string& tree) {
    const auto listing = ListDirectory(copy);
    if (!listing)
        return Reason(copy);
    std::string error;
    for (const std::string& name : listing->names) {
        const std::string path = copy + "/" + name;
        if (FileUtility::IsOwnDirectory(path)) {
            error = PutBackLinkedFiles(path, tree + "/" + name);
        } else if (EndsWith(name, linkedSuffix)) {
            const std::string link =
                tree + "/" + name.substr(0, name.size() - std::strlen(linkedSuffix));
            const ReadResult saved = ReadFile(path);
            if (!saved.bytes)
                error = path + ": " + saved.error;
            else if (ReadFile(link).bytes != saved.bytes)
                error = ReplaceFile(link, *saved.bytes);
        }
        if (!error.empty())
            return error;
    }
    return {};
}

std::uint64_t TreeSize(const std::string& directory) {
    std::uint64_t size = 0;
    if (const auto listing = ListDirectory(directory))
        for (const std::string& name : listing->names) {
            const std::string path = directory + "/" + name;
            struct stat info {};
            if (lstat(path.c_str(), &info) != 0)
                continue;
            if (S_ISDIR(info.st_mode))
                size += TreeSize(path);
            else if (S_ISREG(info.st_mode))
                size += (static_cast<std::uint64_t>(info.st_size) + fileBlock - 1) / fileBlock *
                        fileBlock;
        }
    return size;
}

std::string CompleteCopy(const std::string& original, const std::string& copy) {
    struct stat info {};
    if (lstat(copy.c_str(), &info) != 0)
        return Reason(copy);
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        return {};
    const std::string source = BehindLinks(original);
    if (S_ISDIR(info.st_mode)) {
        return MirrorTree(source, copy, By::Copying);
    }
    return lstat(source.c_str(), &info) == 0 ? MirrorEntry(source, info, copy, By::Copying)
                                             : Reason(original);
}

std::string MoveInto(const std::string& from, const std::string& to) {
    const auto listing = ListDirectory(from);
    if (!listing)
        return Reason(from);
    std::string error;
    for (const std::string& name : listing->names) {
        const std::string source = from + "/" + name;
        const std::string target = to + "/" + name;
        std::string failed;
        if (CorrectPath(source) && CorrectPath(target)) {
            failed = MoveInto(source, target);
        } else if (!FileExist(target) || LinkTarget(source)) {
            if (rename(source.c_str(), target.c_str()) != 0)
                failed = Reason(target);
        } else if (const ReadResult file = ReadFile(source); file.bytes) {
            failed = ReplaceFile(target, *file.bytes);
        } else {
            failed = source + ": " + file.error;
        }
        if (error.empty())
            error = failed;
    }
    return error;
}

}  // namespace Configuration
