// floor TREE: reads every file below TREE and writes it back as durably as a save does.

#include "bench/floor.h"

#include <filesystem>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    std::vector<std::filesystem::path> files;  // first, for what is written would be met again
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1]))
        if (entry.is_regular_file() && !entry.is_symlink())
            files.push_back(entry.path());
    for (const auto& path : files)
        if (!RewriteFile(path.parent_path(), path))
            return 1;
    return 0;
}
