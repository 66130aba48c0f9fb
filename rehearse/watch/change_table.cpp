#include "rehearse/watch/change_table.h"

#include <algorithm>
#include <map>
#include <set>

#include "rehearse/watch/differences.h"
#include "rehearse/watch/pattern.h"

namespace rehearse {

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
void WriteStep(const std::string& step, const std::map<Alike, FileNumbers>& groups,
               std::vector<EqualChanges>& changes) {
    std::vector<const std::pair<const Alike, FileNumbers>*> sorted;
    for (const auto& group : groups)
        sorted.push_back(&group);
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
        return a->second.size() > b->second.size();
    });
    for (const auto* group : sorted)
        changes.push_back({step, group->first.kind, group->first.pattern, group->first.where,
                           group->first.lines, group->first.note, group->second});
}

}  // namespace

std::vector<std::string> ChangeTable::Files() const {
    std::set<std::string> paths;
    for (const auto& [step, changes] : steps_)
        for (const FileChange& change : changes)
            paths.insert(change.path);
    return {paths.begin(), paths.end()};
}

std::vector<EqualChanges> ChangeTable::Groups(const Extensions& extensions) const {
    const std::vector<std::string> files = Files();
    std::vector<EqualChanges> table;
    for (const auto& [step, changes] : steps_) {
        std::map<Alike, FileNumbers> groups;
        for (const FileChange& change : changes) {
            const auto place = std::lower_bound(files.begin(), files.end(), change.path);
            Collect(change, static_cast<std::size_t>(place - files.begin()),
                    Pattern(change.path, extensions), groups);
        }
        WriteStep(step, groups, table);
    }
    return table;
}

}  // namespace rehearse
