#include "rehearse/watch/git_difference.h"

#include <fmt/format.h>
#include <map>
#include <set>
#include <tuple>

#include "rehearse/watch/lines.h"

namespace rehearse {
namespace {

using State = std::shared_ptr<const FileState>;

/// A name as git writes it: quoted when it holds what would end it.
std::string Name(const std::string& side, const std::string& path) {
    const std::string name = side + "/" + path;
    std::string quoted = "\"";
    bool isPlain = true;
    for (const char c : name) {
        const bool isControl = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        isPlain = isPlain && !isControl && c != '"' && c != '\\';
        if (isControl)
            quoted += fmt::format("\\{:03o}", static_cast<unsigned>(c));
        else
            quoted += (c == '"' || c == '\\' ? "\\" : "") + std::string(1, c);
    }
    return isPlain ? name : quoted + "\"";
}

/// Behind the name in a line of its own: a tab ends one with blanks.
std::string EndedName(const std::string& name) {
    return name.find(' ') == std::string::npos || name.front() == '"' ? name : name + "\t";
}

unsigned Mode(const FileState& state) {
    return S_ISLNK(state.info.st_mode) ? 0120000U : state.info.st_mode & 0177777U;
}

bool IsSameKind(const FileState& a, const FileState& b) {
    return (a.info.st_mode & S_IFMT) == (b.info.st_mode & S_IFMT);
}

void AddWhole(std::ostream& text, char sign, const Lines& lines) {
    for (const std::string& line : lines)
        text << sign << line << "\n";
}

/// The lines that differ, below their heads.
void AddLines(std::ostream& text, const State& before, const State& after, const std::string& old,
              const std::string& now) {
    const Lines from = LinesIn(before);
    const Lines to = LinesIn(after);
    if (from == to)
        return;
    text << "--- " << (before ? EndedName(old) : "/dev/null") << "\n+++ "
         << (after ? EndedName(now) : "/dev/null") << "\n";
    if (from.empty() || to.empty() || IsTooLong(from, to)) {
        text << fmt::format("@@ -{},{} +{},{} @@\n", from.empty() ? 0 : 1, from.size(),
                            to.empty() ? 0 : 1, to.size());
        AddWhole(text, '-', from);
        AddWhole(text, '+', to);
        return;
    }
    LineDiff diff(from, to, true);
    diff.compose();
    diff.composeUnifiedHunks();
    diff.printUnifiedFormat(text);
}

void AddChange(std::ostream& text, const std::string& path, const State& before,
               const State& after) {
    const std::string old = Name("a", path);
    const std::string now = Name("b", path);
    text << "diff --git " << old << " " << now << "\n";
    if (!before)
        text << fmt::format("new file mode {:o}\n", Mode(*after));
    else if (!after)
        text << fmt::format("deleted file mode {:o}\n", Mode(*before));
    else if (Mode(*before) != Mode(*after))
        text << fmt::format("old mode {:o}\nnew mode {:o}\n", Mode(*before), Mode(*after));
    const bool isTold = (!before || before->content) && (!after || after->content);
    if (isTold)
        AddLines(text, before, after, old, now);
    else
        text << fmt::format("Binary files {} and {} differ\n", before ? old : "/dev/null",
                            after ? now : "/dev/null");
}

using Inode = std::tuple<dev_t, ino_t, off_t>;

Inode InodeOf(const FileState& state) {
    return {state.info.st_dev, state.info.st_ino, state.info.st_size};
}

}  // namespace

void WriteGitDifference(const std::vector<FileChange>& changes, std::ostream& text) {
    std::map<Inode, const FileChange*> gone;
    for (const FileChange& change : changes)
        if (change.before && !change.after && !change.before->content)
            gone.emplace(InodeOf(*change.before), &change);
    std::set<const FileChange*> renamed;
    for (const FileChange& change : changes) {
        if (change.before || !change.after || change.after->content)
            continue;
        const auto from = gone.find(InodeOf(*change.after));
        if (from == gone.end() || !renamed.insert(from->second).second)
            continue;
        renamed.insert(&change);
        const std::string old = Name("a", from->second->path);
        const std::string now = Name("b", change.path);
        text << "diff --git " << old << " " << now << "\nsimilarity index 100%\nrename from "
             << Name("", from->second->path).erase(0, 1) << "\nrename to "
             << Name("", change.path).erase(0, 1) << "\n";
    }
    for (const FileChange& change : changes) {
        if (renamed.contains(&change))
            continue;
        if (change.before && change.after && !IsSameKind(*change.before, *change.after)) {
            AddChange(text, change.path, change.before, nullptr);
            AddChange(text, change.path, nullptr, change.after);
        } else {
            AddChange(text, change.path, change.before, change.after);
        }
    }
}

}  // namespace rehearse
