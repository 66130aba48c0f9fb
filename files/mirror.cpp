#include "files/mirror.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <vector>

#include "files/attributes.h"
#include "files/file_descriptor.h"
#include "files/look.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"

namespace files {
namespace {

/// A mirror under way.
class TreeMirror {
public:
    TreeMirror(const std::string& source, const std::string& destination, By by,
               const MirrorOptions& options)
        : source_(source), destination_(destination), by_(by), options_(options) {}

    /// The directory of this name below both trees.
    std::string Run(Directory& source, const std::string& name) {
        const std::string path = destination_ + name;
        struct stat info {};
        const auto entries = source.Entries();
        if (!entries || fstat(source.Descriptor(), &info) != 0)
            return NotedReason(source_ + name);
        bool isNew = false;
        std::string error = Enter(path, isNew);
        if (error.empty() && !isNew)
            error = RemoveSurplus(name, *entries);
        for (const DirectoryEntry& entry : *entries) {
            if (!error.empty())
                return error;
            error = MirrorEntry(source, name, entry, isNew);
        }
        return error.empty() ? Finish(path, name, info) : error;
    }

private:
    /// Makes the directory unless it is there. It is filled in place, not under another name: when
    /// that is interrupted it differs from the source, and the next call goes on with it.
    static std::string Enter(const std::string& path, bool& isNew) {
        struct stat old {};
        isNew = mkdir(path.c_str(), S_IRWXU) == 0;
        if (!isNew && errno == EEXIST && lstat(path.c_str(), &old) == 0 && !S_ISDIR(old.st_mode)) {
            RemoveTree(path);
            isNew = mkdir(path.c_str(), S_IRWXU) == 0;
        }
        return isNew || errno == EEXIST ? "" : NotedReason(path);
    }

    bool IsLeftAlone(const std::string& name, const struct stat& info) const {
        return (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode) && !S_ISLNK(info.st_mode)) ||
               (options_.isLeftAlone && options_.isLeftAlone(name, info));
    }

    /// Removes from the destination what the source lacks.
    std::string RemoveSurplus(const std::string& directory,
                              const std::vector<DirectoryEntry>& source) {
        const std::string path = destination_ + directory;
        Directory destination(path);
        const auto entries = destination.IsOpen() ? destination.Entries() : std::nullopt;
        if (!entries)
            return NotedReason(path);
        std::set<std::string> wanted;
        for (const DirectoryEntry& entry : source)
            wanted.insert(entry.name);
        for (const DirectoryEntry& entry : *entries) {
            if (wanted.contains(entry.name))
                continue;
            struct stat info {};
            const std::string surplus = path + "/" + entry.name;
            if (!destination.Look(entry.name, info))
                return NotedReason(surplus);
            if (!IsLeftAlone(directory + "/" + entry.name, info) && !RemoveTree(surplus))
                return NotedReason(surplus);
        }
        return {};
    }

    /// `isFree` when nothing can have the name in the destination.
    std::string MirrorEntry(Directory& source, const std::string& directory,
                            const DirectoryEntry& entry, bool isFree) {
        if (entry.name.ends_with(temporarySuffix))
            return {};
        const std::string name = directory + "/" + entry.name;
        const std::string from = source_ + name;
        struct stat info {};
        if (!source.Look(entry.name, info))
            return NotedReason(from);
        if (IsLeftAlone(name, info))
            return {};
        if (S_ISDIR(info.st_mode)) {
            Directory below(source, entry.name);
            return below.IsOpen() ? Run(below, name) : NotedReason(from);
        }
        const std::string to = destination_ + name;
        std::uint64_t hash = 0;
        std::string error =
            isFree ? GiveEntry(from, info, to, by_, hash) : ReplaceEntry(from, info, to, by_, hash);
        if (error.empty() && options_.visit)
            options_.visit(name, info, hash);
        return error;
    }

    /// Last, for what is made in a directory changes its time.
    std::string Finish(const std::string& path, const std::string& name, const struct stat& info) {
        const FileDescriptor directory(
            open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat now {};
        if (!directory.IsOpen() || fstat(directory.Get(), &now) != 0 ||
            (!HaveSameAttributes(info, source_ + name, now, path) &&
             !GiveAttributes(directory.Get(), info, source_ + name)))
            return NotedReason(path);
        if (options_.visit)
            options_.visit(name, info, 0);
        return {};
    }

    const std::string& source_;
    const std::string& destination_;
    By by_;
    const MirrorOptions& options_;
};

}  // namespace

std::string MirrorTree(const std::string& source, const std::string& destination, By by,
                       const MirrorOptions& options) {
    Directory directory(source);
    if (!directory.IsOpen())
        return NotedReason(source);
    return TreeMirror(source, destination, by, options).Run(directory, "");
}

}  // namespace files
