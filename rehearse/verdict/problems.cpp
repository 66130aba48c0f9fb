#include "rehearse/verdict/problems.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <iterator>
#include <string_view>

#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

/// A kind of problem, with what it means for the site and what to do about it.
struct Rule {
    const char* name;
    const char* title;
    const char* means;
    const char* action;
    /// Any of them in a line of a report makes it one of these.
    std::initializer_list<const char*> texts = {};
};

// The worst first; so they are listed. A line belongs to the first rule that knows it.
const Rule rules[] = {
    {"unaccounted", "Settings that no step accounts for",
     "They changed, went, came or stayed otherwise than any step means to do: settings of the site "
     "may be lost, or in a form that the firmware does not understand.",
     "Find out which change of the firmware did that, before it ships. A change that is meant "
     "belongs into the rehearsal's table."},
    {"exposed", "Passwords that more users can read",
     "Files that hold passwords were open to fewer users before.",
     "Have the step keep mode and owner; on units that were upgraded so, change the passwords."},
    {"ended-early",
     "The run ended before it was through",
     "What the steps behind it convert is in its old form, which the services may not understand.",
     "Remove the cause that is named, in the live tree or the factory's.",
     {"exiting setupmend..."}},
    {"database-lost",
     "A main database could not be read",
     "It was replaced by the factory's: its settings are lost.",
     "Mend the file in the backup, or take an older backup, and rehearse again.",
     {"doesn't exist or corrupted, copying", "file extensiondb copying from default-conf",
      "Can't copy linedb from default-conf"}},
    {"no-label",
     "A version label cannot be used",
     "Without both labels nothing is stamped, and each start upgrades again; without the live one "
     "all conversions run as for the oldest version.",
     "Write the label that is named, one line with a line end, before the firmware is installed.",
     {"version of current configuration can't be checked"}},
    {"converted-again", "Settings that are converted a second time",
     "The tree is stamped with a newer version than its label says. The conversions up to the stamp "
     "were done already, and must not be done twice.",
     "Set etc/orix-conf/config_label.txt to the stamped version (adopt-label does) before the "
     "firmware is installed."},
    {"label-end", "A label has no line end",
     "The last character of the version is taken for the line end: a cut version decides what is "
     "converted, or is stamped.",
     "Have the label end in a line end."},
    {"label-form", "A label that no gate can be compared with",
     "Versions are compared by three numbers. With a live label of other fields either all "
     "conversions run, as for the oldest version, or none does, and the tree is stamped all the "
     "same; the firmware's label is the live one of the next upgrade.",
     "Write the version as three numbers with dots between them, and nothing else in its line."},
    {"downgrade", "The firmware is older than the configuration",
     "Nothing converts a configuration back; what the newer version changed stays.",
     "Put back a backup from before the newer firmware."},
    {"order", "The result depends on the order of a directory",
     "A name stands twice in the factory tree, and which of the two wins is left to the order in "
     "which the unit's file system lists it: equal units come out different.",
     "Have the firmware hold each file once."},
    {"refused",
     "Refused by the system",
     "What is named was not read, saved or removed; the site would keep its old form, and the next "
     "start begins again.",
     "Look at the room and the permissions of the site's file system.",
     {"Can't sync: ", "Can't read: ", "Can't remove: ", "Can't move file: ",
      "can't put back configuration", "next start begins again from", "upgrade goes on without it",
      "can't remove recovery copy"}},
    {"unsaved",
     "Files that were not saved",
     "What the step would have written is not there, and what was there stays.",
     "The reason says what is in the way; a directory that is missing has to be made, or its "
     "extension taken out of the databases.",
     {"Can't save file: ", "Can't create dir", "Can't copy files to", "Can't copy vocemeaildb",
      "- Failed!!!!"}},
    {"malformed",
     "Files that cannot be read",
     "The step passed over the file, which keeps its old form; what needs it does not work.",
     "Mend the file at the line that is named; the factory's is the model.",
     {"Invalid file: ", "sip.cfg open error!!!"}},
    {"canceled",
     "Updates canceled",
     "A table keeps entries that the new firmware does not expect.",
     "Look whether the site wants them; take them out by hand otherwise.",
     {"Update canceled"}},
    {"command",
     "Commands that failed",
     "What the command should have done is not done.",
     "Read what it said.",
     {"Can't run: ", "Failed: "}},
    {"incomplete",
     "Settings that could not be carried over",
     "What is named could not be converted, and its old form may be gone.",
     "Compare the file with the factory's; enter what is missing by hand.",
     {"section not found in addresspattern", "basic_string::_M_check"}},
    {"absent",
     "What a step did not find",
     "The step did without it: what should have come from there is not there.",
     "Compare the backup with the unit, and the factory tree with the firmware's.",
     {"No directory for selected country", "\tcan't open ", "\tcan't read ",
      "section does not exists", "There is no \"attendant\" section",
      "section 'general' doesn't exist"}},
    {"next-start", "The next start would change settings again",
     "The upgrade does not come to rest: each start of the unit changes what is named.",
     "Each change is told with its step and reason under \"Next start\"; a firmware that does this "
     "on healthy sites must not ship."},
    {"other",
     "Other messages",
     "See the manual page's diagnostics.",
     "See the manual page's diagnostics.",
     {"ERROR"}},
};

const Rule* RuleOf(const std::string& line) {
    for (const Rule& rule : rules)
        for (const char* text : rule.texts)
            if (line.find(text) != std::string::npos)
                return &rule;
    return nullptr;
}

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

/// Takes the place and the reason from the line behind a message.
void TakeReason(ProblemItem& item, const std::string& next) {
    const std::string reason = Trimmed(next);
    const std::string path = "/" + item.file;
    if (item.file.empty() || !reason.starts_with(path))
        return;
    const std::string rest = reason.substr(path.size());
    if (rest.starts_with(", line ")) {
        item.line = static_cast<std::size_t>(std::strtol(rest.c_str() + 7, nullptr, 10));
        item.reason = rest.substr(std::min(rest.size(), rest.find(": ") + 2));
    } else if (rest.starts_with(": ")) {
        item.reason = rest.substr(2);
    }
}

std::string DirectoryOf(const std::string& file) {
    return file.substr(0, file.rfind('/') == std::string::npos ? 0 : file.rfind('/'));
}

const char* RuleOf(Fact::Kind kind) {
    switch (kind) {
        case Fact::Kind::EndedEarly:
            return "ended-early";
        case Fact::Kind::Restored:
            return "database-lost";
        case Fact::Kind::Unreadable:
            return "malformed";
        case Fact::Kind::Absent:
            return "absent";
        case Fact::Kind::Unsaved:
            return "unsaved";
        case Fact::Kind::Refused:
            return "refused";
        case Fact::Kind::CommandFailed:
            return "command";
        case Fact::Kind::Canceled:
            return "canceled";
        case Fact::Kind::Incomplete:
            return "incomplete";
        case Fact::Kind::UpToDate:
        case Fact::Kind::Due:
        case Fact::Kind::NoLabel:
        case Fact::Kind::Stamped:
            break;
    }
    return nullptr;
}

std::string Words(const KeptFact& fact) {
    switch (fact.kind) {
        case Fact::Kind::EndedEarly:
            return "the run ended: " + (fact.reason.empty() ? "without a reason" : fact.reason);
        case Fact::Kind::Canceled:
            return "extension " + fact.reason + " is in routing mode, so its routes stay";
        case Fact::Kind::CommandFailed:
            return fact.path + ": " + Trimmed(fact.reason);
        case Fact::Kind::Absent:
            return "not found" + (fact.reason.empty() ? "" : ": " + fact.reason);
        case Fact::Kind::Incomplete:
            return fact.reason == "basic_string::_M_check"
                       ? "a list of routes or numbers (route_msn_call, calling_ext or "
                         "outgoing_msn) is empty: the conversion of the trunks ended there"
                       : "no place was found for " + fact.reason;
        default:
            return fact.reason;
    }
}

}  // namespace

void Problems::Add(const std::string& rule, ProblemItem item) {
    items_.push_back({rule, std::move(item)});
}

void Problems::AddOnce(const std::string& rule, ProblemItem item) {
    if (known_.insert(rule + "\n" + (item.file.empty() ? item.text : item.file)).second)
        Add(rule, std::move(item));
}

bool Problems::Has(const std::string& rule) const {
    return std::any_of(items_.begin(), items_.end(),
                       [&](const Item& item) { return item.rule == rule; });
}

/// A file that this unit never had, and now has not either, is no problem: such as the speed calls
/// of an extension that was never set up. In a directory where something could not be read or
/// saved it is: it was not made because of that.
void Problems::AddFacts(const std::vector<KeptFact>& facts) {
    std::set<std::string> troubled;
    for (const KeptFact& fact : facts)
        if ((fact.kind == Fact::Kind::Unreadable && !fact.isMissing) ||
            (fact.kind == Fact::Kind::Unsaved && !IsAbsent(fact.path)))
            troubled.insert(DirectoryOf(fact.path));
    // A directory that is missing in the backup: an extension that was never set up.
    const auto hasDirectory = [&](const std::string& directory) {
        const auto inside = before_.lower_bound(directory + "/");
        return inside != before_.end() && inside->first.starts_with(directory + "/");
    };
    for (const KeptFact& fact : facts) {
        const char* rule = RuleOf(fact.kind);
        if (rule == nullptr)
            continue;
        ProblemItem item{Words(fact), fact.path, fact.line, fact.reason, fact.step, {}};
        if (fact.kind == Fact::Kind::CommandFailed)
            item.file.clear();
        const bool isNeverSetUp = fact.kind == Fact::Kind::Unsaved && IsAbsent(fact.path) &&
                                  !hasDirectory(DirectoryOf(fact.path));
        if ((fact.kind == Fact::Kind::Unreadable && fact.isMissing) || isNeverSetUp) {
            const bool isFactorys = fact.path.starts_with("etc/default-conf/");
            if (!isFactorys && IsAbsent(fact.path) && !troubled.contains(DirectoryOf(fact.path))) {
                harmless_.insert(fact.path);
                continue;
            }
            item.text = fact.isMissing ? "it is not there" : item.text;
            rule = fact.isMissing ? "absent" : rule;
        }
        AddOnce(rule, std::move(item));
    }
}

void Problems::ReadReport(const std::string& report) {
    // Failures that the report tells of although each such unit has them.
    constexpr const char* ordinary[] = {"in old voicemaildb -> Failed", "file - Failed.",
                                        "can't make recovery copy"};
    const std::vector<std::string> lines = LinesOf(report);
    std::string previous;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const Rule* rule = RuleOf(line);
        const bool isOrdinary =
            std::any_of(std::begin(ordinary), std::end(ordinary), [&](const char* text) {
                return line.find(text) != std::string::npos &&
                       line.find("goes on without it") == std::string::npos;
            });
        if (rule != nullptr && !isOrdinary) {
            const bool isEnd = std::string_view(rule->name) == "ended-early" && !previous.empty();
            ProblemItem item;
            item.text = isEnd ? previous : Trimmed(line);  // what stands before names the cause
            item.file = PathIn(item.text, before_, after_);
            TakeReason(item, i + 1 < lines.size() && !isEnd ? lines[i + 1] : previous);
            const std::string_view name = rule->name;
            const bool mayBeAbsent =
                name == "malformed" ||
                (name == "unsaved" && line.find("No such file or directory") != std::string::npos);
            if (mayBeAbsent && item.reason.empty() && !item.file.empty() &&
                !item.file.starts_with("etc/default-conf/") && IsAbsent(item.file))
                harmless_.insert(item.file);
            else
                AddOnce(rule->name, std::move(item));
        }
        if (!Trimmed(line).empty())
            previous = Trimmed(line);
    }
}

std::vector<Problem> Problems::Sorted() const {
    std::vector<Problem> sorted;
    for (const Rule& rule : rules) {
        Problem problem{rule.name, rule.title, rule.means, rule.action, {}};
        for (const Item& item : items_)
            if (item.rule == rule.name)
                problem.items.push_back(item.item);
        if (!problem.items.empty())
            sorted.push_back(std::move(problem));
    }
    return sorted;
}

std::size_t RankOf(const std::string& rule) {
    const auto* found = std::find_if(std::begin(rules), std::end(rules),
                                     [&](const Rule& one) { return rule == one.name; });
    return static_cast<std::size_t>(found - std::begin(rules));
}

std::vector<std::string> ReportTexts() {
    std::vector<std::string> texts;
    for (const Rule& rule : rules)
        texts.insert(texts.end(), rule.texts.begin(), rule.texts.end());
    return texts;
}

}  // namespace rehearse
