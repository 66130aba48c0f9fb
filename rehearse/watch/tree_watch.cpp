#include "rehearse/watch/tree_watch.h"

#include <fts.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <string_view>

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

void TreeWatch::Look() {
    const struct timespec begin = ShortlyBeforeNow();
    char* const roots[] = {root_.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS*)> walk(
        fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr), fts_close);
    if (!walk)
        throw Failure("cannot read " + root_ + ": " + std::strerror(errno));
    TreeState state;
    while (const FTSENT* entry = fts_read(walk.get())) {
        if (IsPassedOver(*entry)) {
            fts_set(walk.get(), const_cast<FTSENT*>(entry), FTS_SKIP);
            continue;
        }
        if (entry->fts_info != FTS_F && entry->fts_info != FTS_SL &&
            entry->fts_info != FTS_SLNONE && entry->fts_info != FTS_DEFAULT)
            continue;
        std::string path = entry->fts_path + root_.size() + 1;
        const struct stat& info = *entry->fts_statp;
        const auto known = state_.find(path);
        const bool isUntouched = known != state_.end() && IsUntouched(info, known->second->info) &&
                                 IsOlder(info.st_ctim, safeBefore_);
        auto now = isUntouched ? known->second
                               : std::make_shared<const FileState>(
                                     FileState{info, ReadContent(entry->fts_path, info)});
        // The same entry for the same file, so that a comparison need not look at its bytes; and
        // the same bytes for another that holds them, of which there may be hundreds of thousands.
        if (!isUntouched && known != state_.end() && IsSame(*known->second, *now)) {
            if (IsUntouched(info, known->second->info))
                now = known->second;
            else
                now = std::make_shared<const FileState>(FileState{info, known->second->content});
        }
        state.emplace(std::move(path), std::move(now));
    }
    state_ = std::move(state);
    safeBefore_ = begin;
}

}  // namespace rehearse
