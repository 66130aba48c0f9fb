// The recovery copy: what makes an interrupted upgrade the business of the next start.
//
// Many conversions must not run twice: the echo delay would lose another 80, minutes would become
// seconds twice over. So an upgrade that did not end is not gone on with but begun again, from a
// copy of the tree as it was. The copy gets its name when it is complete and on the disk, and loses
// it when the stamp is. A mark in it says how far the upgrade is.

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/config_upgrader.h"
#include "platform/disk_failures.h"
#include "platform/file_descriptor.h"
#include "platform/file_utility.h"
#include "store/file_io.h"
#include "store/tree_mirror.h"

using Configuration::By;
using Configuration::FileError;
using Configuration::MirrorTree;
using Configuration::MultiSectionFile;

namespace {

constexpr const char* copySuffix = ".mend-undo";

// The marks: an upgrade is under way, one did not end because the disk refused something, all is
// done but the stamp. The mark's text is the version to be stamped, empty when there is none. Their
// names end as those of temporaries, so no mirror takes them along. A copy that somebody made by
// hand has none.
constexpr const char* underWay = "/target.mend-tmp";
constexpr const char* refused = "/again.mend-tmp";
constexpr const char* done = "/done.mend-tmp";

/// The stamp of a telephony directory; empty without one.
std::string ReadStamp(const std::string& directory) {
    try {
        MultiSectionFile lineDb(directory + "/linedb");
        return lineDb.GotoSection("general")
                   ? lineDb.GetSectionEntry("current_version").value_or("")
                   : "";
    } catch (const FileError&) {
        return "";
    }
}

void SetMark(const std::string& copy, const char* mark) {
    for (const char* old : {underWay, refused, done})
        if (old != mark && rename((copy + old).c_str(), (copy + mark).c_str()) == 0)
            return;
}

/// Whether an upgrade had come to its end when it left this copy.
bool IsFinished(const std::string& tree, const std::string& copy) {
    const std::string stamp = ReadStamp(tree);
    if (const auto version = Configuration::ReadFile(copy + done).bytes)
        return version->empty() || *version == stamp;
    if (FileUtility::IsThere(copy + underWay) || FileUtility::IsThere(copy + refused))
        return false;
    return !stamp.empty() && stamp != ReadStamp(copy);
}

/// Whether the file system behind a path has room for another `size` bytes. One that does not know
/// its own size has.
bool HasRoom(const std::string& path, std::uint64_t size) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0 || info.f_blocks == 0)
        return true;
    return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize >= size;
}

/// Copies the tree to `temporary`, on the disk. The reason in words when it can't.
std::string CopyTree(const std::string& tree, const std::string& temporary, By by,
                     const std::string& target) {
    // As much again for the upgrade: one that ends on a disk filled by the copy is worse than none.
    if (by == By::Copying && !HasRoom(tree, 2 * Configuration::TreeSize(tree)))
        return std::strerror(ENOSPC);
    std::string error = MirrorTree(tree, temporary, by);
    if (error.empty())
        error = Configuration::SaveLinkedFiles(tree, temporary, by);
    if (!error.empty())
        return error;
    if (!Configuration::ReplaceFile(temporary + underWay, target).empty())
        unlink((temporary + underWay).c_str());  // it goes without; a cut one must not stay
    return FileUtility::SyncFileSystem(temporary) ? "" : std::strerror(errno);
}

/// Makes the tree what the copy says. Without room for a file, a link to the copy's serves.
std::string PutBack(const std::string& copy, const std::string& tree) {
    std::string error = MirrorTree(copy, tree, By::Copying);
    if (!error.empty() && MirrorTree(copy, tree, By::Linking).empty())
        error.clear();
    if (error.empty())
        error = Configuration::PutBackLinkedFiles(copy, tree);
    if (error.empty() && !FileUtility::SyncFileSystem(tree))
        error = std::strerror(errno);
    return error;
}

}  // namespace

/// Names the copy of the live tree: beside the directory itself, also when configRoot is a link.
void ConfigUpgrader::FindRecoveryCopy() {
    char real[PATH_MAX];
    liveTree = realpath(configRoot.c_str(), real) != nullptr ? real : configRoot;
    while (!liveTree.empty() && liveTree.back() == '/')
        liveTree.pop_back();
    recoveryCopy = liveTree + copySuffix;
}

bool ConfigUpgrader::PutBackInterrupted() {
    FindRecoveryCopy();
    if (liveTree.empty())
        return true;
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    if (FileUtility::IsThere(temporary))
        FileUtility::RemoveDirOrFile(temporary);
    if (!FileUtility::IsOwnDirectory(recoveryCopy))
        return true;

    const bool isFinished = IsFinished(liveTree, recoveryCopy);
    const auto content = ListDirectory(recoveryCopy);
    if (DiskFailures() == failuresBefore && (isFinished || content->names.empty())) {
        report +=
            "\tlast upgrade was finished, its recovery copy " + recoveryCopy + " is removed\n";
        RemoveRecoveryCopy();
        return true;
    }
    // From here on the mark of a run that came to its last step would lie.
    if (FileUtility::IsThere(recoveryCopy + done))
        SetMark(recoveryCopy, refused);
    report += "\tlast upgrade was interrupted, ";
    // What the disk does not tell now must not be guessed.
    const std::string error =
        DiskFailures() != failuresBefore ? "it can't be read" : PutBack(recoveryCopy, liveTree);
    if (!error.empty()) {
        report += "can't put back configuration from " + recoveryCopy + " (" + error +
                  "), upgrade is not continued\n";
        return false;
    }
    report += "configuration is put back from " + recoveryCopy + "\n";
    hasRecoveryCopy = true;
    wasRefused = !FileUtility::IsThere(recoveryCopy + underWay);
    failuresBefore = DiskFailures();
    return true;
}

void ConfigUpgrader::MakeRecoveryCopy() {
    if (hasRecoveryCopy || liveTree.empty())
        return;
    const unsigned failures = DiskFailures();
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    const std::string cantMake = "\tcan't make recovery copy " + recoveryCopy + " (";
    const std::string target = VersionToStamp();
    std::string error = CopyTree(liveTree, temporary, By::Copying, target);
    if (!error.empty()) {
        // Without room for the files, links to them serve as well: they are replaced by what the
        // upgrade saves, never written into.
        FileUtility::RemoveDirOrFile(temporary);
        if (CopyTree(liveTree, temporary, By::Linking, target).empty()) {
            report += cantMake + error + "), its files are linked\n";
            error.clear();
        }
    }
    if (error.empty() && rename(temporary.c_str(), recoveryCopy.c_str()) != 0)
        error = std::strerror(errno);
    else if (error.empty() && !FileUtility::SyncFileSystem(recoveryCopy)) {  // its name
        error = std::strerror(errno);
        RemoveRecoveryCopy();
    }
    hasRecoveryCopy = error.empty();
    if (!hasRecoveryCopy) {
        FileUtility::RemoveDirOrFile(temporary);
        report += cantMake + error + "), upgrade goes on without it\n";
    }
    // What was refused here is no failure of the upgrade.
    failuresBefore += DiskFailures() - failures;
}

/// Takes the copy's name away first, on the disk as well: what is left of a removal that is
/// interrupted must not be taken for a copy.
void ConfigUpgrader::RemoveRecoveryCopy() {
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    hasRecoveryCopy = false;
    if (rename(recoveryCopy.c_str(), temporary.c_str()) == 0 &&
        FileUtility::SyncFileSystem(temporary) && FileUtility::RemoveDirOrFile(temporary))
        return;
    report += "\tcan't remove recovery copy " + recoveryCopy + " (" + std::strerror(errno) + ")\n";
}

/// Whether the disk refused something that the next start can still mend. An upgrade is begun again
/// for that once only: what fails twice is no accident, and settings that were made since would be
/// lost over and over.
bool ConfigUpgrader::ShouldBeginAgain() const {
    return hasRecoveryCopy && !wasRefused && DiskFailures() != failuresBefore;
}

void ConfigUpgrader::EndWithRecoveryCopy(bool isFinished) {
    if (!hasRecoveryCopy)
        return;
    if (isFinished) {
        RemoveRecoveryCopy();
        return;
    }
    SetMark(recoveryCopy, refused);
    report += "\tupgrade is not finished, next start begins again from " + recoveryCopy + "\n";
}

void ConfigUpgrader::MarkDone() const {
    if (hasRecoveryCopy)
        SetMark(recoveryCopy, done);
}
