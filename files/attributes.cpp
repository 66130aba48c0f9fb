#include "files/attributes.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>

#include "files/read.h"
#include "files/refusals.h"

namespace files {
namespace {

constexpr const char* accessList = "system.posix_acl_access";
constexpr const char* defaultList = "system.posix_acl_default";  // of a directory, for what is new

using Extended = std::map<std::string, std::string>;

/// Signatures of a file's bytes or inode would be wrong on another one.
bool IsCopied(const std::string& name) {
    return name != "security.ima" && name != "security.evm";
}

/// The extended attributes that `list` names and `get` tells. A file system without any has none;
/// nothing, with errno set, when the disk does not tell: a list that was not read must not pass for
/// one that is not there.
template <typename List, typename Get>
std::optional<Extended> ReadExtended(const List& list, const Get& get) {
    Extended attributes;
    const ssize_t size = list(nullptr, 0);
    if (size <= 0)
        return size == 0 || errno == EOPNOTSUPP || errno == ENOSYS ? std::optional(attributes)
                                                                   : std::nullopt;
    std::string names(static_cast<std::size_t>(size), '\0');
    const ssize_t filled = list(names.data(), names.size());
    if (filled < 0)
        return std::nullopt;
    names.resize(static_cast<std::size_t>(filled));
    for (std::size_t at = 0; at < names.size();) {
        const std::string name = names.c_str() + at;
        at += name.size() + 1;
        if (!IsCopied(name))
            continue;
        const ssize_t length = get(name.c_str(), nullptr, 0);
        std::string value(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
        const ssize_t got = length < 0 ? -1 : get(name.c_str(), value.data(), value.size());
        if (got < 0 && errno == ENODATA)  // listed for others to know, not ours to read
            continue;
        if (got < 0)
            return std::nullopt;
        value.resize(static_cast<std::size_t>(got));
        attributes.emplace(name, value);
    }
    return attributes;
}

std::optional<Extended> ReadExtended(const std::string& path) {
    return ReadExtended(
        [&](char* to, std::size_t size) { return llistxattr(path.c_str(), to, size); },
        [&](const char* name, char* to, std::size_t size) {
            return lgetxattr(path.c_str(), name, to, size);
        });
}

std::optional<Extended> ReadExtended(int file) {
    return ReadExtended([&](char* to, std::size_t size) { return flistxattr(file, to, size); },
                        [&](const char* name, char* to, std::size_t size) {
                            return fgetxattr(file, name, to, size);
                        });
}

/// The mode of a file whose access list cannot be kept. With a list, the group's bits of the mode
/// are the most that anybody named in the list may do: for the owning group itself they say too
/// much.
mode_t ModeWithoutList(mode_t mode, const std::string& list) {
    // The kernel's form of a list: a version, then entries of tag, rights and identifier, the lower
    // bytes first.
    constexpr std::size_t headSize = 4;
    constexpr std::size_t entrySize = 8;
    constexpr unsigned owningGroup = 0x04;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(list[at]); };
    for (std::size_t at = headSize; at + entrySize <= list.size(); at += entrySize)
        if (byte(at) == owningGroup && byte(at + 1) == 0)
            return mode & ~(static_cast<mode_t>(~byte(at + 2) & 07U) << 3);
    return mode;
}

/// Gives the extended attributes but the access list. One that only the system may set is left out.
bool GiveExtended(int file, const Extended& wanted, const Extended& now) {
    bool given = true;
    // A new directory inherits the default list of the one above it, which the original may lack.
    if (now.contains(defaultList) && !wanted.contains(defaultList))
        given = fremovexattr(file, defaultList) == 0;
    for (const auto& [name, value] : wanted) {
        const auto old = now.find(name);
        if (name == accessList || (old != now.end() && old->second == value))
            continue;
        if (fsetxattr(file, name.c_str(), value.data(), value.size(), 0) != 0 && errno != EPERM &&
            errno != EACCES && errno != EOPNOTSUPP)
            given = false;
    }
    return given;
}

/// Mode and access list. A new file may have got a list from its directory's default; it goes when
/// the original has none. The list comes before the mode: until then only the owner has the file.
bool GiveRights(int file, mode_t mode, const Extended& wanted, const Extended& now) {
    const auto list = wanted.find(accessList);
    const bool hasList = now.contains(accessList);
    if (list == wanted.end()) {
        if (hasList && fremovexattr(file, accessList) != 0)
            return false;
    } else if (!hasList || now.at(accessList) != list->second) {
        if (fsetxattr(file, accessList, list->second.data(), list->second.size(), 0) != 0) {
            if (errno != EOPNOTSUPP)
                return false;
            mode = ModeWithoutList(mode, list->second);
        }
    }
    struct stat info {};
    return fstat(file, &info) == 0 &&
           ((info.st_mode & 07777) == (mode & 07777) || fchmod(file, mode & 07777) == 0);
}

bool GiveOwner(int file, const struct stat& from) {
    struct stat now {};
    if (fstat(file, &now) != 0)
        return false;
    // Some file systems refuse even a change that changes nothing.
    return (now.st_uid == from.st_uid && now.st_gid == from.st_gid) ||
           fchown(file, from.st_uid, from.st_gid) == 0;
}

}  // namespace

std::string KeepRights(int file, const struct stat& from, const std::string& path) {
    const auto wanted = ReadExtended(path);
    const auto now = ReadExtended(file);
    if (!wanted || !now)
        return NotedReason("can't read the attributes");
    // Owner first: the system takes capabilities and the set-user-id bit off when it changes.
    if (!GiveOwner(file, from))
        return NotedReason("can't keep the owner");
    if (!GiveRights(file, from.st_mode, *wanted, *now))
        return NotedReason("can't keep the mode");
    return {};
}

bool IsOpenToMore(const struct stat& file, const struct stat& than) {
    return (file.st_mode & ~than.st_mode & (S_IRWXG | S_IRWXO)) != 0;
}

std::string Tighten(const std::string& path, const std::string& model) {
    struct stat info {};
    struct stat wanted {};
    const FileDescriptor file = OpenForReading(path, O_NOFOLLOW);
    if (!file.IsOpen() || fstat(file.Get(), &info) != 0 || stat(model.c_str(), &wanted) != 0)
        return NotedReason(path);
    return IsOpenToMore(info, wanted) ? KeepRights(file.Get(), wanted, model) : "";
}

std::string KeepExtended(int file, const std::string& path) {
    const auto wanted = ReadExtended(path);
    const auto now = ReadExtended(file);
    if (!wanted || !now)
        return NotedReason("can't read the attributes");
    return GiveExtended(file, *wanted, *now) ? "" : NotedReason("can't keep the attributes");
}

bool GiveAttributes(int file, const struct stat& from, const std::string& path) {
    const auto wanted = ReadExtended(path);
    const auto now = ReadExtended(file);
    if (!wanted || !now)
        return false;
    int error = 0;
    const auto note = [&error](bool given) {
        if (!given)
            error = errno;
    };
    const bool isOwned = GiveOwner(file, from);
    note(isOwned);
    const mode_t special = isOwned ? 0 : 07000;  // a program would run as the wrong user
    note(GiveRights(file, from.st_mode & ~special, *wanted, *now));
    note(GiveExtended(file, *wanted, *now));
    const struct timespec times[] = {from.st_atim, from.st_mtim};
    note(futimens(file, times) == 0);
    errno = error;
    return error == 0;
}

bool HaveSameAttributes(const struct stat& a, const std::string& pathA, const struct stat& b,
                        const std::string& pathB) {
    if (a.st_mode != b.st_mode || a.st_uid != b.st_uid || a.st_gid != b.st_gid ||
        a.st_mtim.tv_sec != b.st_mtim.tv_sec || a.st_mtim.tv_nsec != b.st_mtim.tv_nsec)
        return false;
    const auto extended = ReadExtended(pathA);
    return extended && extended == ReadExtended(pathB);
}

}  // namespace files
