#include "rehearse/watch/differences.h"

#include <fmt/format.h>
#include <string_view>

#include "rehearse/watch/lines.h"

namespace rehearse {
namespace {

bool IsText(const FileState& state) {
    return S_ISREG(state.info.st_mode) && state.content &&
           state.content->find('\0') == std::string::npos;
}

/// The section that a line stands in, by the lines down to it. An unnamed one is "section": its
/// place in the file would keep equal changes apart.
class Enclosing {
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
    Enclosing place;
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

}  // namespace rehearse
