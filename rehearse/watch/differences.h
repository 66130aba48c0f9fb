#pragma once

#include <string>
#include <vector>

#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// Lines that changed together: what went, with "-", and what came, with "+".
struct Hunk {
    std::string where;  // "section NAME" that encloses them; empty at the top level
    std::vector<std::string> lines;
};

/// What happened to a file, in the words of the page.
struct Difference {
    std::string kind;  // changed, added, removed, mode or link
    std::string note;  // what lines do not tell: "binary, 12 bytes", "mode 644 -> 600"
    std::vector<Hunk> hunks;
};

Difference Describe(const FileChange& change);

}  // namespace rehearse
