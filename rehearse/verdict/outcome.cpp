#include "rehearse/verdict/outcome.h"

#include <algorithm>
#include <fmt/format.h>

#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

constexpr std::size_t mostItems = 3;   // told of a group
constexpr std::size_t mostLines = 35;  // told in all

std::string ResultOf(const Outcome& outcome, std::size_t problems) {
    if (!outcome.crash.empty())
        return "crashed";
    if (!outcome.isDue)
        return "up-to-date";
    if (outcome.isStamped && !outcome.hasEndedEarly)
        return problems == 0 ? "upgraded" : "upgraded-with-problems";
    return outcome.hasConverted ? "partly-upgraded" : "not-upgraded";
}

std::string Summary(const Outcome& outcome, const std::string& result, std::size_t problems) {
    const auto known = [](const std::string& version) {
        return version.empty() ? std::string("an unknown version") : version;
    };
    const std::string rest = problems == 0 ? " without a problem"
                                           : fmt::format(", with {} problem{} to look at", problems,
                                                         problems == 1 ? "" : "s");
    if (result == "crashed")
        return "Crashed: " + outcome.crash + ".";
    if (result == "up-to-date")
        return "Up to date at " + known(outcome.to) + rest + ".";
    const std::string versions =
        fmt::format("from {} to {}", known(outcome.from), known(outcome.to));
    if (result == "not-upgraded")
        return "NOT upgraded " + versions + ": nothing was converted" + rest + ".";
    if (result == "partly-upgraded")
        return "Only PARTLY upgraded " + versions + rest + ".";
    return "Upgraded " + versions + rest + ".";
}

/// Why a due upgrade has not stamped its version: the gravest problem that can be the cause.
std::string StampReason(const std::vector<Problem>& problems) {
    for (const char* rule : {"ended-early", "no-label", "refused", "unsaved"})
        for (const Problem& problem : problems)
            if (problem.rule == rule)
                return problem.title + ": " + ItemText(problem.items.front());
    return "the run does not tell why";
}

/// A text in lines of at most 96 characters, the later ones indented.
void AddWrapped(std::vector<std::string>& lines, const std::string& head, const std::string& text) {
    constexpr std::size_t width = 96;
    std::string line = head;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (line.size() > head.size() && line.size() + 1 + word.size() > width) {
            lines.push_back(line);
            line = std::string(head.size(), ' ');
        }
        line += (line.size() > head.size() ? " " : "") + word;
        begin = end + 1;
    }
    lines.push_back(line);
}

void AddProblem(std::vector<std::string>& lines, const Problem& problem) {
    AddWrapped(lines, "  ! ",
               fmt::format("{} ({}). {}", problem.title, problem.items.size(), problem.means));
    for (std::size_t i = 0; i < std::min(problem.items.size(), mostItems); ++i)
        AddWrapped(lines, "      ", ItemText(problem.items[i]));
    if (problem.items.size() > mostItems)
        lines.push_back(fmt::format("      and {} more", problem.items.size() - mostItems));
    AddWrapped(lines, "    > ", problem.action);
}

/// The steps that changed most.
std::string StepsText(const std::vector<StepResult>& steps) {
    std::vector<std::pair<std::size_t, std::string>> byCount;
    for (const StepResult& step : steps)
        if (const std::size_t count = step.changed + step.added + step.removed; count != 0)
            byCount.emplace_back(count, step.name);
    std::stable_sort(byCount.begin(), byCount.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    constexpr std::size_t most = 6;
    std::string text;
    for (std::size_t i = 0; i < std::min(byCount.size(), most); ++i)
        text += fmt::format("{}{} ({})", i == 0 ? "" : ", ", byCount[i].second, byCount[i].first);
    return text + (byCount.size() > most ? fmt::format(" and {} more", byCount.size() - most) : "");
}

std::string SettingsText(const LedgerResult& ledger) {
    std::map<std::string, std::size_t> counts;
    for (const WayGroup& group : ledger.groups)
        counts[group.fate] += group.count;
    return fmt::format(
        "{} carried over, {} changed, {} moved, {} dropped; new: {} from the factory, {} computed",
        ledger.carried, counts["changed"], counts["moved"], counts["dropped"], counts["factory"],
        counts["computed"]);
}

void AddFacts(std::vector<std::string>& lines, const SiteResult& result) {
    const Verdict& verdict = result.verdict;
    const auto orUnknown = [](const std::string& version) {
        return version.empty() ? std::string("unknown") : version;
    };
    lines.emplace_back("");
    lines.push_back("  Version:     " + orUnknown(verdict.from) + " -> " + orUnknown(verdict.to));
    AddWrapped(lines, "  Stamped:     ", verdict.stamped ? "yes" : "no: " + verdict.stampReason);
    lines.push_back(fmt::format("  Files:       {} changed, {} added, {} removed",
                                verdict.files.changed, verdict.files.added, verdict.files.removed));
    AddWrapped(lines, "  Settings:    ", SettingsText(result.ledger));
    if (!result.program.binary.empty())
        lines.emplace_back("  Steps:       as the upgrade that is built in does them");
    else if (!result.steps.empty())
        AddWrapped(lines, "  Steps:       ", "most files by: " + StepsText(result.steps));
    AddWrapped(lines, "  Next start:  ", verdict.nextStart.text);
    lines.push_back(
        fmt::format("  Harmless:    {} messages on files that this unit never had (not listed)",
                    result.harmless));
}

}  // namespace

Verdict Decide(const Outcome& outcome, const std::vector<Problem>& problems,
               const FileCounts& files) {
    Verdict verdict;
    const std::size_t count = CountItems(problems);
    verdict.result = ResultOf(outcome, count);
    verdict.exitStatus = std::max(KindOf(verdict.result).exitStatus, count != 0 ? 1 : 0);
    verdict.summary = Summary(outcome, verdict.result, count);
    verdict.from = outcome.from;
    verdict.to = outcome.to;
    verdict.stamped = outcome.isStamped;
    verdict.stampReason = outcome.isStamped ? ""
                          : !outcome.isDue  ? "no upgrade was due"
                                            : StampReason(problems);
    verdict.files = files;
    return verdict;
}

std::size_t CountItems(const std::vector<Problem>& problems) {
    std::size_t count = 0;
    for (const Problem& problem : problems)
        count += problem.items.size();
    return count;
}

void Waive(Verdict& verdict, std::size_t left) {
    if (verdict.result == "crashed" || verdict.result == "not-held")
        return;
    if (left == 0 && verdict.result == "upgraded-with-problems")
        verdict.result = "upgraded";
    verdict.exitStatus = std::max(KindOf(verdict.result).exitStatus, left != 0 ? 1 : 0);
    Outcome outcome;
    outcome.from = verdict.from;
    outcome.to = verdict.to;
    verdict.summary = Summary(outcome, verdict.result, left);
}

std::string ItemText(const ProblemItem& item) {
    std::string place = item.file;
    if (item.line != 0)
        place += fmt::format(", line {}", item.line);
    const std::string what = item.line != 0 && !item.reason.empty() ? item.reason : item.text;
    return place.empty() ? what : what.empty() ? place : place + ": " + what;
}

std::string VerdictText(const SiteResult& result) {
    const Verdict& verdict = result.verdict;
    std::vector<std::string> lines;
    AddWrapped(lines, "", result.site.name + ": " + verdict.summary);
    const bool isHeld = verdict.result != "not-held";
    if (isHeld)
        AddFacts(lines, result);
    for (const Lack& lack : result.lacks)
        AddWrapped(lines, "  Not there:   ", lack.what + ": " + lack.means);
    for (const std::string& note : result.notes)
        AddWrapped(lines, "  Note:        ", note);
    lines.emplace_back("");
    if (isHeld && !result.problems.empty())
        lines.emplace_back("To look at, the worst first:");
    std::size_t told = 0;
    for (const Problem& problem : result.problems) {
        if (lines.size() > mostLines - 8) {
            const std::size_t more = result.problems.size() - told;
            lines.push_back(fmt::format("  and {} kind{} more: see --html or --json", more,
                                        more == 1 ? "" : "s"));
            break;
        }
        AddProblem(lines, problem);
        ++told;
    }
    std::string text;
    for (const std::string& line : lines)
        text += PrintableLine(line) + "\n";
    return text;
}

}  // namespace rehearse
