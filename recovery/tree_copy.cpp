#include "recovery/tree_copy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <set>
#include <string_view>
#include <vector>

#include "files/digest.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"
#include "files/sync.h"
#include "platform/string_utils.h"

using files::By;
using files::DirectoryEntry;
using files::Kind;
using files::ListDirectory;
using files::NotedReason;

namespace {

/// Ends the name under which a copy keeps what a link led to.
constexpr std::string_view linkedSuffix = ".linked.mend-tmp";

bool IsLinked(const std::string& name) {
    return name.size() > linkedSuffix.size() && name.ends_with(linkedSuffix);
}

bool IsMaybe(const DirectoryEntry& entry, DirectoryEntry::Type type) {
    return entry.type == type || entry.type == DirectoryEntry::Type::Unknown;
}

/// What stands behind a path, links followed. What the disk does not tell is noted, or it would
/// pass for nothing.
bool LookBehind(const std::string& path, struct stat& info) {
    if (stat(path.c_str(), &info) == 0)
        return true;
    files::NoteRefusal(errno);
    return false;
}

/// Writes a file back through the link that led to it, unless it is as it was.
std::string PutBackFile(const std::string& kept, const std::string& link) {
    if (files::IsLink(kept)) {  // nothing was there
        if (files::KindOf(link) == Kind::Other)
            files::RemoveFile(files::BehindLinks(link));
        return {};
    }
    const files::ReadResult saved = files::ReadFile(kept);
    if (!saved.bytes)
        return kept + ": " + saved.error;
    if (files::ReadFile(link).bytes == saved.bytes)
        return {};
    return files::ReplaceFile(link, *saved.bytes, std::nullopt, {kept});
}

/// Told of what a copy keeps under a path, the path of the original, and whether it is a directory;
/// returns a reason to end.
using KeptVisitor =
    std::function<std::string(const std::string& kept, const std::string& original, bool)>;

/// Visits all that a copy keeps, a directory before what is in it, as long as no reason comes back.
std::string ForEachKept(const std::string& copy, const std::string& tree,
                        const KeptVisitor& visit) {
    const auto listing = ListDirectory(copy);
    if (!listing)
        return NotedReason(copy);
    for (const DirectoryEntry& entry : listing->entries) {
        const std::string path = copy + "/" + entry.name;
        const files::RefusalWatch watch;
        const bool isDirectory =
            IsMaybe(entry, DirectoryEntry::Type::Directory) && files::IsOwnDirectory(path);
        if (watch.HasSeenOne())  // it must not pass for a file
            return NotedReason(path);
        std::string original = tree + "/" + entry.name;
        if (IsLinked(entry.name))
            original.resize(original.size() - linkedSuffix.size());
        std::string error = visit(path, original, isDirectory);
        if (error.empty() && isDirectory)
            error = ForEachKept(path, original, visit);
        if (!error.empty())
            return error;
    }
    return {};
}

/// The same for what links led to alone.
std::string ForEachLinked(const std::string& copy, const std::string& tree,
                          const KeptVisitor& visit) {
    return ForEachKept(copy, tree,
                       [&](const std::string& kept, const std::string& link, bool isDirectory) {
                           return IsLinked(kept) ? visit(kept, link, isDirectory) : "";
                       });
}

constexpr std::uint64_t block = 4096;

/// The room that a file takes.
std::uint64_t InBlocks(const struct stat& info) {
    return (static_cast<std::uint64_t>(info.st_size) + block - 1) / block * block;
}

/// Adds an entry, with the hash of its bytes or target, and returns its digest. The digests are
/// added up, so that the order of a directory's entries does not count.
std::uint64_t AddEntry(const std::string& name, const struct stat& info, std::uint64_t hash,
                       TreeContent& content) {
    files::Digest digest;
    digest.Add(name);
    digest.Add(std::uint64_t{info.st_mode & S_IFMT});
    digest.Add(hash);
    content.hash = content.hash.value_or(0) + digest.Value();
    ++content.entries;
    if (S_ISREG(info.st_mode))
        content.bytes += InBlocks(info);
    return digest.Value();
}

/// A tree being read for its content.
class TreeReader {
public:
    /// `isPassed` tells what does not count, by its name and kind; `note` is told of each entry
    /// that does, with its digest.
    TreeReader(
        TreeContent& content,
        std::function<bool(const std::string& name, const struct stat& info)> isPassed,
        std::function<void(const std::string& name, const struct stat& info, std::uint64_t digest)>
            note = nullptr)
        : content_(content), isPassed_(std::move(isPassed)), note_(std::move(note)) {}

    /// Adds a directory and all below it. False, and noted, when something cannot be read.
    bool Add(const std::string& path, const std::string& name) {
        files::Directory directory(path);
        struct stat info {};
        const auto entries = directory.IsOpen() ? directory.Entries() : std::nullopt;
        if (!entries || fstat(directory.Descriptor(), &info) != 0)
            return Fail(path);
        Note(name, info, 0);
        for (const DirectoryEntry& entry : *entries) {
            const std::string below = path + "/" + entry.name;
            if (!directory.Look(entry.name, info))
                return Fail(below);
            if (isPassed_(name + "/" + entry.name, info))
                continue;
            if (S_ISDIR(info.st_mode) ? !Add(below, name + "/" + entry.name)
                                      : !AddFile(below, name + "/" + entry.name, info))
                return false;
        }
        return true;
    }

    /// Adds a file or link. FIFOs, sockets and devices hold no settings.
    bool AddFile(const std::string& path, const std::string& name, const struct stat& info) {
        if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode))
            return true;
        const auto hash = files::HashOf(path, info);
        if (!hash)
            return Fail(path);
        Note(name, info, *hash);
        return true;
    }

private:
    void Note(const std::string& name, const struct stat& info, std::uint64_t hash) {
        const std::uint64_t digest = AddEntry(name, info, hash, content_);
        if (note_)
            note_(name, info, digest);
    }

    static bool Fail(const std::string& path) {
        files::NoteRefusal(errno, "Can't read: " + path);
        return false;
    }

    TreeContent& content_;
    std::function<bool(const std::string& name, const struct stat& info)> isPassed_;
    std::function<void(const std::string& name, const struct stat& info, std::uint64_t digest)>
        note_;
};

/// The name below the tree of what has this name below the copy.
std::string OriginalName(std::string name) {
    if (IsLinked(name))
        name.resize(name.size() - linkedSuffix.size());
    return StringUtils::ReplaceString(name, std::string(linkedSuffix) + "/", "/", 0);
}

/// Whether what a copy has under a path is the very file that the tree has under another.
bool IsShared(const struct stat& kept, const std::string& original) {
    struct stat there {};
    if (!S_ISREG(kept.st_mode) || kept.st_nlink == 1 || !LookBehind(original, there))
        return false;
    return there.st_dev == kept.st_dev && there.st_ino == kept.st_ino;
}

/// Gives a file another inode, with the same bytes and all that belongs to it.
std::string GiveOwnBytes(const std::string& path) {
    struct stat info {};
    std::uint64_t hash = 0;
    const std::string temporary = files::TemporaryFor(path);
    files::RemoveTree(temporary);
    if (lstat(path.c_str(), &info) != 0 || !files::SyncChangesBelow(files::DirectoryOf(path)))
        return NotedReason(path);
    std::string error = files::GiveEntry(path, info, temporary, By::Copying, hash);
    if (!error.empty() || files::PutInPlace(temporary, path))
        return error;
    error = NotedReason(path);
    files::RemoveFile(temporary);
    return error;
}

/// A copy in the making.
class TreeCopier {
public:
    TreeCopier(const std::string& tree, const std::string& copy, const NamePredicate& isEntered,
               const NotOfTheTree& isLeftAlone, CopyContent& held)
        : tree_(files::RealPath(tree)),
          copy_(copy),
          isEntered_(isEntered),
          isLeftAlone_(isLeftAlone),
          held_(held) {}

    /// Copies a directory to this name below the copy, then what its links lead to.
    std::string Copy(const std::string& directory, const std::string& name) {
        if (tree_.empty())  // everything would pass for a part of it
            return NotedReason(directory);
        std::vector<std::string> links;
        files::MirrorOptions options;
        options.isLeftAlone = isLeftAlone_;
        options.visit = [&](const std::string& below, const struct stat& info, std::uint64_t hash) {
            Note(name + below, info, hash);
            if (S_ISLNK(info.st_mode))
                links.push_back(below);
        };
        std::string error = files::MirrorTree(directory, copy_ + name, By::Linking, options);
        for (const std::string& link : links)
            if (error.empty())
                error = CopyBehind(directory + link, name + link);
        return error;
    }

private:
    void Note(const std::string& name, const struct stat& info, std::uint64_t hash) {
        held_.digests.push_back(AddEntry(name, info, hash, held_.total));
    }

    std::string CopyBehind(const std::string& link, const std::string& name) {
        struct stat info {};
        const files::RefusalWatch watch;
        const std::string real = files::RealPath(link);
        const bool isThere = !real.empty() && LookBehind(real, info);
        if (watch.HasSeenOne())
            return NotedReason(link);
        const std::string kept = name + std::string(linkedSuffix);
        const bool isLong = kept.size() - kept.rfind('/') - 1 > NAME_MAX;
        if (isLong || (isThere && (files::IsWithin(real, tree_) || isLeftAlone_(name, info))))
            return {};
        if (!isThere)
            return NoteDangling(kept);
        if (S_ISREG(info.st_mode)) {
            std::uint64_t hash = 0;
            std::string error = files::GiveEntry(real, info, copy_ + kept, By::Linking, hash);
            Note(kept, info, hash);
            return error;
        }
        if (!S_ISDIR(info.st_mode) || !isEntered_(OriginalName(name.substr(1))) ||
            files::IsWithin(tree_, real) || !seen_.insert(real).second)
            return {};
        return Copy(real, kept);
    }

    /// A link that leads nowhere: what the upgrade makes behind it has to go again.
    std::string NoteDangling(const std::string& kept) {
        struct stat info {};
        const std::string path = copy_ + kept;
        if (symlink("nothing", path.c_str()) != 0 || lstat(path.c_str(), &info) != 0)
            return NotedReason(path);
        const auto hash = files::HashOf(path, info);
        Note(kept, info, hash.value_or(0));
        return hash ? "" : NotedReason(path);
    }

    std::string tree_;
    std::string copy_;
    const NamePredicate& isEntered_;
    const NotOfTheTree& isLeftAlone_;
    CopyContent& held_;
    std::set<std::string> seen_;  // directories behind links, each once
};

/// What the directories and links of a tree take, itself included.
Room RoomOfDirectories(const std::string& tree) {
    Room room{block, 1};
    if (const auto listing = ListDirectory(tree)) {
        for (const DirectoryEntry& entry : listing->entries) {
            const std::string path = tree + "/" + entry.name;
            room.bytes += sizeof(EntryDigests::value_type);
            if (entry.type == DirectoryEntry::Type::Link) {
                ++room.inodes;
            } else if (entry.type != DirectoryEntry::Type::File && files::IsOwnDirectory(path)) {
                const Room below = RoomOfDirectories(path);
                room.bytes += below.bytes;
                room.inodes += below.inodes;
            }
        }
    }
    return room;
}

}  // namespace

NotOfTheTree::NotOfTheTree(const std::string& log) : hasLog_(stat(log.c_str(), &log_) == 0) {}

bool NotOfTheTree::operator()(const std::string& name, const struct stat& info) const {
    return name == std::string("/") + innerCopyName ||
           (hasLog_ && info.st_dev == log_.st_dev && info.st_ino == log_.st_ino);
}

std::string CopyTree(const std::string& tree, const std::string& copy,
                     const NamePredicate& isEntered, const NotOfTheTree& isLeftAlone,
                     CopyContent& held) {
    held = {};
    std::string error = TreeCopier(tree, copy, isEntered, isLeftAlone, held).Copy(tree, "");
    std::sort(held.digests.begin(), held.digests.end());
    return error;
}

std::string Unshare(const std::string& copy, const std::string& tree) {
    const files::RefusalWatch watch;
    return ForEachKept(
        copy, tree, [&](const std::string& kept, const std::string& original, bool) -> std::string {
            struct stat info {};
            if (lstat(kept.c_str(), &info) != 0)
                return NotedReason(kept);
            const bool isShared = IsShared(info, original);
            if (watch.HasSeenOne())
                return NotedReason(kept);
            return isShared ? GiveOwnBytes(files::RealPath(original)) : "";
        });
}

std::string PutBackTree(const std::string& copy, const std::string& tree,
                        const NotOfTheTree& isLeftAlone) {
    files::MirrorOptions options;
    options.isLeftAlone = isLeftAlone;
    std::string error = files::MirrorTree(copy, tree, By::Copying, options);
    // Without room for a file, a link to the copy's serves.
    if (!error.empty() && files::MirrorTree(copy, tree, By::Linking, options).empty())
        error.clear();
    if (!error.empty())
        return error;
    return ForEachLinked(
        copy, tree,
        [&](const std::string& kept, const std::string& link, bool isDirectory) -> std::string {
            if (!isDirectory)
                return PutBackFile(kept, link);
            const std::string real = files::RealPath(link);
            // An empty one is a mount point whose disk is not there.
            const auto now = files::ListDirectory(real);
            const auto then = files::ListDirectory(kept);
            if (!now || !then || (now->entries.empty() && !then->entries.empty()))
                return link + ": " + std::strerror(ENOENT);
            std::string failed = files::MirrorTree(kept, real, By::Copying, options);
            return failed.empty() && !files::SyncChangesBelow(real) ? NotedReason(real) : failed;
        });
}

std::optional<CopyContent> ContentOfCopy(const std::string& copy, const std::string& tree) {
    CopyContent content;
    // Marks are no part of what was copied.
    const auto isMark = [](const std::string& name, const struct stat&) {
        return name.ends_with(files::temporarySuffix) && !IsLinked(name);
    };
    const auto note = [&](const std::string& name, const struct stat& info, std::uint64_t digest) {
        content.digests.push_back(digest);
        if (!IsShared(info, tree + OriginalName(name)))
            content.ownDigests.push_back(digest);
    };
    if (!TreeReader(content.total, isMark, note).Add(copy, ""))
        return std::nullopt;
    std::sort(content.digests.begin(), content.digests.end());
    std::sort(content.ownDigests.begin(), content.ownDigests.end());
    return content;
}

bool IsWhole(const CopyContent& held, const TreeContent& marked, const EntryDigests& digests) {
    const bool isSameSize =
        held.total.entries == marked.entries && held.total.bytes == marked.bytes;
    return (isSameSize && (!marked.hash || held.total.hash == marked.hash)) ||
           (held.digests.size() == digests.size() &&
            std::includes(digests.begin(), digests.end(), held.ownDigests.begin(),
                          held.ownDigests.end()));
}

std::optional<TreeContent> FingerprintOf(const std::string& tree, const std::string& copy,
                                         const NotOfTheTree& isLeftAlone) {
    TreeContent content;
    TreeReader reader(content, [&](const std::string& name, const struct stat& info) {
        return name.ends_with(files::temporarySuffix) || isLeftAlone(name, info);
    });
    if (!reader.Add(tree, ""))
        return std::nullopt;
    const std::string error = ForEachLinked(
        copy, tree,
        [&](const std::string&, const std::string& link, bool isDirectory) -> std::string {
            if (isDirectory)
                return reader.Add(link, link) ? "" : link;
            struct stat info {};
            const files::RefusalWatch watch;
            const std::string real = files::RealPath(link);
            if (real.empty() || !LookBehind(real, info))
                return watch.HasSeenOne() ? link : "";  // nothing there is a fact, too
            return reader.AddFile(real, link, info) ? "" : link;
        });
    if (!error.empty())
        return std::nullopt;
    return content;
}

Room RoomForCopy(const std::string& tree) {
    Room room = RoomOfDirectories(tree);
    room.bytes += block;  // the mark, besides its digests
    room.inodes += 1;
    return room;
}
