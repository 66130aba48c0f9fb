#include "recovery/recovery_copy.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "files/look.h"
#include "files/remove.h"
#include "files/replace.h"
#include "recovery/decision.h"
#include "store/multi_section_file.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Where a copy of a tree may stand: beside it or, where nothing can be made there, in it.
std::vector<std::string> PlacesFor(const std::string& tree) {
    return {tree + files::recoverySuffix, tree + "/" + innerCopyName};
}

/// Stamps a telephony directory; the reason in words when it can't.
std::string WriteStamp(const std::string& tree, const std::string& version) {
    try {
        MultiSectionFile lineDb(tree + "/linedb");
        if (version.empty())
            return {};
        if (!lineDb.GotoSection("general"))  // without a stamp the next start would upgrade again
            lineDb.AddSection("general", true);
        if (lineDb.SetSectionEntry("current_version", version) && !lineDb.Save())
            return lineDb.LastError();
    } catch (const FileError& error) {
        return error.what();
    }
    return {};
}

/// Whether a tree's linedb is what a telephony directory has.
bool IsLineDbSound(const std::string& tree) {
    try {
        const MultiSectionFile lineDb(tree + "/linedb");
        return true;
    } catch (const FileError&) {
        return false;
    }
}

/// Puts a tree's linedb back from a copy. False when it can't.
bool PutLineDbBack(const std::string& copy, const std::string& tree) {
    const std::string kept = copy + "/linedb";
    struct stat info {};
    std::uint64_t hash = 0;
    return lstat(kept.c_str(), &info) == 0 &&
           files::ReplaceEntry(kept, info, tree + "/linedb", files::By::Copying, hash).empty();
}

/// What the file system behind a path has left. One that does not know its own size has enough.
Room FreeRoom(const std::string& path) {
    constexpr auto enough = static_cast<std::uint64_t>(-1);
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0 || info.f_blocks == 0)
        return {enough, enough};
    return {static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize,
            info.f_files == 0 ? enough : info.f_favail};
}

/// What the file system of a tree lacks for a copy; empty when it lacks neither.
std::string MissingRoom(const std::string& tree) {
    const Room needed = RoomForCopy(tree);
    const Room left = FreeRoom(tree);
    if (left.bytes >= needed.bytes && left.inodes >= needed.inodes)
        return {};
    const auto missing = [](std::uint64_t need, std::uint64_t have) {
        return std::to_string(need > have ? static_cast<long long>(need - have) : 0);
    };
    return ": at least " + missing(needed.bytes, left.bytes) + " bytes and " +
           missing(needed.inodes, left.inodes) + " inodes more are needed";
}

}  // namespace

std::string ReadStamp(const std::string& tree) {
    try {
        MultiSectionFile lineDb(tree + "/linedb");
        return lineDb.GotoSection("general")
                   ? lineDb.GetSectionEntry("current_version").value_or("")
                   : "";
    } catch (const FileError&) {
        return "";
    }
}

// The start.

bool RecoveryCopy::Resume(const std::string& configRoot, const std::optional<std::string>& version,
                          const std::string& log) {
    watch_.StartAnew();
    log_ = log;
    tree_ = files::RealPath(configRoot);
    if (tree_.empty())  // a copy may be all that is left
        tree_ = configRoot;
    while (tree_.ends_with('/'))
        tree_.pop_back();
    if (tree_.empty())  // the root directory itself: no copy can stand beside it
        return true;
    lock_.emplace(tree_);
    if (lock_->IsDenied()) {
        report_ += "\tanother program holds " + lock_->Path() + " locked, upgrade is not begun\n";
        return false;
    }
    for (const std::string& place : PlacesFor(tree_)) {
        copy_ = place;
        if (watch_.HasSeenOne())
            return GiveUp("configuration can't be found");
        if (!ResumeFrom(place, version))
            return false;
        if (stands_)
            return true;
    }
    return true;
}

bool RecoveryCopy::ResumeFrom(const std::string& copy, const std::optional<std::string>& version) {
    if (files::IsThere(files::TemporaryFor(copy)))
        files::RemoveTree(files::TemporaryFor(copy));
    if (!files::IsOwnDirectory(copy))
        return !watch_.HasSeenOne() || GiveUp("it can't be read");
    const std::optional<Mark> mark = ReadMark(copy);
    const std::string stamp = ReadStamp(tree_);
    if (watch_.HasSeenOne())
        return GiveUp("it can't be read");
    switch (Decide(mark, stamp, [&] { return FingerprintOf(tree_, copy, NotOfTheTree(log_)); })) {
        case Action::LeaveAlone:
            return true;
        case Action::Remove:
            report_ += "\tlast upgrade was finished, its recovery copy " + copy + " is removed\n";
            SetState(copy, State::Stamped);  // should it not go, no later stamp has it put back
            Remove();
            return true;
        case Action::StampAndRemove:
            return StampAndRemove(mark->version);
        case Action::GiveUp:
            return GiveUp("configuration can't be read");
        case Action::PutBack:
            return BeginAgain(*mark, version, false);
        case Action::PutBackAgain:
            return BeginAgain(*mark, version, true);
    }
    return false;
}

bool RecoveryCopy::BeginAgain(const Mark& mark, const std::optional<std::string>& version,
                              bool isSecondTry) {
    if (!version)
        return GiveUp("labels can't be read");
    const auto held = ContentOfCopy(copy_, tree_);
    if (watch_.HasSeenOne() || !held || !mark.held || !IsWhole(*held, *mark.held, mark.digests))
        return GiveUp("it is not whole");
    // While it is put back, the tree is neither what the last run left nor what it found, and the
    // mark has to say so first. Its name changes before the fingerprint goes: a mark "again"
    // without one would say that settings have changed. A new file for the mark, which a full disk
    // refuses, is only made where the firmware or what the copy holds has changed since: the
    // upgrade will take from the tree what they share now.
    isSecondTry_ = isSecondTry;
    bool isMarked = SetState(copy_, isSecondTry ? State::SecondUnderWay : State::UnderWay) &&
                    (!mark.left || MarkLeft(copy_, std::nullopt));
    if (isMarked && (mark.version != *version || mark.digests != held->digests))
        isMarked = WriteMark(copy_, {isSecondTry ? State::SecondUnderWay : State::UnderWay,
                                     held->total, std::nullopt, *version, held->digests})
                       .empty();
    if (!isMarked)
        return GiveUp("it can't be marked");
    const std::string error = PutBack();
    if (!error.empty())
        return GiveUp(error);
    report_ += "\tlast upgrade was interrupted, configuration is put back from " + copy_ + "\n";
    Stand();
    watch_.StartAnew();
    return true;
}

/// Makes the tree what the copy says, durably; the reason in words when that failed.
std::string RecoveryCopy::PutBack() {
    files::SyncLater later;
    std::string error = PutBackTree(copy_, tree_, NotOfTheTree(log_));
    if (error.empty() && (!files::SyncChangesBelow(tree_) || !later.SyncAll()))
        error = std::strerror(errno);
    return error;
}

bool RecoveryCopy::GiveUp(const std::string& reason) {
    report_ += "\tlast upgrade was interrupted, can't put back configuration from " + copy_ + " (" +
               reason + "), upgrade is not continued\n";
    return false;
}

bool RecoveryCopy::StampAndRemove(const std::string& version) {
    // Without a linedb there is nothing to stamp, and nothing that was converted to keep.
    const bool isStamped = !version.empty() && files::IsThere(tree_ + "/linedb");
    std::string error = isStamped ? WriteStamp(tree_, version) : "";
    // One that nobody can read would keep the tree from being stamped for good, and the factory's
    // would have it upgraded a second time.
    if (!error.empty() && !IsLineDbSound(tree_) && PutLineDbBack(copy_, tree_)) {
        report_ += "\tfile linedb is corrupted, it is put back from " + copy_ + "\n";
        error = WriteStamp(tree_, version);
    }
    if (!error.empty())
        return GiveUp("it has changed since, and can't be stamped: " + error);
    report_ += "\tconfiguration has changed since last upgrade, which was not finished: it stays" +
               std::string(isStamped ? " and is stamped" : "") + ", recovery copy " + copy_ +
               " is removed\n";
    Remove();
    return true;
}

// The copy.

bool RecoveryCopy::Make(const std::string& version, const NamePredicate& isEntered) {
    if (stands_ || tree_.empty())
        return true;
    // What is refused here is no failure of the upgrade.
    const files::RefusalsForgiven forgiven;
    const files::RefusalWatch watch;
    const std::vector<std::string> places = PlacesFor(tree_);
    std::string reason;  // why there is none beside the tree, which is the first choice
    for (const std::string& place : places) {
        const std::string error = MakeAt(place, version, isEntered);
        if (error.empty()) {
            if (!reason.empty())
                report_ += "\tcan't make recovery copy " + places.front() + " (" + reason +
                           "), it is made as " + place + "\n";
            Stand();
            return true;
        }
        if (reason.empty())
            reason = error;
    }
    copy_ = places.front();
    const bool isShort = watch.HasSeenShortage();
    report_ +=
        "\tcan't make recovery copy " + copy_ + " (" + reason + "), " +
        (isShort ? "upgrade is not begun" + MissingRoom(tree_) : "upgrade goes on without it") +
        "\n";
    return !isShort;
}

/// Makes a copy under its temporary name, with its mark, on the disk, and gives it its name. The
/// reason in words when it can't; then nothing is left of it.
std::string RecoveryCopy::MakeAt(const std::string& copy, const std::string& version,
                                 const NamePredicate& isEntered) {
    copy_ = copy;
    const std::string temporary = files::TemporaryFor(copy);
    if (files::IsThere(copy))  // Resume has left it there
        return files::IsOwnDirectory(copy) ? "a directory of that name is not ours"
                                           : std::strerror(ENOTDIR);
    CopyContent held;
    std::string error = CopyTree(tree_, temporary, isEntered, NotOfTheTree(log_), held);
    if (error.empty())
        error = WriteMark(temporary,
                          {State::UnderWay, held.total, std::nullopt, version, held.digests});
    if (error.empty() && !files::SyncFileSystem(temporary))
        error = files::NotedReason(temporary);
    if (error.empty() && std::rename(temporary.c_str(), copy.c_str()) != 0)
        error = files::NotedReason(copy);
    if (!error.empty()) {
        files::RemoveTree(temporary);
    } else if (!files::SyncFileSystem(copy)) {  // its name
        error = files::NotedReason(copy);
        Remove();
    }
    return error;
}

/// From here on a crash leads back to the copy.
void RecoveryCopy::Stand() {
    stands_ = true;
    syncLater_.emplace();
    // The tree is synced at the end, whatever changes it. Where it cannot be noted for that, every
    // save syncs by itself.
    if (!files::SyncChangesBelow(tree_))
        syncLater_.reset();
}

bool RecoveryCopy::ShouldBeginAgain() const {
    return stands_ && !isSecondTry_ && watch_.HasSeenOne();
}

bool RecoveryCopy::Holds(const std::string& realPath) const {
    return !copy_.empty() && files::IsWithin(realPath, copy_);
}

// The end.

bool RecoveryCopy::SyncTree() {
    if (!syncLater_)
        return tree_.empty() || files::SyncFileSystem(tree_);
    const bool synced = syncLater_->SyncAll();
    const int error = errno;
    syncLater_.reset();
    errno = error;
    return synced;
}

std::string RecoveryCopy::Unshare() {
    return stands_ ? ::Unshare(copy_, tree_) : "";
}

void RecoveryCopy::MarkDone() {
    if (stands_)
        SetState(copy_, State::Done);
}

void RecoveryCopy::End(bool isFinished) {
    if (!stands_)
        return;
    if (isFinished) {
        SetState(copy_, State::Stamped);  // a copy that cannot be removed is not put back, then
        Remove();
        return;
    }
    SyncTree();
    const auto left = FingerprintOf(tree_, copy_, NotOfTheTree(log_));
    // A disk that refuses files may refuse the mark, too. Without a fingerprint the next start
    // can't tell what people change until then, so the tree must not be left to it as half
    // converted as it is; but it is put back for that only once.
    const bool isLeft = left && MarkLeft(copy_, left);
    SetState(copy_, isLeft ? State::Refused : State::SecondUnderWay);
    report_ += "\tupgrade is not finished, next start begins again from " + copy_ +
               (isLeft ? "" : ", settings that are changed until then are lost") + "\n";
}

void RecoveryCopy::TakeBack() {
    if (!stands_)
        return;
    syncLater_.reset();
    if (!PutBack().empty()) {  // the mark still is that of a killed run: the next start does it
        report_ += "\tupgrade is not finished, next start begins again from " + copy_ + "\n";
        return;
    }
    report_ +=
        "\tout of memory, configuration is put back from " + copy_ + ", next start tries again\n";
    Remove();
}

/// Takes the copy's name away first, on the disk as well: what is left of a removal that is
/// interrupted must not be taken for a copy.
void RecoveryCopy::Remove() {
    const std::string temporary = files::TemporaryFor(copy_);
    stands_ = false;
    if (std::rename(copy_.c_str(), temporary.c_str()) == 0 && files::SyncFileSystem(temporary) &&
        files::RemoveTree(temporary))
        return;
    report_ += "\tcan't remove recovery copy " + copy_ + " (" + std::strerror(errno) + ")\n";
}
