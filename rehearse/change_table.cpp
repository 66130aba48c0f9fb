#include "rehearse/change_table.h"

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

void ChangeTable::Write(Json& result, const std::set<std::string>& extensions) const {
    std::map<std::string, std::size_t> numbers;
    for (const auto& [step, changes] : steps_)
        for (const FileChange& change : changes)
            numbers.emplace(change.path, 0);
    Json files = Json::array();
    for (auto& [path, number] : numbers) {
        number = files.size();
        files.push_back(path);
    }

    using Lines = std::vector<std::string>;
    std::map<std::tuple<std::string, std::string, std::string, std::string, Lines>, std::size_t>
        places;
    Json groups = Json::array();
    for (const auto& [step, changes] : steps_) {
        places.clear();  // a step is over when the next begins
        for (const FileChange& change : changes) {
            Difference difference = Describe(change);
            if (difference.hunks.empty() || !difference.note.empty())
                difference.hunks.insert(difference.hunks.begin(), Hunk{});
            const std::string pattern = Pattern(change.path, extensions);
            for (Hunk& hunk : difference.hunks) {
                const std::string note = hunk.lines.empty() ? difference.note : "";
                const auto [place, isNew] = places.try_emplace(
                    {pattern, difference.kind, hunk.where, note, hunk.lines}, groups.size());
                if (isNew)
                    groups.push_back({{"step", step},
                                      {"kind", difference.kind},
                                      {"pattern", pattern},
                                      {"where", hunk.where},
                                      {"lines", std::move(hunk.lines)},
                                      {"note", note},
                                      {"files", Json::array()}});
                Json& members = groups[place->second]["files"];
                // The same lines twice in one file are one change of it.
                if (members.empty() || members.back() != numbers.at(change.path))
                    members.push_back(numbers.at(change.path));
            }
        }
    }
    result["files"] = std::move(files);
    result["changes"] = std::move(groups);
}

}  // namespace rehearse
