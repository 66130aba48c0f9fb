#include "files/copy.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <linux/fs.h>
#include <string_view>

#include "files/attributes.h"
#include "files/digest.h"
#include "files/look.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"

namespace files {
namespace {

constexpr std::size_t mostAtOnce = 65536;  // bytes of a read; a multiple of what a digest takes

/// Room for a read of a file of this size, and for the byte that tells its end.
std::string BlockFor(off_t size) {
    return std::string(std::min(mostAtOnce, static_cast<std::size_t>(size) / 8 * 8 + 8), '\0');
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

std::string_view Filled(const std::string& block, ssize_t size) {
    return std::string_view(block).substr(0, static_cast<std::size_t>(size));
}

std::uint64_t HashOfTarget(const std::string& target) {
    Digest digest;
    digest.Add(target);
    return digest.Value();
}

bool IsUnsupported(int error) {
    return error == EOPNOTSUPP || error == ENOTTY || error == EXDEV || error == EINVAL ||
           error == ENOSYS;
}

/// Shares the blocks of a file with another, where the file system can.
bool CloneBytes(int from, int to) {
    static bool isOffered = true;  // until a file system says no: then none is asked any more
    if (!isOffered)
        return false;
    if (ioctl(to, FICLONE, from) == 0)
        return true;
    isOffered = !IsUnsupported(errno);
    return false;
}

/// Reads the whole source for its hash and writes what it reads, unless the blocks are shared.
std::string CopyBytes(const FileDescriptor& from, const std::string& source, off_t size,
                      const FileDescriptor& to, const std::string& path, std::uint64_t& hash) {
    const bool isShared = size > 0 && CloneBytes(from.Get(), to.Get());
    Digest digest;
    std::string block = BlockFor(size);
    for (;;) {
        const ssize_t got = ReadBlock(from.Get(), block);
        if (got < 0)
            return NotedReason(source);
        digest.Add(Filled(block, got));
        if (!isShared && !WriteAll(to.Get(), Filled(block, got)))
            return NotedReason(path);
        if (static_cast<std::size_t>(got) < block.size())
            break;
    }
    hash = digest.Value();
    return {};
}

std::string CopyFile(const std::string& source, const struct stat& info, const std::string& path,
                     std::uint64_t& hash) {
    const FileDescriptor from = OpenForReading(source, O_NOFOLLOW);
    if (!from.IsOpen())
        return NotedReason(source);
    FileDescriptor to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                           S_IRUSR | S_IWUSR));
    if (!to.IsOpen())
        return NotedReason(path);
    std::string error = CopyBytes(from, source, info.st_size, to, path, hash);
    if (error.empty() && (!GiveAttributes(to.Get(), info, source) || !to.Close()))
        error = NotedReason(path);
    return error;
}

std::string CopyLink(const std::string& source, const struct stat& info, const std::string& path,
                     std::uint64_t& hash) {
    const auto target = LinkTarget(source);
    if (!target)
        return NotedReason(source);
    hash = HashOfTarget(*target);
    struct stat made {};
    const struct timespec times[] = {info.st_atim, info.st_mtim};
    if (symlink(target->c_str(), path.c_str()) != 0 || lstat(path.c_str(), &made) != 0)
        return NotedReason(path);
    const bool sameOwner = made.st_uid == info.st_uid && made.st_gid == info.st_gid;
    if ((!sameOwner && lchown(path.c_str(), info.st_uid, info.st_gid) != 0) ||
        utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        return NotedReason(path);
    return {};
}

/// Whether it is the file that cannot be linked, and not the disk that refuses: another file
/// system, one without links, a file of somebody else's or an immutable one, the most that a file
/// may have.
bool IsNotLinkable(int error) {
    return IsUnsupported(error) || error == EPERM || error == EACCES || error == EMLINK;
}

std::string LinkFile(const std::string& source, const struct stat& info, const std::string& path,
                     std::uint64_t& hash) {
    if (link(source.c_str(), path.c_str()) != 0)
        return IsNotLinkable(errno) ? CopyFile(source, info, path, hash) : NotedReason(path);
    const auto read = HashOf(source, info);
    if (!read)
        return NotedReason(source);
    hash = *read;
    return {};
}

bool IsSame(const std::string& source, const struct stat& from, const std::string& destination,
            const struct stat& to) {
    if (from.st_dev == to.st_dev && from.st_ino == to.st_ino)
        return true;
    if (from.st_size != to.st_size || !HaveSameAttributes(from, source, to, destination))
        return false;
    return S_ISLNK(from.st_mode) ? LinkTarget(source) == LinkTarget(destination)
                                 : HaveSameBytes(source, destination);
}

}  // namespace

std::string GiveEntry(const std::string& source, const struct stat& info,
                      const std::string& destination, By by, std::uint64_t& hash) {
    struct stat there {};
    if (lstat(destination.c_str(), &there) == 0) {  // or a failure would remove what stands there
        errno = EEXIST;
        return NotedReason(destination);
    }
    const std::string error = S_ISLNK(info.st_mode) ? CopyLink(source, info, destination, hash)
                              : by == By::Copying   ? CopyFile(source, info, destination, hash)
                                                    : LinkFile(source, info, destination, hash);
    if (!error.empty())
        unlink(destination.c_str());
    return error;
}

std::string CopyEntry(const std::string& source, const std::string& destination, By by) {
    struct stat info {};
    std::uint64_t hash = 0;
    if (lstat(source.c_str(), &info) != 0)
        return NotedReason(source);
    return GiveEntry(source, info, destination, by, hash);
}

std::string ReplaceEntry(const std::string& source, const struct stat& info,
                         const std::string& destination, By by, std::uint64_t& hash) {
    hash = 0;
    struct stat old {};
    const bool exists = lstat(destination.c_str(), &old) == 0;
    if (exists && IsSame(source, info, destination, old))
        return {};
    if (exists && S_ISDIR(old.st_mode) && !RemoveTree(destination))
        return NotedReason(destination);
    // A name that leaves no room for the suffix is written to directly. Should the file be cut, it
    // differs from the source, and the next call makes it anew.
    const std::size_t nameLength = destination.size() - destination.rfind('/') - 1;
    const bool isLong = nameLength + std::strlen(temporarySuffix) > NAME_MAX;
    const std::string temporary = isLong ? destination : TemporaryFor(destination);
    RemoveTree(temporary);
    std::string error = GiveEntry(source, info, temporary, by, hash);
    if (!error.empty() || isLong || PutInPlace(temporary, destination))
        return error;
    error = NotedReason(destination);
    unlink(temporary.c_str());
    return error;
}

std::optional<std::uint64_t> HashOf(const std::string& path, const struct stat& info) {
    if (S_ISLNK(info.st_mode)) {
        const auto target = LinkTarget(path);
        return target ? std::optional(HashOfTarget(*target)) : std::nullopt;
    }
    const FileDescriptor file = OpenForReading(path, O_NOFOLLOW);
    if (!file.IsOpen())
        return std::nullopt;
    Digest digest;
    std::string block = BlockFor(info.st_size);
    for (;;) {
        const ssize_t got = ReadBlock(file.Get(), block);
        if (got < 0)
            return std::nullopt;
        digest.Add(Filled(block, got));
        if (static_cast<std::size_t>(got) < block.size())
            return digest.Value();
    }
}

bool HaveSameBytes(const std::string& a, const std::string& b) {
    const FileDescriptor left = OpenForReading(a);
    const FileDescriptor right = OpenForReading(b);
    std::string leftBlock(mostAtOnce, '\0');
    std::string rightBlock(mostAtOnce, '\0');
    for (;;) {
        const ssize_t got = ReadBlock(left.Get(), leftBlock);
        if (got < 0 || got != ReadBlock(right.Get(), rightBlock))
            return false;
        if (got == 0)
            return true;
        if (Filled(leftBlock, got) != Filled(rightBlock, got))
            return false;
    }
}

}  // namespace files
