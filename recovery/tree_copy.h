#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "files/copy.h"
#include "files/own_names.h"

/// Tells of a name below a tree, such as "21" or "isdn/trunk0".
using NamePredicate = std::function<bool(const std::string& name)>;

/// What stands in a tree, in a form that two moments can be compared by: names, kinds, bytes and
/// what links say. Not modes, owners, times or inodes: those are nobody's settings, and they change
/// by a mount or a `chattr` alone.
struct TreeContent {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;            // of the regular files, in blocks as file systems give them
    std::optional<std::uint64_t> hash;  // unknown in a mark of an older build, which had another

    bool operator==(const TreeContent&) const = default;
};

/// The name of a copy that stands in the tree itself, for want of another place.
inline constexpr const char* innerCopyName = files::recoverySuffix;

/// What lies in the tree's directories and is not of the tree: the log, which goes on whatever
/// becomes of the upgrade, and a copy of the tree in itself.
class NotOfTheTree {
public:
    explicit NotOfTheTree(const std::string& log);
    bool operator()(const std::string& name, const struct stat& info) const;

private:
    struct stat log_ {};
    bool hasLog_;
};

/// Copies a directory tree with what its links lead to, for saves write through links: beside the
/// link stands, under a name that ends as temporaries do, a copy of the file or directory behind
/// it. Nothing is kept of what lies in the tree anyway, of a directory that holds the tree, and of
/// links at the top level that `isEntered` denies: a link to a backup or to regional files is not
/// ours to copy. `held` becomes what the copy holds. Returns the reason in words on failure; an
/// empty text on success. Nothing is synced.
std::string CopyTree(const std::string& tree, const std::string& copy, files::By by,
                     const NamePredicate& isEntered, const NotOfTheTree& isLeftAlone,
                     TreeContent& held);

/// Makes the tree, and what its links lead to, what the copy says. A directory behind a link that
/// is not there (its disk is not mounted) is a failure, not made. Returns the reason in words on
/// failure, with the rest not done.
std::string PutBackTree(const std::string& copy, const std::string& tree,
                        const NotOfTheTree& isLeftAlone);

/// What a copy holds. Nothing when it cannot be read.
std::optional<TreeContent> ContentOfCopy(const std::string& copy);

/// Whether a copy holds what its mark says. What an older build made is known by its size alone.
bool IsWhole(const TreeContent& held, const TreeContent& marked);

/// A live tree, and what its links lead to so far as the copy has that: equal only when nobody has
/// changed a setting in between. Nothing when it cannot be read.
std::optional<TreeContent> FingerprintOf(const std::string& tree, const std::string& copy,
                                         const NotOfTheTree& isLeftAlone);

/// What a copy of links takes: the inodes and the bytes of its directories, links and mark, and of
/// the files at the tree's top, which are copied.
struct Room {
    std::uint64_t bytes = 0;
    std::uint64_t inodes = 0;
};
Room RoomForLinks(const std::string& tree);
