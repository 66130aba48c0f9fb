#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "files/tree.h"

/// Tells of a name below a tree, such as "21" or "isdn/trunk0".
using NamePredicate = std::function<bool(const std::string& name)>;

/// What stands in a tree, in a form that two moments can be compared by.
struct TreeContent {
    std::uint64_t entries = 0;
    std::uint64_t bytes = 0;  // of the regular files, in blocks as file systems give them room
    std::uint64_t hash = 0;

    bool operator==(const TreeContent&) const = default;
};

/// Copies a directory tree with what its links lead to, for saves write through links: beside the
/// link stands, under a name that ends as temporaries do, a copy of the file or directory behind
/// it. Nothing is kept of what lies in the tree anyway, of a directory that holds the tree, and of
/// links at the top level that `isEntered` denies: a link to a backup or to regional files is not
/// ours to copy. `held` becomes what the copy holds. Returns the reason in words on failure; an
/// empty text on success. Nothing is synced.
std::string CopyTree(const std::string& tree, const std::string& copy, files::By by,
                     const NamePredicate& isEntered, TreeContent& held);

/// Makes the tree, and what its links lead to, what the copy says. A directory behind a link that
/// is not there (its disk is not mounted) is a failure, not made. Returns the reason in words on
/// failure, with the rest not done.
std::string PutBackTree(const std::string& copy, const std::string& tree);

/// What a copy holds: names, kinds, sizes, modes and times of its files. Nothing when it cannot be
/// read.
std::optional<TreeContent> ContentOfCopy(const std::string& copy);

/// A live tree, and what its links lead to so far as the copy has that, down to inodes and times of
/// change: equal only when nobody has touched it in between. Nothing when it cannot be read.
std::optional<TreeContent> FingerprintOf(const std::string& tree, const std::string& copy);
