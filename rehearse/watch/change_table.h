#pragma once

#include <string>
#include <vector>

#include "rehearse/watch/pattern.h"
#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// Changes that are equal but for the extension.
struct EqualChanges {
    std::string step;
    std::string kind;
    std::string pattern;
    std::string where;
    std::vector<std::string> lines;
    std::string note;
    std::vector<std::size_t> files;  // indexes into the changed paths
};

/// The changes of a run, equal ones told once: the same step, the same file of whatever extension,
/// the same lines.
class ChangeTable {
public:
    /// Adds what a step changed. The step's name is empty when it is not known.
    void Add(const std::string& step, std::vector<FileChange> changes);

    /// All changed paths, sorted.
    std::vector<std::string> Files() const;
    /// The changes, the most widespread of each step first.
    std::vector<EqualChanges> Groups(const Extensions& extensions) const;

private:
    std::vector<std::pair<std::string, std::vector<FileChange>>> steps_;
};

}  // namespace rehearse
