#include "app/recovery.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files/look.h"
#include "files/read.h"
#include "store/multi_section_file.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;
using files::By;

namespace {

/// How far the upgrade is that left a copy. The state is the mark's name: renaming it needs no room
/// on a full disk. The names end as those of temporaries, so that no mirror takes them along.
enum class State { UnderWay, SecondUnderWay, Refused, Done, Stamped };
constexpr const char* markNames[] = {"/target.mend-tmp", "/second.mend-tmp", "/again.mend-tmp",
                                     "/done.mend-tmp", "/stamped.mend-tmp"};

std::string MarkPath(const std::string& copy, State state) {
    return copy + markNames[static_cast<std::size_t>(state)];
}

/// What a mark says.
struct Mark {
    std::optional<TreeContent> held;  // by the copy
    std::optional<TreeContent> left;  // of the tree, by a run that ended
    std::string version;              // to be stamped; empty when there is none
};

/// A line of always the same length, so that one can be written over another on a full disk.
std::string ContentText(const std::optional<TreeContent>& content) {
    constexpr std::size_t width = 100;
    char text[width] = "unknown";
    if (content)
        std::snprintf(text, sizeof text, "%llu entries, %llu bytes, %016llx",
                      static_cast<unsigned long long>(content->entries),
                      static_cast<unsigned long long>(content->bytes),
                      static_cast<unsigned long long>(content->hash));
    std::string line = text;
    line.resize(width, ' ');
    return line + "\n";
}

/// Reads the number that a text goes on with, and what stands behind it. Not by sscanf, which is a
/// tenth of a program that is linked statically.
bool TakeNumber(const char*& text, int base, const char* behind, std::uint64_t& number) {
    char* end = nullptr;
    number = std::strtoull(text, &end, base);
    const std::size_t length = std::strlen(behind);
    const bool isTaken = end != text && std::strncmp(end, behind, length) == 0;
    text = end + (isTaken ? length : 0);
    return isTaken;
}

std::optional<TreeContent> ParseContent(const std::string& line) {
    TreeContent content{};
    const char* text = line.c_str();
    if (!TakeNumber(text, 10, " entries, ", content.entries) ||
        !TakeNumber(text, 10, " bytes, ", content.bytes) || !TakeNumber(text, 16, "", content.hash))
        return std::nullopt;
    return content;
}

/// The version stands last: a label's text may be of several lines.
std::string MarkText(const Mark& mark) {
    return ContentText(mark.held) + ContentText(mark.left) + mark.version;
}

Mark ParseMark(const std::string& text) {
    Mark mark;
    const std::size_t first = text.find('\n');
    const std::size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    if (second == std::string::npos)
        return mark;
    mark.held = ParseContent(text.substr(0, first));
    mark.left = ParseContent(text.substr(first + 1, second - first - 1));
    mark.version = text.substr(second + 1);
    return mark;
}

/// Writes into a mark what a run left of the tree; false when it can't.
bool WriteLeft(const std::string& path, const std::optional<TreeContent>& left) {
    const std::string line = ContentText(left);
    const files::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    return file.IsOpen() &&
           pwrite(file.Get(), line.data(), line.size(), static_cast<off_t>(line.size())) ==
               static_cast<ssize_t>(line.size()) &&
           fsync(file.Get()) == 0;
}

/// The state that a copy's mark tells; nothing without a mark.
std::optional<State> StateOf(const std::string& copy) {
    for (const State state :
         {State::Stamped, State::Done, State::Refused, State::SecondUnderWay, State::UnderWay})
        if (files::IsThere(MarkPath(copy, state)))
            return state;
    return std::nullopt;
}

/// Renames the mark; false when it is not on the disk under its new name.
bool SetState(const std::string& copy, State state) {
    for (const State old : {State::UnderWay, State::SecondUnderWay, State::Refused, State::Done})
        if (old != state)
            std::rename(MarkPath(copy, old).c_str(), MarkPath(copy, state).c_str());
    const files::Directory directory(copy);
    return directory.IsOpen() && fsync(directory.Descriptor()) == 0 &&
           files::IsThere(MarkPath(copy, state));
}

/// Stamps a telephony directory; the reason in words when it can't.
std::string WriteStamp(const std::string& tree, const std::string& version) {
    try {
        MultiSectionFile lineDb(tree + "/linedb");
        if (!version.empty() && lineDb.GotoSection("general") &&
            lineDb.SetSectionEntry("current_version", version) && !lineDb.Save())
            return lineDb.LastError();
    } catch (const FileError& error) {
        return error.what();
    }
    return {};
}

/// Whether the file system behind a path has room for another `size` bytes. One that does not know
/// its own size has.
bool HasRoom(const std::string& path, std::uint64_t size) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0 || info.f_blocks == 0)
        return true;
    return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize >= size;
}

/// Makes a copy under its temporary name, with its mark, on the disk. The reason in words when it
/// can't.
std::string MakeCopy(const std::string& tree, const std::string& temporary, By by,
                     const std::string& version, const NamePredicate& isEntered) {
    TreeContent held;
    std::string error = CopyTree(tree, temporary, by, isEntered, held);
    if (!error.empty())
        return error;
    // As much again for the upgrade: one that ends on a disk filled by the copy is worse than none.
    if (by == By::Copying && (!HasRoom(temporary, held.bytes) || !HasRoom(tree, held.bytes)))
        return std::strerror(ENOSPC);
    const Mark mark{held, std::nullopt, version};
    error = files::ReplaceFile(MarkPath(temporary, State::UnderWay), MarkText(mark));
    if (error.empty() && !files::SyncFileSystem(temporary))
        error = std::strerror(errno);
    return error;
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

bool RecoveryCopy::Resume(const std::string& configRoot, const std::string& version) {
    watch_.StartAnew();
    tree_ = files::RealPath(configRoot);
    if (tree_.empty())  // a copy may be all that is left
        tree_ = configRoot;
    while (tree_.ends_with('/'))
        tree_.pop_back();
    if (tree_.empty())
        return true;
    copy_ = tree_ + copySuffix;
    if (watch_.HasSeenOne())
        return GiveUp("configuration can't be found");
    const std::string temporary = copy_ + files::temporarySuffix;
    if (files::IsThere(temporary))
        files::RemoveTree(temporary);
    if (!files::IsOwnDirectory(copy_))
        return !watch_.HasSeenOne() || GiveUp("it can't be read");

    const auto state = StateOf(copy_);
    const auto text = state ? files::ReadFile(MarkPath(copy_, *state)).bytes : std::nullopt;
    const Mark mark = ParseMark(text.value_or(""));
    const std::string stamp = ReadStamp(tree_);
    if (watch_.HasSeenOne())
        return GiveUp("it can't be read");
    if (!state) {
        isForeign_ = true;
        return true;
    }
    const bool isDone =
        state == State::Done && mark.held && (mark.version.empty() || mark.version == stamp);
    if (state == State::Stamped || isDone) {
        report_ += "\tlast upgrade was finished, its recovery copy " + copy_ + " is removed\n";
        Remove();
        return true;
    }
    // Such a run has ended, whatever the mark's name: the disk may have refused to change it.
    if (mark.held && (state == State::Refused || mark.left)) {
        const auto now = FingerprintOf(tree_, copy_);
        if (!now)
            return GiveUp("configuration can't be read");
        if (now != mark.left)
            return StampAndRemove(mark.version);
    }
    const auto held = ContentOfCopy(copy_);
    if (watch_.HasSeenOne() || !mark.held || held != mark.held)
        return GiveUp("it is not whole");
    // From here on the tree is neither what the last run left nor what it found, and the mark has
    // to say so first.
    isSecondTry_ = state == State::SecondUnderWay || state == State::Refused;
    const Mark begun{held, std::nullopt, version};
    const bool differs = mark.left || mark.version != version;  // else a full disk does no harm
    if ((differs && !files::ReplaceFile(MarkPath(copy_, *state), MarkText(begun)).empty()) ||
        !SetState(copy_, isSecondTry_ ? State::SecondUnderWay : State::UnderWay))
        return GiveUp("it can't be marked");
    return PutBack();
}

bool RecoveryCopy::PutBack() {
    std::string error;
    {
        files::SyncLater later;
        error = PutBackTree(copy_, tree_);
        if (error.empty() && (!files::SyncChangesBelow(tree_) || !later.SyncAll()))
            error = std::strerror(errno);
    }
    if (!error.empty())
        return GiveUp(error);
    report_ += "\tlast upgrade was interrupted, configuration is put back from " + copy_ + "\n";
    Stand();
    watch_.StartAnew();
    return true;
}

bool RecoveryCopy::GiveUp(const std::string& reason) {
    report_ += "\tlast upgrade was interrupted, can't put back configuration from " + copy_ + " (" +
               reason + "), upgrade is not continued\n";
    return false;
}

bool RecoveryCopy::StampAndRemove(const std::string& version) {
    // Without a linedb there is nothing to stamp, and nothing that was converted to keep.
    const bool isStamped = files::IsThere(tree_ + "/linedb");
    const std::string error = isStamped ? WriteStamp(tree_, version) : "";
    if (!error.empty())
        return GiveUp("it has changed since, and can't be stamped: " + error);
    report_ += "\tconfiguration has changed since last upgrade, which was not finished: it stays" +
               std::string(isStamped ? " and is stamped" : "") + ", recovery copy " + copy_ +
               " is removed\n";
    Remove();
    return true;
}

void RecoveryCopy::Make(const std::string& version, const NamePredicate& isEntered) {
    if (stands_ || tree_.empty())
        return;
    // What is refused here is no failure of the upgrade.
    const files::RefusalsForgiven forgiven;
    const std::string cantMake = "\tcan't make recovery copy " + copy_ + " (";
    if (isForeign_) {
        report_ += cantMake + "a directory of that name is not ours), upgrade goes on without it\n";
        return;
    }
    const std::string temporary = copy_ + files::temporarySuffix;
    std::string error = MakeCopy(tree_, temporary, By::Copying, version, isEntered);
    if (!error.empty()) {
        // Without room for the files, links to them serve as well: they are replaced by what the
        // upgrade saves, never written into.
        files::RemoveTree(temporary);
        if (MakeCopy(tree_, temporary, By::Linking, version, isEntered).empty()) {
            report_ += cantMake + error + "), its files are linked\n";
            error.clear();
        }
    }
    if (error.empty() && std::rename(temporary.c_str(), copy_.c_str()) != 0)
        error = std::strerror(errno);
    else if (error.empty() && !files::SyncFileSystem(copy_)) {  // its name
        error = std::strerror(errno);
        Remove();
    }
    if (error.empty()) {
        Stand();
        return;
    }
    files::RemoveTree(temporary);
    report_ += cantMake + error + "), upgrade goes on without it\n";
}

/// From here on a crash leads back to the copy.
void RecoveryCopy::Stand() {
    stands_ = true;
    syncLater_.emplace();
    if (!files::SyncChangesBelow(
            tree_))  // it will be among what SyncAll syncs, whatever changes it
        syncLater_.reset();
}

bool RecoveryCopy::SyncTree() {
    if (!syncLater_)
        return tree_.empty() || files::SyncFileSystem(tree_);
    const bool synced = syncLater_->SyncAll();
    const int error = errno;
    syncLater_.reset();
    errno = error;
    return synced;
}

bool RecoveryCopy::ShouldBeginAgain() const {
    return stands_ && !isSecondTry_ && watch_.HasSeenOne();
}

bool RecoveryCopy::Holds(const std::string& realPath) const {
    return !copy_.empty() && files::IsWithin(realPath, copy_);
}

void RecoveryCopy::MarkDone() {
    if (stands_)
        SetState(copy_, State::Done);
}

void RecoveryCopy::End(bool isFinished) {
    if (!stands_)
        return;
    if (isFinished) {
        SetState(copy_, State::Stamped);  // should it not go, it is never put back
        Remove();
        return;
    }
    SyncTree();
    // Without a fingerprint the next start takes the tree for changed, and leaves it.
    if (const auto state = StateOf(copy_))
        WriteLeft(MarkPath(copy_, *state), FingerprintOf(tree_, copy_));
    SetState(copy_, State::Refused);
    report_ += "\tupgrade is not finished, next start begins again from " + copy_ + "\n";
}

/// Takes the copy's name away first, on the disk as well: what is left of a removal that is
/// interrupted must not be taken for a copy.
void RecoveryCopy::Remove() {
    const std::string temporary = copy_ + files::temporarySuffix;
    stands_ = false;
    if (std::rename(copy_.c_str(), temporary.c_str()) == 0 && files::SyncFileSystem(temporary) &&
        files::RemoveTree(temporary))
        return;
    report_ += "\tcan't remove recovery copy " + copy_ + " (" + std::strerror(errno) + ")\n";
}
