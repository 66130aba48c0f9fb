#include "files/tree.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <linux/fs.h>
#include <string_view>

#include "files/look.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/replace.h"

namespace files {
namespace {

constexpr std::size_t blockSize = 65536;  // of reads

std::string Reason(const std::string& path) {
    const int error = errno;
    NoteRefusal(error);
    return path + ": " + std::strerror(error);
}

bool HasSameMtime(const struct stat& a, const struct stat& b) {
    return a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool HasSameAttributes(const struct stat& a, const struct stat& b) {
    return a.st_mode == b.st_mode && a.st_uid == b.st_uid && a.st_gid == b.st_gid &&
           HasSameMtime(a, b);
}

/// Gives an open file or directory mode, owner and times of another, asking only for what differs:
/// some file systems refuse even that which changes nothing.
bool GiveAttributes(int file, const struct stat& from) {
    struct stat now {};
    if (fstat(file, &now) != 0)
        return false;
    const bool sameOwner = now.st_uid == from.st_uid && now.st_gid == from.st_gid;
    // Owner first: the system takes the set-user-id bit off when the owner changes.
    if (!sameOwner && fchown(file, from.st_uid, from.st_gid) != 0)
        return false;
    const bool special = (from.st_mode & 07000) != 0;
    if ((now.st_mode != from.st_mode || (special && !sameOwner)) &&
        fchmod(file, from.st_mode & 07777) != 0)
        return false;
    const struct timespec times[] = {from.st_atim, from.st_mtim};
    return futimens(file, times) == 0;
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

/// Whether two files hold the same bytes; false, too, when one of them cannot be read.
bool HasSameBytes(const std::string& a, const std::string& b) {
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
        if (Filled(leftBlock, got) != Filled(rightBlock, got))
            return false;
    }
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

/// Has the system copy `size` bytes from and to where the files stand. False when it left some of
/// them, for read and write.
bool CopyRange(int from, int to, off_t size) {
    static bool isOffered = true;
    while (isOffered && size > 0) {
        const ssize_t copied =
            copy_file_range(from, nullptr, to, nullptr, static_cast<std::size_t>(size), 0);
        if (copied < 0)
            isOffered = !IsUnsupported(errno);
        if (copied <= 0)
            return false;
        size -= copied;
    }
    return size == 0;
}

/// Copies by read and write from and to where the files stand.
std::string CopyRest(const FileDescriptor& from, const std::string& source,
                     const FileDescriptor& to, const std::string& path) {
    std::string block(blockSize, '\0');
    for (;;) {
        const ssize_t got = ReadBlock(from.Get(), block);
        if (got < 0)
            return Reason(source);
        if (got == 0)
            return {};
        if (!WriteAll(to.Get(), Filled(block, got)))
            return Reason(path);
    }
}

std::string CopyFile(const std::string& source, const struct stat& info, const std::string& path) {
    const FileDescriptor from = OpenForReading(source, O_NOFOLLOW);
    if (!from.IsOpen())
        return Reason(source);
    FileDescriptor to(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                           info.st_mode & 0777));
    if (!to.IsOpen())
        return Reason(path);
    if (info.st_size > 0 && !CloneBytes(from.Get(), to.Get()) &&
        !CopyRange(from.Get(), to.Get(), info.st_size)) {
        std::string error = CopyRest(from, source, to, path);
        if (!error.empty())
            return error;
    }
    if (!GiveAttributes(to.Get(), info) || !to.Close())
        return Reason(path);
    return {};
}

std::string CopyLink(const std::string& source, const struct stat& info, const std::string& path) {
    const auto target = LinkTarget(source);
    if (!target)
        return Reason(source);
    struct stat made {};
    const struct timespec times[] = {info.st_atim, info.st_mtim};
    if (symlink(target->c_str(), path.c_str()) != 0 || lstat(path.c_str(), &made) != 0)
        return Reason(path);
    const bool sameOwner = made.st_uid == info.st_uid && made.st_gid == info.st_gid;
    if ((!sameOwner && lchown(path.c_str(), info.st_uid, info.st_gid) != 0) ||
        utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        return Reason(path);
    return {};
}

/// Gives a regular file or a link under a name that is free.
std::string GiveEntry(const std::string& source, const struct stat& info, const std::string& path,
                      By by) {
    std::string error;
    if (S_ISLNK(info.st_mode))
        error = CopyLink(source, info, path);
    else if (by == By::Copying)
        error = CopyFile(source, info, path);
    else if (link(source.c_str(), path.c_str()) != 0)
        error = Reason(path);
    if (!error.empty())
        unlink(path.c_str());
    return error;
}

bool IsSame(const std::string& source, const struct stat& from, const std::string& destination,
            const struct stat& to) {
    if (from.st_dev == to.st_dev && from.st_ino == to.st_ino)
        return true;
    if (!HasSameAttributes(from, to) || from.st_size != to.st_size)
        return false;
    return S_ISLNK(from.st_mode) ? LinkTarget(source) == LinkTarget(destination)
                                 : HasSameBytes(source, destination);
}

/// Puts a regular file or a link in the place of what has the name: made beside it and renamed, so
/// that it is whole there, old or new.
std::string ReplaceEntry(const std::string& source, const struct stat& info,
                         const std::string& destination, By by) {
    struct stat old {};
    const bool exists = lstat(destination.c_str(), &old) == 0;
    if (exists && IsSame(source, info, destination, old))
        return {};
    if (exists && S_ISDIR(old.st_mode) && !RemoveTree(destination))
        return Reason(destination);
    // A name too long for the suffix is taken itself: what is cut there is seen by the next call.
    const std::size_t nameLength = destination.size() - destination.rfind('/') - 1;
    const bool isLong = nameLength + std::strlen(temporarySuffix) > NAME_MAX;
    const std::string temporary = isLong ? destination : destination + temporarySuffix;
    RemoveTree(temporary);
    const std::string error = GiveEntry(source, info, temporary, by);
    if (!error.empty() || isLong || rename(temporary.c_str(), destination.c_str()) == 0)
        return error;
    const std::string reason = Reason(destination);
    unlink(temporary.c_str());
    return reason;
}

/// Removes from the destination `path` what `source` lacks.
std::string RemoveSurplus(const std::string& path, const std::vector<DirectoryEntry>& source) {
    Directory destination(path);
    const auto entries = destination.IsOpen() ? destination.Entries() : std::nullopt;
    if (!entries)
        return Reason(path);
    std::vector<std::string> wanted;
    wanted.reserve(source.size());
    for (const DirectoryEntry& entry : source)
        wanted.push_back(entry.name);
    std::sort(wanted.begin(), wanted.end());
    for (const DirectoryEntry& entry : *entries) {
        if (std::binary_search(wanted.begin(), wanted.end(), entry.name))
            continue;
        struct stat info {};
        if (!destination.Look(entry.name, info))
            return Reason(path + "/" + entry.name);
        if ((S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISLNK(info.st_mode)) &&
            !RemoveTree(path + "/" + entry.name))
            return Reason(path + "/" + entry.name);
    }
    return {};
}

bool RemoveEntry(const Directory& parent, const DirectoryEntry& entry) {
    const char* name = entry.name.c_str();
    if (entry.type != DirectoryEntry::Type::Directory) {
        if (unlinkat(parent.Descriptor(), name, 0) == 0)
            return true;
        if (errno != EISDIR && errno != EPERM)
            return false;
    }
    // Below an open directory, never by a path: one that someone swaps for a link meanwhile is not
    // followed.
    Directory directory(parent, entry.name);
    if (!directory.IsOpen())
        return false;
    bool removed = true;  // an entry that is not listed keeps the directory from going
    if (const auto entries = directory.Entries())
        for (const DirectoryEntry& below : *entries)
            removed = RemoveEntry(directory, below) && removed;
    return unlinkat(parent.Descriptor(), name, AT_REMOVEDIR) == 0 && removed;
}

/// A mirror under way.
class TreeMirror {
public:
    TreeMirror(const std::string& source, const std::string& destination, By by,
               const EntryVisitor& visit)
        : source_(source), destination_(destination), by_(by), visit_(visit) {}

    /// The directory of this name below both trees.
    std::string Run(Directory& source, const std::string& name) {
        const std::string path = destination_ + name;
        struct stat info {};
        const auto entries = source.Entries();
        if (!entries || fstat(source.Descriptor(), &info) != 0)
            return Reason(source_ + name);
        struct stat old {};
        // What a new directory gets is not made under another name first: a copy that is cut short
        // there differs, and is made anew when this is called again.
        bool isNew = mkdir(path.c_str(), S_IRWXU) == 0;
        if (!isNew && errno == EEXIST && lstat(path.c_str(), &old) == 0 && !S_ISDIR(old.st_mode)) {
            RemoveTree(path);
            isNew = mkdir(path.c_str(), S_IRWXU) == 0;
        }
        if (!isNew && errno != EEXIST)
            return Reason(path);
        std::string error = isNew ? "" : RemoveSurplus(path, *entries);
        for (const DirectoryEntry& entry : *entries) {
            if (!error.empty())
                return error;
            error = MirrorEntry(source, name, entry, isNew);
        }
        return error.empty() ? Finish(path, name, info) : error;
    }

private:
    /// `isFree` when nothing can have the name in the destination.
    std::string MirrorEntry(Directory& source, const std::string& directory,
                            const DirectoryEntry& entry, bool isFree) {
        if (entry.name.ends_with(temporarySuffix))
            return {};
        const std::string name = directory + "/" + entry.name;
        const std::string from = source_ + name;
        struct stat info {};
        if (!source.Look(entry.name, info))
            return Reason(from);
        if (S_ISDIR(info.st_mode)) {
            Directory below(source, entry.name);
            return below.IsOpen() ? Run(below, name) : Reason(from);
        }
        if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode))
            return {};
        if (visit_)
            visit_(name, info);
        const std::string to = destination_ + name;
        return isFree ? GiveEntry(from, info, to, by_) : ReplaceEntry(from, info, to, by_);
    }

    /// Last, for what is made in a directory changes its time.
    std::string Finish(const std::string& path, const std::string& name, const struct stat& info) {
        const FileDescriptor directory(
            open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat now {};
        if (!directory.IsOpen() || fstat(directory.Get(), &now) != 0 ||
            (!HasSameAttributes(info, now) && !GiveAttributes(directory.Get(), info)))
            return Reason(path);
        if (visit_)
            visit_(name, info);
        return {};
    }

    const std::string& source_;
    const std::string& destination_;
    By by_;
    const EntryVisitor& visit_;
};

/// A copy that is a link or special is as cp meant it.
std::string Complete(const std::string& source, const std::string& copy) {
    struct stat from {};
    struct stat to {};
    if (lstat(source.c_str(), &from) != 0)
        return Reason(source);
    if (lstat(copy.c_str(), &to) != 0) {
        if (errno != ENOENT)  // what the disk does not tell of is not a missing file
            return Reason(copy);
        if (S_ISDIR(from.st_mode))
            return MirrorTree(source, copy, By::Copying);
        const bool isSpecial = !S_ISREG(from.st_mode) && !S_ISLNK(from.st_mode);
        return isSpecial ? "" : GiveEntry(source, from, copy, By::Copying);
    }
    if (S_ISREG(from.st_mode) && S_ISREG(to.st_mode)) {
        const bool isWhole = from.st_size == to.st_size && HasSameBytes(source, copy);
        return isWhole ? "" : ReplaceEntry(source, from, copy, By::Copying);
    }
    if (!S_ISDIR(from.st_mode) || !S_ISDIR(to.st_mode))
        return {};
    const auto listing = ListDirectory(source);
    if (!listing)
        return Reason(source);
    for (const DirectoryEntry& entry : listing->entries) {
        std::string error = Complete(source + "/" + entry.name, copy + "/" + entry.name);
        if (!error.empty())
            return error;
    }
    return {};
}

}  // namespace

std::string MirrorTree(const std::string& source, const std::string& destination, By by,
                       const EntryVisitor& visit) {
    Directory directory(source);
    if (!directory.IsOpen())
        return Reason(source);
    return TreeMirror(source, destination, by, visit).Run(directory, "");
}

std::string CopyEntry(const std::string& source, const std::string& destination, By by) {
    struct stat info {};
    if (lstat(source.c_str(), &info) != 0)
        return Reason(source);
    return GiveEntry(source, info, destination, by);
}

std::string CompleteCopy(const std::string& original, const std::string& copy) {
    return Complete(BehindLinks(original), copy);
}

std::string MoveEntry(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) == 0)
        return {};
    struct stat info {};
    const int error = errno;
    const bool isThere = lstat(from.c_str(), &info) == 0;
    const bool isCopied = S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISLNK(info.st_mode);
    if (error != EXDEV || !isThere || !isCopied) {
        errno = error;
        return Reason(from);
    }
    const std::string temporary = to + temporarySuffix;
    RemoveTree(temporary);
    std::string failed = S_ISDIR(info.st_mode) ? MirrorTree(from, temporary, By::Copying)
                                               : GiveEntry(from, info, temporary, By::Copying);
    if (failed.empty() && rename(temporary.c_str(), to.c_str()) != 0)
        failed = Reason(to);
    if (!failed.empty())
        RemoveTree(temporary);
    else if (!RemoveTree(from))
        failed = Reason(from);
    return failed;
}

std::string SwapDirectories(const std::string& fresh, const std::string& old) {
    const auto entries = ListDirectory(old);
    if (!entries)
        return Reason(old);
    if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, old.c_str(), RENAME_EXCHANGE) != 0) {
        // Not every file system can exchange two names.
        const std::string between = old + ".old" + temporarySuffix;
        if (rename(old.c_str(), between.c_str()) != 0)
            return Reason(old);
        if (rename(fresh.c_str(), old.c_str()) != 0) {
            const std::string error = Reason(fresh);
            rename(between.c_str(), old.c_str());
            return error;
        }
        rename(between.c_str(), fresh.c_str());
    }
    for (const DirectoryEntry& entry : entries->entries)
        if (entry.type == DirectoryEntry::Type::Special)
            rename((fresh + "/" + entry.name).c_str(), (old + "/" + entry.name).c_str());
    return {};
}

bool RemoveTree(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        return true;
    if (errno != EISDIR && errno != EPERM)
        return false;
    const std::size_t slash = path.rfind('/');
    const Directory parent(DirectoryOf(path));
    return parent.IsOpen() &&
           RemoveEntry(parent, {slash == std::string::npos ? path : path.substr(slash + 1),
                                DirectoryEntry::Type::Directory});
}

}  // namespace files
