#include "files/command_copy.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "files/attributes.h"
#include "files/copy.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"
#include "files/sync.h"

namespace files {
namespace {

/// A command that was killed leaves what it has made with the owner's rights alone, and services
/// that run as somebody else could not read it.
void CompleteAttributes(const std::string& source, const struct stat& from, const std::string& copy,
                        const struct stat& to) {
    if (from.st_mode == to.st_mode && from.st_uid == to.st_uid && from.st_gid == to.st_gid)
        return;
    const FileDescriptor file = OpenForReading(copy, O_NOFOLLOW);
    if (file.IsOpen())
        GiveAttributes(file.Get(), from, source);
}

std::string Complete(const std::string& source, const std::string& copy);

std::string CompleteDirectory(const std::string& source, const std::string& copy) {
    const auto listing = ListDirectory(source);
    if (!listing)
        return NotedReason(source);
    for (const DirectoryEntry& entry : listing->entries) {
        std::string error = Complete(source + "/" + entry.name, copy + "/" + entry.name);
        if (!error.empty())
            return error;
    }
    return {};
}

/// A copy that is a link or special is as the command meant it.
std::string Complete(const std::string& source, const std::string& copy) {
    struct stat from {};
    struct stat to {};
    std::uint64_t hash = 0;
    if (lstat(source.c_str(), &from) != 0)
        return NotedReason(source);
    if (lstat(copy.c_str(), &to) != 0) {
        if (errno != ENOENT)  // what the disk does not tell of is not a missing file
            return NotedReason(copy);
        if (S_ISDIR(from.st_mode))
            return MirrorTree(source, copy, By::Copying);
        const bool isSpecial = !S_ISREG(from.st_mode) && !S_ISLNK(from.st_mode);
        return isSpecial ? "" : GiveEntry(source, from, copy, By::Copying, hash);
    }
    if (S_ISREG(from.st_mode) && S_ISREG(to.st_mode)) {
        if (from.st_size != to.st_size || !HaveSameBytes(source, copy))
            return ReplaceEntry(source, from, copy, By::Copying, hash);
        CompleteAttributes(source, from, copy, to);
        return {};
    }
    if (!S_ISDIR(from.st_mode) || !S_ISDIR(to.st_mode))
        return {};
    std::string error = CompleteDirectory(source, copy);
    if (error.empty())
        CompleteAttributes(source, from, copy, to);  // last: what is made in it changes its time
    return error;
}

/// Whether nothing but the disk, or a command that was killed, keeps a copy from being made.
bool ShouldHaveBeenMade(const std::string& source, const std::string& place) {
    return KindOf(source) != Kind::Missing && KindOf(DirectoryOf(place)) == Kind::Directory;
}

}  // namespace

std::string CompleteCopy(const std::string& original, const std::string& copy) {
    const std::string source = BehindLinks(original);
    return source.empty() ? NotedReason(original) : Complete(source, copy);
}

CommandCopy CopyBeside(const std::function<int(const std::string& path)>& copyTo,
                       const std::string& source, const std::string& target) {
    const RefusalWatch watch;
    const std::string place = BehindLinks(target);
    const bool leadsNowhere = place.empty() || (IsThere(target) && KindOf(target) == Kind::Missing);
    // The command would write into the file itself, which a recovery copy may share.
    if (watch.HasSeenOne())
        return {-1, NotedReason(target)};
    if (leadsNowhere)
        return {copyTo(target), ""};
    const std::string temporary = TemporaryFor(place);
    RemoveTree(temporary);
    CommandCopy copy{copyTo(temporary), ""};
    if (!IsThere(temporary)) {
        if (!ShouldHaveBeenMade(source, place))
            return copy;
        NoteRefusal(EIO);  // the command's own reason is not known here
        copy.error = "cp failed";
        return copy;
    }
    copy.error = CompleteCopy(source, temporary);
    if (copy.error.empty() && !SyncChangesBelow(DirectoryOf(place)))
        copy.error = NotedReason("can't sync");
    else if (copy.error.empty() && !PutInPlace(temporary, place))
        copy.error = NotedReason("can't rename the new file");
    if (!copy.error.empty())
        RemoveTree(temporary);
    return copy;
}

}  // namespace files
