#include "rehearse/problems.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fmt/format.h>
#include <initializer_list>
#include <map>
#include <string_view>

#include "rehearse/text_file.h"

namespace rehearse {

struct ProblemRule {
    const char* name;
    const char* kind;
    const char* title;
    const char* means;
    const char* action;
    /// Any of them in a line of the report makes it one of these.
    std::initializer_list<const char*> texts;
};

namespace {

// The worst first; so they are listed. A line belongs to the first rule that knows it.
const ProblemRule rules[] = {
    {"ended-early",
     "ended-early",
     "The run ended before the conversions",
     "Nothing was converted: the services would start on the old form of the files.",
     "Mend the database that is named, in the live tree or the factory's.",
     {"exiting setupmend..."}},
    {"database-lost",
     "malformed-file",
     "A main database could not be read",
     "It was replaced by the factory's: its settings are lost.",
     "Mend the file in the backup, or take an older backup, and rehearse again.",
     {"doesn't exist or corrupted, copying", "file extensiondb copying from default-conf",
      "Can't copy linedb from default-conf", "Can't copy extensiondb from default-conf"}},
    {"no-label",
     "missing-file",
     "A version label is missing",
     "All conversions ran as for the oldest version, and nothing is stamped: the next start does "
     "the same again.",
     "Write the label, with a line end, before the firmware is installed.",
     {"version of current configuration can't be checked"}},
    {"label-end",
     "malformed-file",
     "A label has no line end",
     "The last character of the version is taken for the line end: a cut version decides what is "
     "converted, or is stamped.",
     "Have the label end in a line end.",
     {}},
    {"downgrade",
     "other",
     "The firmware is older than the configuration",
     "Nothing converts a configuration back; what the newer version changed stays.",
     "Put back a backup from before the newer firmware.",
     {}},
    {"refused",
     "refused",
     "Refused by the disk",
     "What is named was not saved, read or removed; the site would keep its old form.",
     "Look at the room and the permissions of the site's file system.",
     {"Can't sync: ", "Can't read: ", "Can't remove: ", "Can't move file: ", "Can't save file: ",
      "can't put back configuration", "next start begins again from", "upgrade goes on without it",
      "can't remove recovery copy", "Can't create dir", "Can't copy files to"}},
    {"malformed",
     "malformed-file",
     "Files that cannot be read",
     "The step passed over the file, which keeps its old form; what needs it does not work.",
     "Mend the line that is named; the factory's file is the model.",
     {"Invalid file: ", "basic_string::_M_check", "sip.cfg open error!!!"}},
    {"missing",
     "missing-file",
     "Files that are missing",
     "What should have come from there is not there.",
     "Compare the factory tree with the firmware's, and the backup with the unit.",
     {"No directory for selected country", "can't open /proc/orix", "can't read /proc/orix",
      "cannot stat '", "Can't copy vocemeaildb"}},
    {"canceled",
     "canceled",
     "Updates canceled",
     "A table keeps entries that the new firmware does not expect.",
     "Look whether the site wants them; take them out by hand otherwise.",
     {"Update canceled"}},
    {"command",
     "command-failed",
     "Commands that failed",
     "What the command should have done is not done.",
     "Read what it said; rehearse with the unit's own bin/rtsync and storage.",
     {"Can't run: ", "Failed!!!!", "- Failed", "Failed: "}},
    {"next-start",
     "other",
     "The next start would change files again",
     "The upgrade does not come to rest: each start of the unit changes these files.",
     "Do not ship it before the reason is known.",
     {}},
    {"incomplete",
     "other",
     "Settings that could not be carried over",
     "What is named was not found where it was expected, and is not converted.",
     "Compare the file with the factory's; enter what is missing by hand.",
     {"section not found in addresspattern", "section does not exists",
      "There is no \"attendant\" section", "linedb doesn't exist.",
      "section 'general' doesn't exist"}},
    {"other",
     "other",
     "Other messages",
     "See the manual page's diagnostics.",
     "See the manual page's diagnostics.",
     {"ERROR", "can't ", "Can't "}},
};

const ProblemRule* RuleNamed(std::string_view name) {
    return std::find_if(std::begin(rules), std::end(rules),
                        [&](const ProblemRule& rule) { return name == rule.name; });
}

const ProblemRule* RuleOf(const std::string& line) {
    for (const ProblemRule& rule : rules)
        for (const char* text : rule.texts)
            if (line.find(text) != std::string::npos)
                return &rule;
    return nullptr;
}

// Failures that the report tells of although each such unit has them.
constexpr const char* ordinary[] = {"in old voicemaildb -> Failed", "file - Failed.",
                                    "can't make recovery copy"};

std::string Trimmed(const std::string& line) {
    const std::size_t begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos)
        return {};
    return line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
}

/// The first absolute path in a message, without the "/" at its begin, as a tree has it. Behind it
/// the message may go on: what no tree knows ends at a blank.
std::string PathIn(const std::string& text, const TreeState& before, const TreeState& after) {
    std::size_t begin = text.starts_with('/') ? 0 : text.find_first_of(" '");
    while (begin != std::string::npos && begin + 1 < text.size() && text[begin] != '/' &&
           text[begin + 1] != '/')
        begin = text.find_first_of(" '", begin + 1);
    if (begin == std::string::npos || begin + 1 >= text.size())
        return {};
    begin += text[begin] == '/' ? 1 : 2;
    std::size_t end = std::min({text.size(), text.find(" (", begin), text.find(": ", begin),
                                text.find('\'', begin), text.find(", line ", begin)});
    while (end > begin && (text[end - 1] == '.' || text[end - 1] == '/'))
        --end;
    std::string path = text.substr(begin, end - begin);
    while (!before.contains(path) && !after.contains(path) && path.find(' ') != std::string::npos)
        path.resize(path.rfind(' '));
    return path;
}

}  // namespace

void Problems::TakeReason(Item& item, const std::string& next) const {
    const std::string reason = Trimmed(next);
    const std::string path = "/" + item.file;
    if (item.file.empty() || !reason.starts_with(path))
        return;
    const std::string rest = reason.substr(path.size());
    if (rest.starts_with(", line ")) {
        item.line = std::strtol(rest.c_str() + 7, nullptr, 10);
        item.reason = rest.substr(std::min(rest.size(), rest.find(": ") + 2));
    } else if (rest.starts_with(": ")) {
        item.reason = rest.substr(2);
    }
}

/// A message on a file that this unit never had, and now has not either, is none: such as the speed
/// calls of an extension that was never set up. What the firmware should have brought is missing.
bool Problems::IsHarmless(const Item& item) const {
    if (!item.reason.empty() || item.file.empty() || item.file.starts_with("etc/default-conf/"))
        return false;
    const std::string_view rule = item.rule->name;
    const bool isAbsent = !before_.contains(item.file) && !after_.contains(item.file);
    if (rule == "malformed")
        return isAbsent;
    return rule == "refused" && isAbsent &&
           item.text.find("No such file or directory") != std::string::npos;
}

void Problems::ReadLine(const std::string& previous, const std::string& line,
                        const std::string& next, const std::string& step) {
    const ProblemRule* rule = RuleOf(line);
    if (rule == nullptr || std::any_of(std::begin(ordinary), std::end(ordinary), [&](auto* text) {
            return line.find(text) != std::string::npos &&
                   line.find("goes on without it") == std::string::npos;
        }))
        return;
    Item item{rule, Trimmed(line), PathIn(line, before_, after_), 0, "", step};
    TakeReason(item, next);
    if (std::string_view(rule->name) == "ended-early" && !previous.empty()) {
        item.text = previous;  // names the cause
        item.file = PathIn(previous, before_, after_);
        TakeReason(item, previous);
    }
    const std::string key =
        std::string(rule->name) + "\n" + (item.file.empty() ? item.text : item.file);
    if (IsHarmless(item))
        harmless_.insert(key);
    else if (known_.insert(key).second)
        items_.push_back(std::move(item));
}

void Problems::Read(const std::string& step, const std::string& report,
                    const std::string& printed) {
    for (const std::string& text : {report, printed}) {
        const std::vector<std::string> lines = LinesOf(text);
        std::string previous;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            ReadLine(previous, lines[i], i + 1 < lines.size() ? lines[i + 1] : "", step);
            if (!Trimmed(lines[i]).empty())
                previous = Trimmed(lines[i]);
        }
    }
}

void Problems::Add(const std::string& rule, const std::string& text, const std::string& file) {
    items_.push_back({RuleNamed(rule), text, file, 0, "", ""});
}

void Problems::Write(Json& result) const {
    Json groups = Json::array();
    for (const ProblemRule& rule : rules) {
        Json items = Json::array();
        for (const Item& item : items_)
            if (item.rule == &rule)
                items.push_back({{"text", item.text},
                                 {"file", item.file},
                                 {"line", item.line},
                                 {"reason", item.reason},
                                 {"step", item.step}});
        if (!items.empty())
            groups.push_back({{"kind", rule.kind},
                              {"title", rule.title},
                              {"means", rule.means},
                              {"action", rule.action},
                              {"items", std::move(items)}});
    }
    result["problems"] = std::move(groups);
    result["harmless"] = harmless_.size();
}

std::string FoldLine(const std::string& line, const std::set<std::string>& extensions) {
    std::string folded;
    for (std::size_t begin = 0; begin < line.size();) {
        std::size_t end = begin;
        while (end < line.size() && std::isalnum(static_cast<unsigned char>(line[end])) != 0)
            ++end;
        const std::string word = line.substr(begin, end - begin);
        folded += extensions.contains(word) ? "*" : word;
        if (end < line.size())
            folded += line[end];
        begin = end + 1;
    }
    return folded;
}

std::string FoldReport(const std::string& report, const std::set<std::string>& extensions) {
    struct Fold {
        std::size_t place = 0;  // of the first
        unsigned count = 0;
    };
    std::map<std::string, Fold> folds;
    std::vector<std::string> lines;
    for (std::string& line : LinesOf(report)) {
        const std::string folded = FoldLine(line, extensions);
        if (folded == line) {  // names no extension: stays where it is
            lines.push_back(std::move(line));
            continue;
        }
        Fold& fold = folds[folded];
        if (++fold.count == 1) {
            fold.place = lines.size();
            lines.push_back(std::move(line));
        } else {
            lines[fold.place] = folded;
        }
    }
    for (const auto& [folded, fold] : folds)
        if (fold.count > 1)
            lines[fold.place] += fmt::format("  ({} times)", fold.count);
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

}  // namespace rehearse
