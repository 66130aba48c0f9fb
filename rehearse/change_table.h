#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "rehearse/tree_watch.h"

namespace rehearse {

using Json = nlohmann::ordered_json;

/// A path or line in which the directories of extensions and attendants are "*": what many of them
/// have in common.
std::string Pattern(const std::string& text, const std::set<std::string>& extensions);

/// The changes of a run, equal ones told once: the same step, the same file of whatever extension,
/// the same lines.
class ChangeTable {
public:
    /// Adds what a step changed. The step's name is empty when it is not known.
    void Add(const std::string& step, std::vector<FileChange> changes);

    /// The arrays "files" and "changes" of the result.
    void Write(Json& result, const std::set<std::string>& extensions) const;

private:
    std::vector<std::pair<std::string, std::vector<FileChange>>> steps_;
};

}  // namespace rehearse
