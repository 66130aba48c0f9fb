#include "rehearse/watch/tree_watch.h"

#include <fts.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <iterator>
#include <string_view>
#include <unordered_set>

#include "files/replace.h"
#include "recovery/recovery_copy.h"
#include "rehearse/base/failure.h"

namespace rehearse {
namespace {

// Bytes. Settings of thousands of extensions are text; what is no text is a recording when it is
// large, and not looked into.
constexpr off_t large = 4 << 20;
constexpr off_t largest = 256 << 20;

/// The recovery copy comes and goes with an upgrade, and a temporary with a save: neither is what
/// the upgrade is about. What stands at the top for the sandbox's sake is not the tree's.
bool IsPassedOver(const FTSENT& entry) {
    const std::string_view name(entry.fts_name, entry.fts_namelen);
    return files::IsOwnName(name);
}

bool IsOlder(const struct timespec& time, const struct timespec& than) {
    return time.tv_sec != than.tv_sec ? time.tv_sec < than.tv_sec : time.tv_nsec < than.tv_nsec;
}

bool IsSameTime(const struct timespec& a, const struct timespec& b) {
    return !IsOlder(a, b) && !IsOlder(b, a);
}

bool IsUntouched(const struct stat& now, const struct stat& before) {
    return now.st_ino == before.st_ino && now.st_size == before.st_size &&
           now.st_mode == before.st_mode && now.st_uid == before.st_uid &&
           now.st_gid == before.st_gid && IsSameTime(now.st_ctim, before.st_ctim) &&
           IsSameTime(now.st_mtim, before.st_mtim);
}

std::shared_ptr<const std::string> ReadContent(const char* path, const struct stat& info) {
    if (S_ISLNK(info.st_mode)) {
        char target[PATH_MAX];
        const ssize_t length = readlink(path, target, sizeof target);
        return std::make_shared<std::string>(target,
                                             length < 0 ? 0 : static_cast<std::size_t>(length));
    }
    if (!S_ISREG(info.st_mode) || info.st_size > largest)
        return nullptr;
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return nullptr;
    std::string text(static_cast<std::size_t>(std::min(info.st_size, large)), '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (info.st_size > large) {
        if (text.find('\0') != std::string::npos)
            return nullptr;
        text.append(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return std::make_shared<std::string>(std::move(text));
}

bool IsSame(const FileState& a, const FileState& b) {
    if (a.info.st_mode != b.info.st_mode || a.info.st_uid != b.info.st_uid ||
        a.info.st_gid != b.info.st_gid)
        return false;
    if (a.content && b.content)
        return *a.content == *b.content;
    // Too large to be looked into. A copy of it has other numbers, and the same time.
    return a.info.st_size == b.info.st_size && IsSameTime(a.info.st_mtim, b.info.st_mtim);
}

struct timespec ShortlyBeforeNow() {
    constexpr long tick = 20'000'000;  // nanoseconds, longer than any kernel's
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_nsec -= tick;
    if (now.tv_nsec < 0) {
        now.tv_nsec += 1'000'000'000;
        --now.tv_sec;
    }
    return now;
}

/// Brings the entries of a walk into the order of their paths, in which a directory's name goes on
/// with a "/".
int ByPath(const FTSENT** a, const FTSENT** b) {
    const auto at = [](const FTSENT& entry, std::size_t i) {
        return i < entry.fts_namelen     ? static_cast<unsigned char>(entry.fts_name[i])
               : entry.fts_info == FTS_D ? static_cast<int>('/')
                                         : -1;
    };
    const std::size_t shorter = std::min((*a)->fts_namelen, (*b)->fts_namelen);
    std::size_t i = 0;
    while (i < shorter && (*a)->fts_name[i] == (*b)->fts_name[i])
        ++i;
    return at(**a, i) - at(**b, i);
}

/// Calls `visit` for every file and link below a directory, by path.
void ForEachFile(std::string root, const std::function<void(const FTSENT&)>& visit) {
    char* const roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS*)> walk(
        fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, ByPath), fts_close);
    if (!walk)
        throw Failure("cannot read " + root + ": " + std::strerror(errno));
    while (const FTSENT* entry = fts_read(walk.get())) {
        if (IsPassedOver(*entry))
            fts_set(walk.get(), const_cast<FTSENT*>(entry), FTS_SKIP);
        else if (entry->fts_info == FTS_F || entry->fts_info == FTS_SL ||
                 entry->fts_info == FTS_SLNONE || entry->fts_info == FTS_DEFAULT)
            visit(*entry);
    }
}

/// Keeps equal bytes once: thousands of extensions have files like the first one's.
class Bytes {
public:
    std::shared_ptr<const std::string> Keep(std::shared_ptr<const std::string> bytes) {
        return bytes ? *kept_.insert(std::move(bytes)).first : bytes;
    }

private:
    struct Hash {
        std::size_t operator()(const std::shared_ptr<const std::string>& bytes) const {
            return std::hash<std::string>()(*bytes);
        }
    };
    struct Equal {
        bool operator()(const std::shared_ptr<const std::string>& a,
                        const std::shared_ptr<const std::string>& b) const {
            return *a == *b;
        }
    };
    std::unordered_set<std::shared_ptr<const std::string>, Hash, Equal> kept_;
};

/// What a tree has otherwise than a state of it that is known. A file that was touched and is the
/// same is among it, with its new times, unless this look is the last.
std::vector<FileChange> Touched(const std::string& root, const TreeState& known,
                                const struct timespec& safeBefore, bool isLast) {
    std::vector<FileChange> touched;
    Bytes bytes;
    auto old = known.begin();
    const auto remove = [&] {
        touched.push_back({old->first, old->second, nullptr});
        ++old;
    };
    ForEachFile(root, [&](const FTSENT& entry) {
        const std::string_view path = entry.fts_path + root.size() + 1;
        while (old != known.end() && old->first < path)
            remove();
        const struct stat& info = *entry.fts_statp;
        std::shared_ptr<const FileState> before;
        if (old != known.end() && old->first == path)
            before = (old++)->second;
        if (before && IsUntouched(info, before->info) && IsOlder(info.st_ctim, safeBefore))
            return;
        FileState now{info, ReadContent(entry.fts_path, info)};
        if (before && IsSame(*before, now)) {
            if (isLast || IsUntouched(info, before->info))
                return;
            now.content = before->content;
        }
        now.content = bytes.Keep(now.content);
        touched.push_back(
            {std::string(path), before, std::make_shared<const FileState>(std::move(now))});
    });
    while (old != known.end())
        remove();
    return touched;
}

bool IsChange(const FileChange& touched) {
    return !touched.before || !touched.after || !IsSame(*touched.before, *touched.after);
}

/// A state with some files as they are now.
SharedTree With(const TreeState& state, const std::vector<FileChange>& changes) {
    auto made = std::make_shared<TreeState>(state);
    for (const FileChange& change : changes)
        if (change.after)
            made->insert_or_assign(change.path, change.after);
        else
            made->erase(change.path);
    return made;
}

}  // namespace

std::string ModeText(const FileState& state) {
    return fmt::format("mode {:o}, owner {}:{}", state.info.st_mode & 07777U, state.info.st_uid,
                       state.info.st_gid);
}

std::vector<FileChange> Compare(const TreeState& before, const TreeState& after) {
    std::vector<FileChange> changes;
    auto old = before.begin();
    auto now = after.begin();
    while (old != before.end() || now != after.end()) {
        if (now == after.end() || (old != before.end() && old->first < now->first)) {
            changes.push_back({old->first, old->second, nullptr});
            ++old;
        } else if (old == before.end() || now->first < old->first) {
            changes.push_back({now->first, nullptr, now->second});
            ++now;
        } else {
            if (old->second != now->second && !IsSame(*old->second, *now->second))
                changes.push_back({now->first, old->second, now->second});
            ++old;
            ++now;
        }
    }
    return changes;
}

TreeWatch::TreeWatch(std::string root, const SharedTree& known)
    : root_(std::move(root)), state_(known ? known : std::make_shared<const TreeState>()) {
    Look();
}

std::vector<FileChange> TreeWatch::Look() {
    const struct timespec begin = ShortlyBeforeNow();
    std::vector<FileChange> changes = Touched(root_, *state_, safeBefore_, false);
    if (!changes.empty())
        state_ = With(*state_, changes);
    std::erase_if(changes, [](const FileChange& change) { return !IsChange(change); });
    safeBefore_ = begin;
    return changes;
}

SharedTree LookAt(const std::string& root, const SharedTree& known) {
    const std::vector<FileChange> changes = Touched(root, *known, {}, true);
    return changes.empty() ? known : With(*known, changes);
}

}  // namespace rehearse
