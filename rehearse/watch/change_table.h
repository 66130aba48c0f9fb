#pragma once

#include <map>
#include <string>
#include <tuple>
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
/// the same lines. It keeps what it tells and not the files.
class ChangeTable {
public:
    /// Adds what a step changed. The step's name is empty when it is not known.
    void Add(const std::string& step, const std::vector<FileChange>& changes,
             const Extensions& extensions);

    /// All changed paths, sorted.
    std::vector<std::string> Files() const;
    /// The changes, the most widespread of each step first.
    std::vector<EqualChanges> Groups() const;

private:
    /// What is alike in equal changes.
    struct Alike {
        std::string pattern;
        std::string kind;
        std::string where;
        std::string note;
        std::vector<std::string> lines;
        bool operator<(const Alike& other) const {
            return std::tie(pattern, kind, where, note, lines) <
                   std::tie(other.pattern, other.kind, other.where, other.note, other.lines);
        }
    };
    using FileNumbers = std::vector<std::size_t>;

    void Collect(const FileChange& change, const std::string& pattern,
                 std::map<Alike, FileNumbers>& groups);

    std::map<std::string, std::size_t> numbers_;  // of the paths, as they were met
    std::vector<std::pair<std::string, std::map<Alike, FileNumbers>>> steps_;
};

}  // namespace rehearse
