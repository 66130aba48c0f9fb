#include "app/tree_copy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <set>
#include <string_view>
#include <vector>

#include "files/look.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/replace.h"
#include "platform/string_utils.h"

using files::By;
using files::DirectoryEntry;
using files::Kind;
using files::ListDirectory;

namespace {

/// Ends the name under which a copy keeps what a link led to.
constexpr std::string_view linkedSuffix = ".linked.mend-tmp";

bool IsLinked(const DirectoryEntry& entry) {
    return entry.name.size() > linkedSuffix.size() && entry.name.ends_with(linkedSuffix);
}

bool IsMaybe(const DirectoryEntry& entry, DirectoryEntry::Type type) {
    return entry.type == type || entry.type == DirectoryEntry::Type::Unknown;
}

std::string Reason(const std::string& path) {
    const int error = errno;
    files::NoteRefusal(error);
    return path + ": " + std::strerror(error);
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
    return files::ReplaceFile(link, *saved.bytes);
}

/// Calls `visit(kept, link, isDirectory)` for all that a copy keeps of what links led to, as long
/// as it returns an empty text.
template <typename Visit>
std::string ForEachLinked(const std::string& copy, const std::string& tree, const Visit& visit) {
    const auto listing = ListDirectory(copy);
    if (!listing)
        return Reason(copy);
    std::string error;
    for (const DirectoryEntry& entry : listing->entries) {
        const std::string path = copy + "/" + entry.name;
        const bool isDirectory =
            IsMaybe(entry, DirectoryEntry::Type::Directory) && files::IsOwnDirectory(path);
        std::string original = tree + "/" + entry.name;
        if (IsLinked(entry)) {
            original.resize(original.size() - linkedSuffix.size());
            error = visit(path, original, isDirectory);
        }
        if (error.empty() && isDirectory)
            error = ForEachLinked(path, original, visit);
        if (!error.empty())
            return error;
    }
    return {};
}

/// FNV-1a.
std::uint64_t Hash(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    return hash;
}

enum class Detail { Copy, Live };

/// What an entry is compared by. Of a copy not its times, which not every file system keeps alike.
std::string Description(const std::string& name, const struct stat& info, Detail detail) {
    std::string text = name;
    const auto add = [&text](auto number) { text += "\n" + std::to_string(number); };
    const auto addTime = [&](const struct timespec& time) {
        add(time.tv_sec);
        add(time.tv_nsec);
    };
    add(info.st_mode);
    // Not the device: its number may be another after the next start.
    if (detail == Detail::Live) {
        add(info.st_ino);
        addTime(info.st_mtim);
        addTime(info.st_ctim);
    }
    if (!S_ISDIR(info.st_mode))
        add(info.st_size);
    return text;
}

/// Adds an entry. The hashes are added up, so that the order of a directory's entries does not
/// count.
void AddEntry(const std::string& name, const struct stat& info, Detail detail,
              TreeContent& content) {
    constexpr std::uint64_t block = 4096;
    content.hash += Hash(Description(name, info, detail));
    ++content.entries;
    if (S_ISREG(info.st_mode))
        content.bytes += (static_cast<std::uint64_t>(info.st_size) + block - 1) / block * block;
}

/// Adds a directory and all below it; of a copy without its marks. False when something cannot be
/// read.
bool AddTree(const std::string& path, const std::string& name, Detail detail,
             TreeContent& content) {
    const auto failed = [](const std::string& what) {
        files::NoteRefusal(errno, "Can't read: " + what);
        return false;
    };
    files::Directory directory(path);
    struct stat info {};
    const auto entries = directory.IsOpen() ? directory.Entries() : std::nullopt;
    if (!entries || fstat(directory.Descriptor(), &info) != 0)
        return failed(path);
    AddEntry(name, info, detail, content);
    for (const DirectoryEntry& entry : *entries) {
        if (detail == Detail::Copy && entry.name.ends_with(files::temporarySuffix) &&
            !IsLinked(entry))
            continue;
        const std::string below = path + "/" + entry.name;
        if (!directory.Look(entry.name, info))
            return failed(below);
        if (!S_ISDIR(info.st_mode))
            AddEntry(name + "/" + entry.name, info, detail, content);
        else if (!AddTree(below, name + "/" + entry.name, detail, content))
            return false;
    }
    return true;
}

/// A copy in the making.
class TreeCopier {
public:
    TreeCopier(const std::string& tree, const std::string& copy, By by,
               const NamePredicate& isEntered, TreeContent& held)
        : tree_(files::RealPath(tree)), copy_(copy), by_(by), isEntered_(isEntered), held_(held) {}

    /// Copies a directory to this name below the copy, then what its links lead to.
    std::string Copy(const std::string& directory, const std::string& name) {
        std::vector<std::string> links;
        std::string error = files::MirrorTree(
            directory, copy_ + name, by_, [&](const std::string& below, const struct stat& info) {
                AddEntry(name + below, info, Detail::Copy, held_);
                if (S_ISLNK(info.st_mode))
                    links.push_back(below);
            });
        for (const std::string& link : links)
            if (error.empty())
                error = CopyBehind(directory + link, name + link);
        return error;
    }

private:
    std::string CopyBehind(const std::string& link, const std::string& name) {
        struct stat info {};
        const files::RefusalWatch watch;
        const std::string real = files::RealPath(link);
        const bool isThere = !real.empty() && stat(real.c_str(), &info) == 0;
        if (watch.HasSeenOne())
            return Reason(link);
        const std::string kept = name + std::string(linkedSuffix);
        const bool isLong = kept.size() - kept.rfind('/') - 1 > NAME_MAX;
        if (isLong || (isThere && files::IsWithin(real, tree_)))
            return {};
        if (!isThere)
            return NoteDangling(kept);
        if (S_ISREG(info.st_mode)) {
            AddEntry(kept, info, Detail::Copy, held_);
            return files::CopyEntry(real, copy_ + kept, by_);
        }
        if (!S_ISDIR(info.st_mode) || !isEntered_(OriginalName(name)) ||
            files::IsWithin(tree_, real) || !seen_.insert(real).second)
            return {};
        return Copy(real, kept);
    }

    /// A link that leads nowhere: what the upgrade makes behind it has to go again.
    std::string NoteDangling(const std::string& kept) {
        struct stat info {};
        const std::string path = copy_ + kept;
        if (symlink("nothing", path.c_str()) != 0 || lstat(path.c_str(), &info) != 0)
            return Reason(path);
        AddEntry(kept, info, Detail::Copy, held_);
        return {};
    }

    /// The name below the tree of what has this name below the copy.
    static std::string OriginalName(const std::string& name) {
        return StringUtils::ReplaceString(name.substr(1), std::string(linkedSuffix) + "/", "/", 0);
    }

    std::string tree_;
    std::string copy_;
    By by_;
    const NamePredicate& isEntered_;
    TreeContent& held_;
    std::set<std::string> seen_;  // directories behind links, each once
};

}  // namespace

std::string CopyTree(const std::string& tree, const std::string& copy, By by,
                     const NamePredicate& isEntered, TreeContent& held) {
    held = {};
    return TreeCopier(tree, copy, by, isEntered, held).Copy(tree, "");
}

std::string PutBackTree(const std::string& copy, const std::string& tree) {
    std::string error = files::MirrorTree(copy, tree, By::Copying);
    // Without room for a file, a link to the copy's serves.
    if (!error.empty() && files::MirrorTree(copy, tree, By::Linking).empty())
        error.clear();
    if (!error.empty())
        return error;
    return ForEachLinked(
        copy, tree,
        [](const std::string& kept, const std::string& link, bool isDirectory) -> std::string {
            if (!isDirectory)
                return PutBackFile(kept, link);
            const std::string real = files::RealPath(link);
            // An empty one is a mount point whose disk is not there.
            const auto now = files::ListDirectory(real);
            const auto then = files::ListDirectory(kept);
            if (!now || !then || (now->entries.empty() && !then->entries.empty()))
                return link + ": " + std::strerror(ENOENT);
            std::string failed = files::MirrorTree(kept, real, By::Copying);
            return failed.empty() && !files::SyncChangesBelow(real) ? Reason(real) : failed;
        });
}

std::optional<TreeContent> ContentOfCopy(const std::string& copy) {
    TreeContent content;
    if (!AddTree(copy, "", Detail::Copy, content))
        return std::nullopt;
    return content;
}

std::optional<TreeContent> FingerprintOf(const std::string& tree, const std::string& copy) {
    TreeContent content;
    if (!AddTree(tree, "", Detail::Live, content))
        return std::nullopt;
    const std::string error = ForEachLinked(
        copy, tree,
        [&](const std::string&, const std::string& link, bool isDirectory) -> std::string {
            struct stat info {};
            if (isDirectory)
                return AddTree(link, link, Detail::Live, content) ? "" : link;
            if (stat(link.c_str(), &info) == 0)
                content.hash += Hash(Description(link, info, Detail::Live));
            return {};
        });
    if (!error.empty())
        return std::nullopt;
    return content;
}
