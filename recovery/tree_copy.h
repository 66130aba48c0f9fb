#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

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

/// The digests of a copy's entries, each of name, kind and bytes, in ascending order. A file that
/// the tree shares with its copy changes in both when somebody writes into it; the others must be
/// what they were, and only a digest of each can tell that.
using EntryDigests = std::vector<std::uint64_t>;

/// What a copy holds.
struct CopyContent {
    TreeContent total;
    EntryDigests digests;
    EntryDigests ownDigests;  // of what the tree does not share
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
/// it. Files are linked: a save replaces them, and leaves the copy what it was. Nothing is kept of
/// what lies in the tree anyway, of a directory that holds the tree, and of links at the top level
/// that `isEntered` denies: a link to a backup or to regional files is not ours to copy. `held`
/// becomes what the copy holds. Returns the reason in words on failure; an empty text on success.
/// Nothing is synced.
std::string CopyTree(const std::string& tree, const std::string& copy,
                     const NamePredicate& isEntered, const NotOfTheTree& isLeftAlone,
                     CopyContent& held);

/// Gives each file that a tree shares with its copy bytes of its own in the tree, for a command
/// that may write into files. Returns the reason in words, noted, on failure, with the rest not
/// done.
std::string Unshare(const std::string& copy, const std::string& tree);

/// Makes the tree, and what its links lead to, what the copy says. A directory behind a link that
/// is not there (its disk is not mounted) is a failure, not made. Returns the reason in words on
/// failure, with the rest not done.
std::string PutBackTree(const std::string& copy, const std::string& tree,
                        const NotOfTheTree& isLeftAlone);

/// What the copy of a tree holds. Nothing when it cannot be read.
std::optional<CopyContent> ContentOfCopy(const std::string& copy, const std::string& tree);

/// Whether a copy holds what its mark says, but for what is written into files that the tree
/// shares: that is not converted yet, and newer than the copy. What an older build made is known by
/// its size alone.
bool IsWhole(const CopyContent& held, const TreeContent& marked, const EntryDigests& digests);

/// A live tree, and what its links lead to so far as the copy has that: equal only when nobody has
/// changed a setting in between. Nothing when it cannot be read.
std::optional<TreeContent> FingerprintOf(const std::string& tree, const std::string& copy,
                                         const NotOfTheTree& isLeftAlone);

/// What a copy takes: the inodes and the bytes of its directories, links and mark.
struct Room {
    std::uint64_t bytes = 0;
    std::uint64_t inodes = 0;
};
Room RoomForCopy(const std::string& tree);
