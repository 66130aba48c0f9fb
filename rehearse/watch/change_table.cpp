#include "rehearse/watch/change_table.h"

#include <algorithm>

#include "rehearse/watch/differences.h"

namespace rehearse {

void ChangeTable::Add(const std::string& step, const std::vector<FileChange>& changes,
                      const Extensions& extensions) {
    if (changes.empty())
        return;
    std::map<Alike, FileNumbers>& groups =
        steps_.emplace_back(step, std::map<Alike, FileNumbers>()).second;
    for (const FileChange& change : changes)
        Collect(change, Pattern(change.path, extensions), groups);
}

/// A change of one file, each of its hunks beside those like it.
void ChangeTable::Collect(const FileChange& change, const std::string& pattern,
                          std::map<Alike, FileNumbers>& groups) {
    const std::size_t number = numbers_.emplace(change.path, numbers_.size()).first->second;
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

std::vector<std::string> ChangeTable::Files() const {
    std::vector<std::string> files;
    for (const auto& [path, number] : numbers_)
        files.push_back(path);
    return files;
}

std::vector<EqualChanges> ChangeTable::Groups() const {
    std::vector<std::size_t> places(numbers_.size());
    std::size_t place = 0;
    for (const auto& [path, number] : numbers_)
        places[number] = place++;
    std::vector<EqualChanges> table;
    for (const auto& [step, groups] : steps_) {
        const auto begin = static_cast<std::ptrdiff_t>(table.size());
        for (const auto& [alike, members] : groups) {
            table.push_back(
                {step, alike.kind, alike.pattern, alike.where, alike.lines, alike.note, members});
            for (std::size_t& file : table.back().files)
                file = places[file];
        }
        std::stable_sort(table.begin() + begin, table.end(),
                         [](const EqualChanges& a, const EqualChanges& b) {
                             return a.files.size() > b.files.size();
                         });
    }
    return table;
}

}  // namespace rehearse
