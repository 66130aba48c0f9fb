#include "files/move.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "files/copy.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"

namespace files {
namespace {

/// Changes the names of two directories. Not every file system can exchange them at once.
bool ExchangeNames(const std::string& fresh, const std::string& old) {
    if (renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, old.c_str(), RENAME_EXCHANGE) == 0)
        return true;
    if (errno == EBUSY)  // something is mounted on one of them
        return false;
    // One after the other. After a crash in between, the recovery copy is what brings the old
    // directory back.
    const std::string between = TemporaryFor(old + ".old");
    if (std::rename(old.c_str(), between.c_str()) != 0)
        return false;
    if (std::rename(fresh.c_str(), old.c_str()) != 0) {
        const int error = errno;
        std::rename(between.c_str(), old.c_str());
        errno = error;
        return false;
    }
    std::rename(between.c_str(), fresh.c_str());
    return true;
}

}  // namespace

std::string MoveEntry(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) == 0)
        return {};
    struct stat info {};
    const int error = errno;
    const bool isThere = lstat(from.c_str(), &info) == 0;
    const bool isCopied = S_ISREG(info.st_mode) || S_ISDIR(info.st_mode) || S_ISLNK(info.st_mode);
    if (error != EXDEV || !isThere || !isCopied) {
        errno = error;
        return NotedReason(from);
    }
    const std::string temporary = TemporaryFor(to);
    RemoveTree(temporary);
    std::string failed = S_ISDIR(info.st_mode) ? MirrorTree(from, temporary, By::Copying)
                                               : CopyEntry(from, temporary, By::Copying);
    if (failed.empty() && !PutInPlace(temporary, to))
        failed = NotedReason(to);
    if (!failed.empty())
        RemoveTree(temporary);
    else if (!RemoveTree(from))
        failed = NotedReason(from);
    return failed;
}

std::string SwapDirectories(const std::string& fresh, const std::string& old) {
    const auto entries = ListDirectory(old);
    if (!entries)
        return NotedReason(old);
    if (!ExchangeNames(fresh, old))
        return errno == EBUSY ? MirrorTree(fresh, old, By::Copying) : NotedReason(old);
    for (const DirectoryEntry& entry : entries->entries)
        if (entry.type == DirectoryEntry::Type::Special)
            std::rename((fresh + "/" + entry.name).c_str(), (old + "/" + entry.name).c_str());
    return {};
}

}  // namespace files
