// The recovery copy: what makes an interrupted upgrade the business of the next start.
//
// Many conversions must not run twice: the echo delay would lose another 80, minutes would become
// seconds twice over. So an upgrade that did not end is not gone on with but begun again, from a
// copy of the tree as it was. The copy's name says everything: it gets it when it is complete and
// on the disk, and loses it when the stamp is.

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

/// Whether the file system behind a path has room for another `size` bytes. One that does not know
/// its own size has.
bool HasRoom(const std::string& path, std::uint64_t size) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0 || info.f_blocks == 0)
        return true;
    return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize >= size;
}

/// Copies the tree to `temporary`, on the disk. The reason in words when it can't.
std::string CopyTree(const std::string& tree, const std::string& temporary, By by) {
    std::uint64_t size = 0;
    std::string error = MirrorTree(tree, temporary, by, size);
    // An upgrade that ends on a full disk for the sake of the copy would be worse than none.
    if (error.empty() && by == By::Copying && !HasRoom(temporary, size))
        error = std::strerror(ENOSPC);
    if (error.empty() && !FileUtility::SyncFileSystem(temporary))
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
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    if (FileUtility::IsThere(temporary))
        FileUtility::RemoveDirOrFile(temporary);
    if (liveTree.empty() || !FileUtility::IsOwnDirectory(recoveryCopy))
        return true;

    // Only the end of an upgrade writes the stamp, and never the one that is there.
    const std::string stamp = ReadStamp(liveTree);
    if (!stamp.empty() && stamp != ReadStamp(recoveryCopy)) {
        report +=
            "\tlast upgrade was finished, its recovery copy " + recoveryCopy + " is removed\n";
        RemoveRecoveryCopy();
        return true;
    }
    report += "\tlast upgrade was interrupted, ";
    std::uint64_t size = 0;
    std::string error = MirrorTree(recoveryCopy, liveTree, By::Copying, size);
    if (!error.empty() && MirrorTree(recoveryCopy, liveTree, By::Linking, size).empty())
        error.clear();
    if (error.empty() && !FileUtility::SyncFileSystem(liveTree))
        error = std::strerror(errno);
    if (!error.empty()) {
        report += "can't put back configuration from " + recoveryCopy + " (" + error +
                  "), upgrade is not continued\n";
        return false;
    }
    report += "configuration is put back from " + recoveryCopy + "\n";
    hasRecoveryCopy = beganFromCopy = true;
    return true;
}

void ConfigUpgrader::MakeRecoveryCopy() {
    if (hasRecoveryCopy)
        return;
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    std::string error = CopyTree(liveTree, temporary, By::Copying);
    if (!error.empty()) {
        // Without room for the files, links to them serve as well: they are replaced by what the
        // upgrade saves, never written into.
        FileUtility::RemoveDirOrFile(temporary);
        if (CopyTree(liveTree, temporary, By::Linking).empty()) {
            report += "\tcan't make recovery copy " + recoveryCopy + " (" + error +
                      "), its files are linked\n";
            error.clear();
        }
    }
    if (error.empty() && rename(temporary.c_str(), recoveryCopy.c_str()) != 0)
        error = std::strerror(errno);
    if (!error.empty()) {
        FileUtility::RemoveDirOrFile(temporary);
        report += "\tcan't make recovery copy " + recoveryCopy + " (" + error +
                  "), upgrade goes on without it\n";
        return;
    }
    FileUtility::SyncFileSystem(recoveryCopy);  // its name; without it, the live tree is as it was
    hasRecoveryCopy = true;
}

/// Takes the copy's name away first: what is left of a removal that is interrupted must not be
/// taken for a copy.
void ConfigUpgrader::RemoveRecoveryCopy() {
    const std::string temporary = recoveryCopy + Configuration::temporarySuffix;
    hasRecoveryCopy = false;
    if (rename(recoveryCopy.c_str(), temporary.c_str()) != 0 ||
        !FileUtility::RemoveDirOrFile(temporary))
        report +=
            "\tcan't remove recovery copy " + recoveryCopy + " (" + std::strerror(errno) + ")\n";
}

/// Whether the disk refused something that the next start can still mend. An upgrade that began
/// from a copy is not begun a third time: what fails twice is no accident, and settings that were
/// made since would be lost over and over.
bool ConfigUpgrader::ShouldBeginAgain() const {
    return hasRecoveryCopy && !beganFromCopy && DiskFailures() != failuresBefore;
}
