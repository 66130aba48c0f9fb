#include "rehearse/compare/compare_sites.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <optional>
#include <set>

#include "rehearse/keep/keep_tree.h"
#include "rehearse/ledger/settings.h"
#include "rehearse/verdict/outcome.h"

namespace rehearse {
namespace {

/// The gravity of a verdict; problems are compared one by one, and trees by setting, not through
/// it.
std::size_t VerdictRank(const std::string& result) {
    const bool isSound = result == "upgraded-with-problems" || result == "up-to-date";
    const std::string& id = isSound ? "upgraded" : result;
    return static_cast<std::size_t>(&KindOf(id) - ResultKinds().data());
}

/// What makes two problems the same: where and what, whatever the values and versions are.
std::string IdentityOf(const Problem& problem, const ProblemItem& item, const std::string& target) {
    std::string text = item.reason.empty() ? item.text : item.reason;
    for (std::size_t at = 0; !target.empty() && (at = text.find(target, at)) != std::string::npos;)
        text.replace(at, target.size(), "*");
    std::string identity = problem.rule + "\n" + item.file + "\n";
    bool isQuoted = false;
    for (const char c : text) {
        isQuoted = isQuoted != (c == '"');
        if (!isQuoted)
            identity += c;
    }
    return identity;
}

struct FoundProblem {
    const Problem* problem;
    const ProblemItem* item;
};

std::map<std::string, FoundProblem> ProblemsOf(const KeptSummary& summary) {
    std::map<std::string, FoundProblem> found;
    for (const Problem& problem : summary.problems)
        for (const ProblemItem& item : problem.items)
            found.emplace(IdentityOf(problem, item, summary.verdict.to),
                          FoundProblem{&problem, &item});
    return found;
}

SettingsFile SettingsOf(const KeptFile& kept) {
    SettingsFile file;
    for (const KeptSection& section : kept.sections) {
        SettingsSection& one = file.sections.emplace_back();
        one.name = section.name;
        one.isTop = file.sections.size() == 1;
        std::map<std::string, unsigned> occurrences;
        for (const KeptSetting& setting : section.settings)
            one.settings.push_back({setting.key, setting.value, occurrences[setting.key]++});
    }
    if (file.sections.empty())
        file.sections.push_back({"", true, {}});
    return file;
}

/// A setting in the order of its file.
struct Line {
    std::size_t section;
    const Setting* setting;
    bool operator==(const Line& other) const {
        return section == other.section && setting->key == other.setting->key &&
               setting->value == other.setting->value;
    }
};

std::vector<Line> InOrder(const SettingsFile& file) {
    std::vector<Line> lines;
    for (std::size_t i = 0; i < file.sections.size(); ++i)
        for (const Setting& setting : file.sections[i].settings)
            lines.push_back({i, &setting});
    return lines;
}

/// Of files with the same settings in another order: the one that moved, if it is a single one.
std::optional<Line> MovedLine(std::vector<Line> old, std::vector<Line> now) {
    const auto first = std::mismatch(old.begin(), old.end(), now.begin(), now.end());
    old.erase(old.begin(), first.first);
    now.erase(now.begin(), first.second);
    while (!old.empty() && !now.empty() && old.back() == now.back()) {
        old.pop_back();
        now.pop_back();
    }
    if (old.size() < 2 || old.size() != now.size())
        return std::nullopt;
    if (old.front() == now.back() && std::equal(old.begin() + 1, old.end(), now.begin()))
        return now.back();
    if (old.back() == now.front() && std::equal(old.begin(), old.end() - 1, now.begin() + 1))
        return now.front();
    return std::nullopt;
}

class TreeComparison {
public:
    struct Side {
        const KeptTree& tree;
        const KeptSummary& summary;
    };

    TreeComparison(const Side& baseline, const Side& candidate,
                   std::vector<SiteDifference>& differences)
        : old_(baseline), now_(candidate), differences_(differences) {}

    void Compare() {
        auto before = old_.tree.files.begin();
        auto after = now_.tree.files.begin();
        const auto beforeEnd = old_.tree.files.end();
        const auto afterEnd = now_.tree.files.end();
        while (before != beforeEnd || after != afterEnd) {
            if (after == afterEnd || (before != beforeEnd && before->path < after->path))
                AddFile("went", *before++, old_);
            else if (before == beforeEnd || after->path < before->path)
                AddFile("came", *after++, now_);
            else
                CompareFiles(*before++, *after++);
        }
    }

private:
    static const std::string& StepsOf(const Side& result, const KeptSetting& setting) {
        return result.tree.steps.at(static_cast<std::size_t>(setting.made));
    }

    void AddFile(const char* change, const KeptFile& file, const Side& result) {
        SiteDifference difference;
        difference.kind = "file";
        difference.change = change;
        difference.file = file.path;
        constexpr std::size_t most = 4;  // named
        std::size_t count = 0;
        std::set<std::string> keys;
        for (const KeptSection& section : file.sections)
            for (const KeptSetting& setting : section.settings) {
                ++count;
                if (keys.size() < most)
                    keys.insert(setting.key);
                difference.steps = StepsOf(result, setting);
            }
        if (count != 0) {
            difference.text = fmt::format("{} setting{}: ", count, count == 1 ? "" : "s");
            for (const std::string& key : keys)
                difference.text += (key == *keys.begin() ? "" : ", ") + key;
            difference.text += count > keys.size() ? " and more" : "";
        }
        differences_.push_back(std::move(difference));
    }

    void CompareFiles(const KeptFile& before, const KeptFile& after) {
        if (before.mode != after.mode)
            Add("mode", before.path, before.mode, after.mode);
        if (before.digest == after.digest)
            return;
        const SettingsFile old = SettingsOf(before);
        const SettingsFile now = SettingsOf(after);
        const std::vector<SettingChange> changes = CompareSettings(old, now);
        for (const SettingChange& change : changes)
            if (!IsStamp(change))
                AddSetting(before, after, old, now, change);
        if (changes.empty())
            AddText(after, InOrder(old), InOrder(now), now);
    }

    /// Files with the same settings. Where one of them stands may tell what made it.
    void AddText(const KeptFile& after, const std::vector<Line>& before,
                 const std::vector<Line>& lines, const SettingsFile& now) {
        SiteDifference& difference = Add("text", after.path, "", "");
        if (before == lines)
            return;
        difference.text = "its settings stand in another order";
        const auto moved = MovedLine(before, lines);
        if (!moved)
            return;
        const SettingsSection& section = now.sections[moved->section];
        difference.section = section.Title();
        difference.key = moved->setting->key;
        difference.text = "stands at another place";
        difference.steps = StepsAt(now_, after, moved->section, *moved->setting);
    }

    /// The steps that made a setting what it is.
    static std::string StepsAt(const Side& result, const KeptFile& file, std::size_t section,
                               const Setting& wanted) {
        if (section >= file.sections.size())
            return {};
        unsigned occurrence = 0;
        for (const KeptSetting& setting : file.sections[section].settings)
            if (setting.key == wanted.key && occurrence++ == wanted.occurrence)
                return StepsOf(result, setting);
        return {};
    }

    SiteDifference& Add(const char* kind, const std::string& path, const std::string& before,
                        const std::string& after) {
        SiteDifference& difference = differences_.emplace_back();
        difference.kind = kind;
        difference.change = "changed";
        difference.file = path;
        difference.before = before;
        difference.after = after;
        return difference;
    }

    bool IsStamp(const SettingChange& change) const {
        const std::string& from = old_.summary.verdict.to;
        const std::string& to = now_.summary.verdict.to;
        return change.key == "current_version" && change.before && change.after && !from.empty() &&
               from != to && *change.before == from && *change.after == to;
    }

    void AddSetting(const KeptFile& before, const KeptFile& after, const SettingsFile& old,
                    const SettingsFile& now, const SettingChange& change) {
        const bool isThere = change.after.has_value();
        const auto index =
            static_cast<std::size_t>(isThere ? change.sectionAfter : change.sectionBefore);
        const SettingsSection& section = (isThere ? now : old).sections[index];
        SiteDifference difference;
        difference.kind = "setting";
        difference.change = !isThere                ? "went"
                            : !change.before        ? "came"
                            : change.after->empty() ? "emptied"
                                                    : "changed";
        difference.file = before.path;
        difference.section = section.Title();
        difference.key = change.key;
        difference.before = Readable(change.before.value_or(""));
        difference.after = Readable(change.after.value_or(""));
        if (difference.before == difference.after && change.before && change.after)
            difference.after += " (another)";
        difference.steps = StepsAt(isThere ? now_ : old_, isThere ? after : before, index,
                                   {change.key, "", change.occurrence});
        differences_.push_back(std::move(difference));
    }

    const Side old_;
    const Side now_;
    std::vector<SiteDifference>& differences_;
};

SiteDifference DifferenceOf(const char* kind, const FoundProblem& found) {
    SiteDifference difference;
    difference.kind = kind;
    difference.change = difference.kind == "solved" ? "went" : "came";
    difference.rule = found.problem->rule;
    difference.title = found.problem->title;
    difference.file = found.item->file;
    difference.text = found.item->reason.empty() ? found.item->text : found.item->reason;
    difference.steps = found.item->step;
    difference.action = found.problem->action;
    return difference;
}

/// A setting that no step accounts for is told by what became of it: the same file's differences
/// take the problem's name, and it is not told a second time.
bool IsToldBySettings(const SiteDifference& problem, std::vector<SiteDifference>& differences) {
    if (problem.rule != "unaccounted")
        return false;
    bool isTold = false;
    for (SiteDifference& one : differences) {
        const bool isTrees = one.kind == "setting" || one.kind == "mode" || one.kind == "file";
        if (!isTrees || one.file != problem.file ||
            (one.kind == "setting" && problem.text.find(one.key) == std::string::npos))
            continue;
        one.rule = problem.rule;
        one.title = problem.title;
        one.action = problem.action;
        isTold = true;
    }
    return isTold;
}

class SiteComparer {
public:
    SiteComparer(const std::string& site, const KeptResult& baseline, const KeptResult& candidate,
                 const Waivers& waivers)
        : site_(site), old_(baseline), now_(candidate), waivers_(waivers) {}

    SiteComparison Compare() {
        if (const std::string why = WhyUnknown(); !why.empty()) {
            comparison_.comparedClass =
                IsKnown({now_.summary.verdict.result, "", "", "", ""}) ? "unchanged" : "unknown";
            comparison_.note = why;
            return comparison_;
        }
        CompareVerdicts();
        // Of an upgrade that did not come to its end, all that it did not reach would be told.
        isCutShort_ = isWorse_;
        // What crashed has none.
        const bool hasNone =
            (isBetter_ && old_.packedTree.empty()) || (isVerdictWaived_ && now_.packedTree.empty());
        if (!isCutShort_ && !hasNone && !CompareTrees()) {
            comparison_.comparedClass = "unknown";
            comparison_.note = "one of the two has no upgraded tree of it that can be read";
            return comparison_;
        }
        std::erase_if(comparison_.differences, [&](const SiteDifference& one) {
            return one.kind != "verdict" &&
                   IsWaived({"changed", one.file, one.section, one.key, ""});
        });
        CompareProblems();
        comparison_.comparedClass = Class();
        return comparison_;
    }

private:
    std::string WhyUnknown() const {
        const Verdict& before = old_.summary.verdict;
        const Verdict& after = now_.summary.verdict;
        // Also where both could not: a machine that can hold none must not pass for a sound fleet.
        if (after.result == "not-held")
            return "now: " + after.summary;
        if (before.result == "not-held")
            return "in the baseline: " + before.summary;
        if (old_.summary.backup != now_.summary.backup)
            return "its backup is another one than the baseline's; rehearse the baseline again";
        return {};
    }

    /// Verdicts and problems, which are counted where the site's own are.
    bool IsKnown(const Waivable& what) const { return waivers_.Find(site_, what) >= 0; }

    bool IsWaived(const Waivable& what) {
        const std::ptrdiff_t found = waivers_.Find(site_, what);
        if (found >= 0)
            comparison_.waived.push_back(static_cast<std::size_t>(found));
        return found >= 0;
    }

    void CompareVerdicts() {
        const std::string& before = old_.summary.verdict.result;
        const std::string& after = now_.summary.verdict.result;
        isVerdictWaived_ = IsKnown({after, "", "", "", ""});
        if (VerdictRank(before) == VerdictRank(after) || isVerdictWaived_)
            return;
        isWorse_ = VerdictRank(after) < VerdictRank(before);
        isBetter_ = !isWorse_;
        SiteDifference difference;
        difference.kind = "verdict";
        difference.change = "changed";
        difference.rule = after;
        difference.before = KindOf(before).label;
        difference.after = KindOf(after).label;
        difference.text = isWorse_ ? now_.summary.verdict.summary : "";
        comparison_.differences.push_back(std::move(difference));
    }

    /// False when they cannot be compared. Alike ones, which most are, are not even unpacked.
    bool CompareTrees() {
        if (old_.packedTree == now_.packedTree)
            return true;
        const auto before = UnpackedTree(old_.packedTree);
        const auto after = UnpackedTree(now_.packedTree);
        if (before && after)
            TreeComparison({*before, old_.summary}, {*after, now_.summary}, comparison_.differences)
                .Compare();
        return before && after;
    }

    void CompareProblems() {
        const auto before = ProblemsOf(old_.summary);
        const auto after = ProblemsOf(now_.summary);
        for (const auto& [identity, found] : after) {
            if (before.contains(identity) ||
                IsKnown({found.problem->rule, found.item->file, "", "", found.item->text}))
                continue;
            isWorse_ = true;
            SiteDifference difference = DifferenceOf("problem", found);
            const bool isToldByVerdict = isCutShort_ && difference.rule == "unaccounted";
            if (!isToldByVerdict && !IsToldBySettings(difference, comparison_.differences))
                comparison_.differences.push_back(std::move(difference));
        }
        for (const auto& [identity, found] : before)
            if (!after.contains(identity)) {
                solved_.push_back(found);
                comparison_.differences.push_back(DifferenceOf("solved", found));
            }
    }

    /// Whether a difference is what became of a problem that is there no more.
    bool IsOfSolved(const SiteDifference& one) const {
        return std::any_of(solved_.begin(), solved_.end(), [&](const FoundProblem& found) {
            const std::string& text =
                found.item->reason.empty() ? found.item->text : found.item->reason;
            return one.file == found.item->file &&
                   (one.kind != "setting" || text.find(one.key) != std::string::npos);
        });
    }

    /// A site is fixed when what differs belongs to what was fixed; a change elsewhere is one.
    std::string Class() const {
        if (isWorse_)
            return "regressed";
        if (isBetter_)
            return "fixed";
        const bool isElsewhere = std::any_of(
            comparison_.differences.begin(), comparison_.differences.end(),
            [&](const SiteDifference& one) { return one.kind != "solved" && !IsOfSolved(one); });
        return isElsewhere ? "changed" : solved_.empty() ? "unchanged" : "fixed";
    }

    const std::string& site_;
    const KeptResult& old_;
    const KeptResult& now_;
    const Waivers& waivers_;
    SiteComparison comparison_;
    bool isWorse_ = false;
    bool isBetter_ = false;
    bool isCutShort_ = false;
    bool isVerdictWaived_ = false;
    std::vector<FoundProblem> solved_;  // of the baseline
};

}  // namespace

SiteComparison CompareSites(const std::string& site, const KeptResult& baseline,
                            const KeptResult& candidate, const Waivers& waivers) {
    return SiteComparer(site, baseline, candidate, waivers).Compare();
}

bool AreAlike(const KeptResult& a, const KeptResult& b) {
    return a.summary.verdict.result == b.summary.verdict.result &&
           CompareSites("", a, b, {}).comparedClass == "unchanged";
}

}  // namespace rehearse
