#include "util/directory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "platform/disk_failures.h"

std::optional<DirectoryListing> ListDirectory(const std::string& path) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    struct stat info {};
    if (!directory || fstat(dirfd(directory.get()), &info) != 0) {
        CountDiskFailure(errno, path);
        return std::nullopt;
    }
    DirectoryListing listing{{info.st_dev, info.st_ino}, {}};
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(directory.get());
        if (entry == nullptr)
            break;
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            listing.names.push_back(std::move(name));
    }
    if (errno != 0) {  // not the end: names that were not read must not pass for absent
        CountDiskFailure(errno, path);
        return std::nullopt;
    }
    return listing;
}
