#include "rehearse/sandbox/order.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <vector>

namespace fs = std::filesystem;

namespace rehearse {
namespace {

using Names = std::vector<std::string>;

/// The names as the kernel lists them: the C library keeps its order.
Names ListingOf(const std::string& path) {
    Names names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (!directory)
        return names;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    return names;
}

Names Wanted(Names names, Order order) {
    std::sort(names.begin(), names.end());
    if (order == Order::Descending)
        std::reverse(names.begin(), names.end());
    return names;
}

/// Moves the names into a directory beside them and back, in the order given. Takes out of them
/// what can't be moved, such as the place of a mount.
void Reenter(const std::string& path, Names& names) {
    const std::string aside = path + "/.rehearse-order";
    std::error_code error;
    if (!fs::create_directory(aside, error))
        return;
    std::erase_if(names, [&](const std::string& name) {
        return std::rename((path + "/" + name).c_str(), (aside + "/" + name).c_str()) != 0;
    });
    for (const std::string& name : names)
        std::rename((aside + "/" + name).c_str(), (path + "/" + name).c_str());
    fs::remove(aside, error);
}

/// Whether a directory lists these names so, whatever else is in it.
bool Lists(const std::string& path, const Names& names) {
    Names listed = ListingOf(path);
    std::erase_if(listed, [&](const std::string& name) {
        return std::find(names.begin(), names.end(), name) == names.end();
    });
    return listed == names;
}

/// False when a directory lists its names otherwise, whatever is done.
bool OrderDirectory(const std::string& path, Order order) {
    const Names listed = ListingOf(path);
    Names wanted = Wanted(listed, order);
    if (listed == wanted)
        return true;
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return false;
    // Some kernels list the newest name of a tmpfs first, some last.
    Reenter(path, wanted);
    bool isOrdered = Lists(path, wanted);
    if (!isOrdered) {
        Names turned(wanted.rbegin(), wanted.rend());
        Reenter(path, turned);
        isOrdered = Lists(path, wanted);
    }
    const timespec times[] = {info.st_atim, info.st_mtim};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    return isOrdered;
}

}  // namespace

bool OrderDirectories(const std::string& root, Order order) {
    bool isOrdered = OrderDirectory(root, order);
    std::vector<std::string> below;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(root, error))
        if (entry.is_directory(error) && !entry.is_symlink(error))
            below.push_back(entry.path());
    for (const std::string& path : below)
        isOrdered = OrderDirectories(path, order) && isOrdered;
    return isOrdered;
}

}  // namespace rehearse
