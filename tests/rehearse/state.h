#pragma once

#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>

#include "rehearse/watch/tree_watch.h"
#include "support/text.h"

/// A tree in memory: files by path, in the short form of support/text.h.
inline rehearse::TreeState State(const std::map<std::string, std::string>& files,
                                 unsigned mode = 0644) {
    rehearse::TreeState state;
    for (const auto& [path, text] : files) {
        rehearse::FileState file;
        file.info.st_mode = S_IFREG | mode;
        file.content = std::make_shared<std::string>(Text(text));
        state[path] = std::make_shared<const rehearse::FileState>(file);
    }
    return state;
}
