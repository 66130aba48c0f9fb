#include "rehearse/change_table.h"

#include <algorithm>

#include "rehearse/differences.h"

namespace rehearse {

std::string Pattern(const std::string& text, const std::set<std::string>& extensions) {
    std::string pattern;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('/', begin), text.size());
        const std::string component = text.substr(begin, end - begin);
        pattern += extensions.contains(component) ? "*" : component;
        if (end < text.size())
            pattern += '/';
        begin = end + 1;
    }
    return pattern;
}

void ChangeTable::Add(const std::string& step, std::vector<FileChange> changes) {
    if (!changes.empty())
        steps_.emplace_back(step, std::move(changes));
}

namespace {

/// What is alike in equal changes.
struct Alike {
    std::string pattern;
    std::string kind;
    std::string where;
    std::string note;
    std::vector<std::string> lines;
    auto operator<=>(const Alike&) const = default;
};

using FileNumbers = std::vector<std::size_t>;

/// A change of one file, each of its hunks beside those like it.
void Collect(const FileChange& change, std::size_t number, const std::string& pattern,
             std::map<Alike, FileNumbers>& groups) {
    Difference difference = Describe(change);
    if (difference.hunks.empty() || !difference.note.empty())
        difference.hunks.insert(difference.hunks.begin(), Hunk{});
    for (Hunk& hunk : difference.hunks) {
        std::string note = hunk.lines.empty() ? difference.note : "";
        FileNumbers& members = groups[{pattern, difference.kind, std::move(hunk.where),
                                       std::move(note), std::move(hunk.lines)}];
        // The same lines twice in one file are one change of it.
        if (members.empty() || members.back() != number)
            members.push_back(number);
    }
}

/// The most widespread first.
void WriteStep(const std::string& step, const std::map<Alike, FileNumbers>& groups, Json& changes) {
    std::vector<const std::pair<const Alike, FileNumbers>*> sorted;
    for (const auto& group : groups)
        sorted.push_back(&group);
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
        return a->second.size() > b->second.size();
    });
    for (const auto* group : sorted)
        changes.push_back({{"step", step},
                           {"kind", group->first.kind},
                           {"pattern", group->first.pattern},
                           {"where", group->first.where},
                           {"lines", group->first.lines},
                           {"note", group->first.note},
                           {"files", group->second}});
}

}  // namespace

void ChangeTable::Write(Json& result, const std::set<std::string>& extensions) const {
    std::map<std::string, std::size_t> numbers;
    for (const auto& [step, changes] : steps_)
        for (const FileChange& change : changes)
            numbers.emplace(change.path, 0);
    result["files"] = Json::array();
    for (auto& [path, number] : numbers) {
        number = result["files"].size();
        result["files"].push_back(path);
    }
    result["changes"] = Json::array();
    for (const auto& [step, changes] : steps_) {
        std::map<Alike, FileNumbers> groups;
        for (const FileChange& change : changes)
            Collect(change, numbers.at(change.path), Pattern(change.path, extensions), groups);
        WriteStep(step, groups, result["changes"]);
    }
}

}  // namespace rehearse
