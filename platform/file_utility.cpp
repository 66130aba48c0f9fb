#include "platform/file_utility.h"

#include <sys/statvfs.h>

#include <cerrno>

#include "files/look.h"
#include "files/refusals.h"
#include "files/remove.h"

int FileExist(const std::string& path) {
    return files::KindOf(path) != files::Kind::Missing;
}

int CorrectPath(const std::string& path) {
    return files::KindOf(path) == files::Kind::Directory;
}

namespace FileUtility {

void AdjustPath(std::string& path, char separator) {
    if (!path.empty() && path.back() != separator)
        path += separator;
}

bool RemoveDirOrFile(const std::string& path) {
    if (files::RemoveTree(path))
        return true;
    files::NoteRefusal(errno, "Can't remove: " + path);
    return false;
}

std::uint64_t GetVmStorageSize(const std::string& path, bool) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.f_blocks) * info.f_frsize;
}

}  // namespace FileUtility
