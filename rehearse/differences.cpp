#include "rehearse/differences.h"

#include <dtl/dtl.hpp>
#include <fmt/format.h>
#include <sstream>
#include <string_view>

namespace rehearse {
namespace {

using Lines = std::vector<std::string>;
using LineDiff = dtl::Diff<std::string, Lines>;

constexpr const char* noNewline = "\n\\ No newline at end of file";

/// A last line without a line end is another line than the same with one, as for patch.
Lines SplitLines(const std::string& text) {
    Lines lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            lines.push_back(text.substr(begin) + noNewline);
            break;
        }
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

bool IsText(const FileState& state) {
    return S_ISREG(state.info.st_mode) && state.content &&
           state.content->find('\0') == std::string::npos;
}

Lines LinesIn(const std::shared_ptr<const FileState>& state) {
    return state ? SplitLines(*state->content) : Lines();
}

/// Whether the exact comparison would take too long: its time grows with what differs. Such files
/// are told as a whole.
bool IsTooLong(const Lines& a, const Lines& b) {
    constexpr std::size_t most = 20'000;
    return a.size() + b.size() > most;
}

/// The section that a line stands in, by the lines down to it. An unnamed one is "section": its
/// place in the file would keep equal changes apart.
class Place {
public:
    void Pass(std::string_view line) {
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            line.remove_prefix(1);
        if (line.starts_with("section"))
            text_ = line.substr(0, line.find_first_of("{\r\n"));
        else if (line.starts_with("}"))
            text_.clear();
    }
    std::string Text() const { return text_.substr(0, text_.find_last_not_of(" \t") + 1); }

private:
    std::string text_;
};

std::vector<Hunk> Hunks(const Lines& before, const Lines& after) {
    LineDiff diff(before, after, true);
    diff.compose();
    std::vector<Hunk> hunks;
    Place place;
    bool isOpen = false;
    for (const auto& [line, info] : diff.getSes().getSequence()) {
        if (info.type == dtl::SES_COMMON) {
            isOpen = false;
        } else {
            if (!isOpen)
                hunks.push_back({place.Text(), {}});
            isOpen = true;
            hunks.back().lines.push_back((info.type == dtl::SES_ADD ? '+' : '-') + line);
        }
        if (info.type != dtl::SES_DELETE)
            place.Pass(line);
    }
    return hunks;
}

std::vector<Hunk> Whole(const Lines& before, const Lines& after) {
    Hunk hunk;
    for (const std::string& line : before)
        hunk.lines.push_back('-' + line);
    for (const std::string& line : after)
        hunk.lines.push_back('+' + line);
    return {hunk};
}

unsigned Permissions(const FileState& state) {
    return static_cast<unsigned>(state.info.st_mode) & 07777U;
}

std::string AttributesNote(const FileState& before, const FileState& after) {
    std::string note;
    if (Permissions(before) != Permissions(after))
        note = fmt::format("mode {:o} -> {:o}", Permissions(before), Permissions(after));
    if (before.info.st_uid != after.info.st_uid || before.info.st_gid != after.info.st_gid)
        note += fmt::format("{}owner {}:{} -> {}:{}", note.empty() ? "" : ", ", before.info.st_uid,
                            before.info.st_gid, after.info.st_uid, after.info.st_gid);
    return note;
}

Difference DescribeLink(const FileChange& change) {
    Difference difference{"link", "", {}};
    const auto target = [](const std::shared_ptr<const FileState>& state) {
        return S_ISLNK(state->info.st_mode) ? "link to " + *state->content : std::string("file");
    };
    Lines lines;
    if (change.before)
        lines.push_back("-" + target(change.before));
    if (change.after)
        lines.push_back("+" + target(change.after));
    difference.hunks.push_back({"", lines});
    return difference;
}

bool IsLink(const std::shared_ptr<const FileState>& state) {
    return state && S_ISLNK(state->info.st_mode);
}

}  // namespace

Difference Describe(const FileChange& change) {
    if (IsLink(change.before) || IsLink(change.after))
        return DescribeLink(change);
    Difference difference{
        !change.before ? "added" : (!change.after ? "removed" : "changed"), "", {}};
    const FileState& one = change.after ? *change.after : *change.before;
    if (change.before && change.after) {
        difference.note = AttributesNote(*change.before, *change.after);
        if (change.before->content && change.after->content &&
            *change.before->content == *change.after->content) {
            difference.kind = "mode";
            return difference;
        }
    }
    if (!IsText(one) || (change.before && !IsText(*change.before))) {
        difference.note += fmt::format("{}{} bytes, not text", difference.note.empty() ? "" : ", ",
                                       static_cast<long long>(one.info.st_size));
        return difference;
    }
    const Lines before = LinesIn(change.before);
    const Lines after = LinesIn(change.after);
    if (before.empty() && after.empty())
        difference.note = "empty";
    else
        difference.hunks = before.empty() || after.empty() || IsTooLong(before, after)
                               ? Whole(before, after)
                               : Hunks(before, after);
    return difference;
}

std::string UnifiedDifference(const FileChange& change) {
    const bool isText =
        (!change.before || IsText(*change.before)) && (!change.after || IsText(*change.after));
    // A tab ends a name with blanks.
    const std::string end = change.path.find(' ') == std::string::npos ? "" : "\t";
    const std::string old = change.before ? "a/" + change.path + end : "/dev/null";
    const std::string now = change.after ? "b/" + change.path + end : "/dev/null";
    if (!isText)
        return IsLink(change.before) || IsLink(change.after)
                   ? ""
                   : fmt::format("Binary files {} and {} differ\n", old, now);
    const Lines before = LinesIn(change.before);
    const Lines after = LinesIn(change.after);
    if (before == after)
        return {};
    std::ostringstream text;
    text << "--- " << old << "\n+++ " << now << "\n";
    if (before.empty() || after.empty() || IsTooLong(before, after)) {
        text << fmt::format("@@ -{},{} +{},{} @@\n", before.empty() ? 0 : 1, before.size(),
                            after.empty() ? 0 : 1, after.size());
        for (const Hunk& hunk : Whole(before, after))
            for (const std::string& line : hunk.lines)
                text << line << "\n";
        return text.str();
    }
    LineDiff diff(before, after, true);
    diff.compose();
    diff.composeUnifiedHunks();
    diff.printUnifiedFormat(text);
    return text.str();
}

}  // namespace rehearse
