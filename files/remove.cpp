#include "files/remove.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "files/look.h"
#include "files/refusals.h"
#include "files/replace.h"

namespace files {
namespace {

bool RemoveEntry(const Directory& parent, const DirectoryEntry& entry) {
    const char* name = entry.name.c_str();
    if (entry.type != DirectoryEntry::Type::Directory) {
        if (unlinkat(parent.Descriptor(), name, 0) == 0)
            return true;
        if (errno != EISDIR && errno != EPERM)
            return false;
    }
    // Below an open directory, never by a path: one that someone swaps for a link meanwhile is not
    // followed.
    Directory directory(parent, entry.name);
    if (!directory.IsOpen()) {
        if (errno == ENOTDIR)  // a file that the system does not let go, such as an immutable one
            errno = EPERM;
        return false;
    }
    bool removed = true;  // an entry that is not listed keeps the directory from going
    if (const auto entries = directory.Entries())
        for (const DirectoryEntry& below : *entries)
            removed = RemoveEntry(directory, below) && removed;
    return unlinkat(parent.Descriptor(), name, AT_REMOVEDIR) == 0 && removed;
}

}  // namespace

bool RemoveFile(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        return true;
    NoteRefusal(errno, "Can't remove: " + path);
    return false;
}

void RemoveSpecialFile(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        unlink(path.c_str());
}

bool RemoveTree(const std::string& path) {
    if (unlink(path.c_str()) == 0)
        return true;
    if (errno != EISDIR && errno != EPERM)
        return false;
    const std::size_t slash = path.rfind('/');
    const Directory parent(DirectoryOf(path));
    return parent.IsOpen() &&
           RemoveEntry(parent, {slash == std::string::npos ? path : path.substr(slash + 1),
                                DirectoryEntry::Type::Directory});
}

}  // namespace files
