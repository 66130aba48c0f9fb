#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "rehearse/sandbox/backup.h"
#include "rehearse/watch/change_table.h"

namespace rehearse {

using Json = nlohmann::json;

// What a rehearsal gives, as docs/rehearsal.schema.json describes it. The names of the members are
// those of the JSON.

/// One problem: the words for a reader, and where.
struct ProblemItem {
    std::string text;
    std::string file;  // below the tree
    std::size_t line = 0;
    std::string reason;
    std::string step;
    std::vector<std::string> values;  // before and after, of a setting
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ProblemItem, text, file, line, reason, step, values)

/// Problems of one kind, with what they mean for the site and what to do about them.
struct Problem {
    std::string rule;
    std::string title;
    std::string means;
    std::string action;
    std::vector<ProblemItem> items;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Problem, rule, title, means, action, items)

struct FileCounts {
    std::size_t changed = 0;
    std::size_t added = 0;
    std::size_t removed = 0;
    std::size_t Total() const { return changed + added + removed; }
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FileCounts, changed, added, removed)

/// A setting that two trees have differently, or one tree before and after something.
struct SettingDifference {
    std::string file;
    std::string section;
    std::string key;
    std::string before;
    std::string after;
    std::string note;  // such as the step and its reason
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SettingDifference, file, section, key, before, after, note)

/// What the next start would do.
struct NextStart {
    bool changesNothing = false;
    std::string text;
    std::vector<std::string> files;
    std::vector<SettingDifference> settings;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(NextStart, changesNothing, text, files, settings)

struct Verdict {
    int exitStatus = 4;
    std::string result = "not-held";
    std::string summary;
    std::string from;
    std::string to;
    bool stamped = false;
    std::string stampReason;
    FileCounts files;
    NextStart nextStart;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Verdict, exitStatus, result, summary, from, to, stamped,
                                   stampReason, files, nextStart)

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Lack, what, means)

struct StepResult {
    std::string name;
    double seconds = 0;
    std::size_t changed = 0;
    std::size_t added = 0;
    std::size_t removed = 0;
    std::string log;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(StepResult, name, seconds, changed, added, removed, log)

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(EqualChanges, step, kind, pattern, where, lines, note, files)

/// The way of one setting: where it stood and stands, with its values.
struct WayResult {
    std::string from;
    std::string before;
    std::string to;
    std::string after;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(WayResult, from, before, to, after)

/// Settings that went the same way for the same reason.
struct WayGroup {
    std::string fate;
    std::vector<std::string> steps;
    std::string reason;
    std::size_t count = 0;
    std::vector<WayResult> ways;  // the first of them
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(WayGroup, fate, steps, reason, count, ways)

struct LedgerResult {
    std::size_t settings = 0;
    std::size_t carried = 0;
    std::size_t unaccounted = 0;
    std::vector<WayGroup> groups;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(LedgerResult, settings, carried, unaccounted, groups)

struct ProgramResult {
    std::string version;
    std::string binary;  // empty for the upgrade that is built in
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ProgramResult, version, binary)

struct SiteName {
    std::string name;
    std::string tree;
    std::string configRoot;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SiteName, name, tree, configRoot)

/// A kind of verdict, for those who show it; the worst first.
struct ResultKind {
    std::string id;
    std::string label;
    std::string tone;  // good, warn or bad
    std::string sign;
    int exitStatus = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ResultKind, id, label, tone, sign, exitStatus)

/// The kinds in their order.
const std::vector<ResultKind>& ResultKinds();
const ResultKind& KindOf(const std::string& id);

struct SiteResult {
    std::string format = "setupmend-rehearsal/2";
    ProgramResult program;
    SiteName site;
    double seconds = 0;
    Verdict verdict;
    std::vector<ResultKind> kinds;
    std::vector<Lack> lacks;
    std::vector<std::string> notes;  // what limits the rehearsal
    std::vector<Problem> problems;   // the worst kind first
    std::size_t harmless = 0;
    LedgerResult ledger;
    std::vector<StepResult> steps;
    std::vector<std::string> files;
    std::vector<std::string> extensions;
    std::vector<EqualChanges> changes;
    std::string report;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SiteResult, format, program, site, seconds, verdict, kinds,
                                   lacks, notes, problems, harmless, ledger, steps, files,
                                   extensions, changes, report)

/// What is known inside of the sandbox, and handed out of it.
struct InsideResult {
    SiteResult site;
    std::vector<std::string> explained;  // lines for --explain
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(InsideResult, site, explained)

/// JSON as it is written to files: bytes that are no UTF-8 are replaced.
std::string Text(const Json& json, int indent = 1);

}  // namespace rehearse
