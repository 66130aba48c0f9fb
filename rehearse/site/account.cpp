#include "rehearse/site/account.h"

#include <unistd.h>

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <set>

#include "app/appliance.h"
#include "app/version.h"
#include "rehearse/ledger/secrets.h"
#include "rehearse/verdict/outcome.h"
#include "rehearse/verdict/problems.h"
#include "rehearse/watch/change_table.h"

namespace rehearse {
namespace {

FileCounts CountOf(const std::vector<FileChange>& changes) {
    FileCounts counts;
    for (const FileChange& change : changes)
        ++(!change.before ? counts.added : !change.after ? counts.removed : counts.changed);
    return counts;
}

std::string Spelled(const Place& place) {
    const std::string section = place.section.empty() ? "" : " [" + place.section + "]";
    return place.file + section + " " + place.key;
}

/// Whether a place or a value holds a text.
bool Mentions(const std::string& text, const Place& place, const std::string& value) {
    return Spelled(place).find(text) != std::string::npos || value.find(text) != std::string::npos;
}

/// Whether the gates can be compared with a label: three fields that begin with digits, and nothing
/// that a line of a file leaves at the end.
bool IsComparable(const std::string& label) {
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t fields = 1;
    bool isBegun = false;
    for (const char c : label) {
        if (c <= ' ' || (!isBegun && !isDigit(c)))
            return false;
        isBegun = c != '.';
        fields += isBegun ? 0 : 1;
    }
    return isBegun && fields == 3;
}

class Accountant {
public:
    Accountant(Runs& runs, const TrialRunner& runner, const AccountOptions& options)
        : runs_(runs),
          main_(runs.Main()),
          root_(runner.Root()),
          options_(options),
          secrets_(options.showsSecrets),
          problems_(*main_.before, *main_.after) {}

    InsideResult Make() {
        LearnSecrets();
        for (const SharedTree& state : {main_.before, main_.after})
            extensions_.merge(ExtensionsIn(*state, root_));
        if (runs_.IsShipped())
            runs_.watched.ledger->Compare(*main_.after);
        const Outcome outcome = FindOutcome();
        AddLedgerProblems();
        AddLabels(outcome);
        AddOrder();
        if (runs_.IsShipped())
            problems_.ReadReport(main_.steps.front().report);
        else
            problems_.AddFacts(main_.facts);
        const NextStart next = FindNext();
        runs_.other = {};
        runs_.next = {};
        InsideResult result;
        SiteResult& site = result.site;
        site.problems = problems_.Sorted();
        for (Problem& problem : site.problems)
            HideIn(problem);
        site.harmless = problems_.Harmless();
        site.verdict =
            Decide(outcome, site.problems, CountOf(Compare(*main_.before, *main_.after)));
        site.verdict.nextStart = next;
        site.extensions = {extensions_.begin(), extensions_.end()};
        AddSteps(site);
        AddLedger(site);
        AddReport(site);
        if (!runs_.isOrdered)
            site.notes.emplace_back(
                "the place of the copy lists directories in an order of its own, so only one order "
                "was tried; TMPDIR=/dev/shm, or any other tmpfs, allows two");
        if (!options_.explain.empty())
            result.explained = Explain();
        return result;
    }

private:
    // --- what is told of, and what is not
    // ---------------------------------------------------------

    void LearnSecrets() {
        for (const Trial* trial : {&runs_.watched, &runs_.shipped, &runs_.next, &runs_.other})
            for (const SharedTree& state : {trial->before, trial->after})
                if (state)
                    secrets_.Learn(*state);
    }

    void HideIn(Problem& problem) {
        for (ProblemItem& item : problem.items) {
            item.text = secrets_.Line(item.text);
            item.reason = secrets_.Line(item.reason);
        }
    }

    // --- the verdict
    // --------------------------------------------------------------------------------

    Outcome FindOutcome() const {
        Outcome outcome;
        const Label from = ReadLabel(Appliance().liveLabel);
        const Label to = ReadLabel(Appliance().factoryLabel);
        outcome.from = from.IsUsable() ? *from.text : "";
        outcome.to = to.IsUsable() ? *to.text : "";
        const Trial& watched = runs_.watched;
        outcome.isDue = watched.Has(Fact::Kind::Due) || watched.Has(Fact::Kind::NoLabel) ||
                        !watched.Has(Fact::Kind::UpToDate);
        outcome.isStamped = !outcome.to.empty() && main_.stamp == outcome.to;
        if (!runs_.IsShipped()) {
            outcome.hasEndedEarly = watched.Has(Fact::Kind::EndedEarly);
            for (const StepRecord& step : watched.steps)
                outcome.hasConverted =
                    outcome.hasConverted ||
                    (step.name != "stamp" && step.changed + step.added + step.removed != 0);
        } else {
            const std::string& report = main_.steps.front().report;
            outcome.hasEndedEarly = report.find("exiting setupmend...") != std::string::npos;
            outcome.hasConverted = !Compare(*main_.before, *main_.after).empty();
            for (const auto& [trial, when] :
                 {std::pair(&main_, ""),
                  {&runs_.next, ", at the next start"},
                  {&runs_.other, ", where directories list their names downwards"}})
                if (outcome.crash.empty() && !trial->crash.empty())
                    outcome.crash = trial->crash + when;
        }
        return outcome;
    }

    void AddLabels(const Outcome& outcome) {
        const auto add = [&](const char* rule, const std::string& path, const std::string& text) {
            problems_.Add(rule, {text, path.substr(1), 0, "", "", {}});
        };
        const Appliance appliance;
        for (const std::string& path : {appliance.liveLabel, appliance.factoryLabel}) {
            const Label label = ReadLabel(path);
            if (!label.text)
                add("no-label", path,
                    access(path.c_str(), F_OK) == 0 ? "it cannot be read" : "it is missing");
            else if (label.tooLong)
                add("no-label", path, "it is longer than the 50 bytes that are read");
            else if (label.text->empty())
                add("no-label", path, "it is empty");
            else if (label.last != '\n')
                add("label-end", path,
                    fmt::format("it is read as \"{}\", without the \"{}\" at its end", *label.text,
                                label.last));
            else if (outcome.isDue && !IsComparable(*label.text))
                add("label-form", path, "it is \"" + *label.text + "\"");
        }
        const auto fields = [](const std::string& version) {
            return std::count(version.begin(), version.end(), '.');
        };
        if (!outcome.from.empty() && !outcome.to.empty() &&
            fields(outcome.from) == fields(outcome.to) && IsOlderVersion(outcome.to, outcome.from))
            problems_.Add("downgrade",
                          {fmt::format("the configuration is of {}, the firmware of {}",
                                       outcome.from, outcome.to),
                           "",
                           0,
                           "",
                           "",
                           {}});
    }

    // --- settings
    // -------------------------------------------------------------------------------------

    static constexpr std::size_t mostTold = 400;  // of one rule

    ProblemItem ItemOf(const Unaccounted& one) {
        ProblemItem item;
        item.file = one.path;
        item.step = one.step;
        const auto value = [&](bool isThere, const std::string& text) {
            return isThere ? "\"" + secrets_.Value(one.place.key, text) + "\""
                           : std::string("(none)");
        };
        const std::string place =
            (one.place.section.empty() ? "" : "[" + one.place.section + "] ") + one.place.key;
        item.text = place + " " + one.text;
        const bool isSame = one.hadValue && one.hasValue && one.before == one.after;
        if (isSame && one.before.empty())
            return item;  // of a file as a whole
        item.values = {value(one.hadValue, one.before), value(one.hasValue, one.after)};
        item.text = isSame ? fmt::format("{} = {} {}", place, item.values[0], one.text)
                           : fmt::format("{}: {} -> {}", item.text, item.values[0], item.values[1]);
        return item;
    }

    /// Many settings of one file that share a fate are one item, but where an old value is lost.
    void AddFolded(const std::string& rule, const std::vector<Unaccounted>& all) {
        constexpr std::size_t many = 5;
        std::map<std::tuple<std::string, std::string, std::string>, std::vector<const Unaccounted*>>
            alike;
        for (const Unaccounted& one : all)
            alike[{one.path, one.step, one.text}].push_back(&one);
        std::size_t told = 0;
        for (const Unaccounted& one : all) {
            std::vector<const Unaccounted*>& group = alike[{one.path, one.step, one.text}];
            if (group.empty() || ++told > mostTold)
                continue;  // told below, as a number
            const bool isLost = one.hadValue && (!one.hasValue || one.before != one.after);
            if (group.size() < many || isLost) {
                problems_.Add(rule, ItemOf(one));
                continue;
            }
            ProblemItem item{fmt::format("{} settings {}, the first: {}", group.size(), one.text,
                                         ItemOf(one).text),
                             one.path,
                             0,
                             "",
                             one.step,
                             {}};
            group.clear();
            problems_.Add(rule, std::move(item));
        }
        // A waiver for the files that are told must not cover the others.
        if (told > mostTold)
            problems_.Add(
                rule, {fmt::format("{} more are not listed", told - mostTold), "", 0, "", "", {}});
    }

    void AddLedgerProblems() {
        const Ledger& ledger = *runs_.watched.ledger;
        AddFolded("unaccounted", ledger.Open());
        AddFolded("converted-again", ledger.Again());
        for (const auto& [file, text] : ledger.Exposed(*main_.after))
            problems_.Add("exposed", {text, file, 0, "", "", {}});
    }

    /// The settings that two states of the tree have differently.
    std::vector<SettingDifference> Differences(const TreeState& before, const TreeState& after) {
        std::vector<SettingDifference> differences;
        for (const FileChange& change : Compare(before, after)) {
            const SettingsFile old = ReadSettings(change.before.get());
            const SettingsFile now = ReadSettings(change.after.get());
            bool isTold = false;
            for (const SettingChange& one : CompareSettings(old, now)) {
                const SettingsFile& file = one.before ? old : now;
                const auto index =
                    static_cast<std::size_t>(one.before ? one.sectionBefore : one.sectionAfter);
                differences.push_back({change.path, file.sections[index].Title(), one.key,
                                       one.before ? secrets_.Value(one.key, *one.before) : "(none)",
                                       one.after ? secrets_.Value(one.key, *one.after) : "(none)",
                                       ""});
                isTold = true;
            }
            if (!isTold)
                differences.push_back({change.path, "", "", change.before ? "" : "(none)",
                                       change.after ? "" : "(none)", "no setting"});
        }
        return differences;
    }

    void AddOrder() {
        if (runs_.other.steps.empty())
            return;
        for (const SettingDifference& one : Differences(*main_.after, *runs_.other.after)) {
            const std::string place =
                one.key.empty() ? "the file"
                                : (one.section.empty() ? "" : "[" + one.section + "] ") + one.key;
            problems_.Add("order", {fmt::format("{}: \"{}\" when names are listed upwards, \"{}\" "
                                                "when downwards",
                                                place, one.before, one.after),
                                    one.file,
                                    0,
                                    "",
                                    "",
                                    {one.before, one.after}});
        }
    }

    NextStart FindNext() {
        NextStart next;
        const std::vector<FileChange> changes = Compare(*main_.after, *runs_.next.after);
        next.changesNothing = changes.empty();
        next.text = changes.empty() ? "The next start changes nothing."
                                    : fmt::format("The next start would change {} file{}.",
                                                  changes.size(), changes.size() == 1 ? "" : "s");
        std::map<std::string, std::string> notes;
        if (runs_.next.ledger)
            runs_.next.ledger->ForEachWay([&](const Way& way) {
                const Place& place = way.from.file.empty() ? way.to : way.from;
                notes[Spelled(place)] =
                    (way.steps.empty() ? "" : way.steps.back()) + ": " +
                    (way.reason.empty() ? "without a reason in the table" : way.reason);
            });
        for (const FileChange& change : changes)
            next.files.push_back(change.path);
        next.settings = Differences(*main_.after, *runs_.next.after);
        for (SettingDifference& one : next.settings) {
            const auto note = notes.find(Spelled({one.file, one.section, one.key}));
            if (note != notes.end())
                one.note = note->second;
            const std::string place =
                one.key.empty() ? "the file"
                                : (one.section.empty() ? "" : "[" + one.section + "] ") + one.key;
            problems_.Add("next-start",
                          {fmt::format("{}: \"{}\" -> \"{}\"{}", place, one.before, one.after,
                                       one.note.empty() ? "" : " (" + one.note + ")"),
                           one.file,
                           0,
                           "",
                           "",
                           {one.before, one.after}});
        }
        return next;
    }

    // --- steps and changes
    // ----------------------------------------------------------------------------

    void AddSteps(SiteResult& site) {
        for (const StepRecord& step : main_.steps) {
            if (runs_.IsShipped() ||
                (step.changed + step.added + step.removed == 0 && step.report.empty()))
                continue;
            std::string log = FoldReport(secrets_.Text(step.report), extensions_);
            if (!step.printed.empty())
                log += "\nprinted by commands:\n" +
                       FoldReport(secrets_.Text(step.printed), extensions_);
            site.steps.push_back(
                {step.name, step.seconds, step.changed, step.added, step.removed, log});
        }
        site.files = main_.changes.Files();
        site.changes = main_.changes.Groups();
        for (EqualChanges& change : site.changes)
            for (std::string& line : change.lines)
                line = secrets_.Line(line);
    }

    // --- the ledger
    // ------------------------------------------------------------------------------------

    void AddReport(SiteResult& site) {
        constexpr std::size_t most = 4 << 20;
        for (const StepRecord& step : main_.steps) {
            if (site.report.size() > most) {
                site.report += "...\nThe rest is left out here: --report writes it.\n";
                break;
            }
            site.report += secrets_.Text(step.report.substr(0, most));
        }
    }

    void AddLedger(SiteResult& site) {
        constexpr std::size_t mostOfGroup = 1000;
        constexpr std::size_t mostOfAll = 40'000;
        const Ledger& ledger = *runs_.watched.ledger;
        std::map<std::tuple<Fate, std::vector<std::string>, std::string>, WayGroup> groups;
        std::size_t told = 0;
        ledger.ForEachWay([&](const Way& way) {
            WayGroup& group = groups[{way.fate, way.steps, way.reason}];
            group.fate = fateNames[static_cast<std::size_t>(way.fate)];
            group.steps = way.steps;
            group.reason = way.reason;
            if (++group.count > mostOfGroup || ++told > mostOfAll)
                return;
            group.ways.push_back({way.from.file.empty() ? "" : Spelled(way.from),
                                  secrets_.Value(way.from.key, way.before),
                                  way.to.file.empty() ? "" : Spelled(way.to),
                                  secrets_.Value(way.to.key, way.after)});
        });
        site.ledger.settings = ledger.Settings();
        site.ledger.carried = ledger.Carried();
        site.ledger.unaccounted = ledger.Open().size();
        for (auto& [key, group] : groups)
            site.ledger.groups.push_back(std::move(group));
    }

    std::vector<std::string> Explain() {
        std::vector<std::string> lines;
        const std::string& text = options_.explain;
        const auto valued = [&](const Place& place, const std::string& value) {
            return Spelled(place) + " = \"" + secrets_.Value(place.key, value) + "\"";
        };
        std::set<std::string> told;
        runs_.watched.ledger->ForEachWay([&](const Way& way) {
            if (!Mentions(text, way.from, way.before) && !Mentions(text, way.to, way.after))
                return;
            std::string steps;
            for (const std::string& step : way.steps)
                steps += (steps.empty() ? "" : ", then ") + step;
            const std::string fate = fateNames[static_cast<std::size_t>(way.fate)];
            told.insert(Spelled(way.from));
            if (way.from.file.empty())
                lines.push_back(valued(way.to, way.after));
            else
                lines.push_back(valued(way.from, way.before));
            if (way.to.file.empty())
                lines.push_back("    dropped");
            else if (way.from.file.empty())
                lines.push_back("    new: " + std::string(way.fate == Fate::Factory
                                                              ? "from the factory"
                                                              : "computed"));
            else
                lines.push_back("    " + fate + (way.fate == Fate::Moved ? " to " : ": ") +
                                valued(way.to, way.after));
            lines.push_back("    by " + steps + (way.reason.empty() ? "" : ": " + way.reason));
        });
        ForEachSetting(*runs_.watched.before, [&](const Place& place, const std::string& value) {
            if (Mentions(text, place, value) && !told.contains(Spelled(place))) {
                lines.push_back(valued(place, value));
                lines.emplace_back("    carried over");
            }
        });
        for (const Unaccounted& one : runs_.watched.ledger->Open())
            if (Mentions(text, one.place, one.before) || one.after.find(text) != std::string::npos)
                lines.push_back("! " + one.path + " " + ItemOf(one).text +
                                ": no step accounts for it");
        return lines;
    }

    void ForEachSetting(const TreeState& state,
                        const std::function<void(const Place&, const std::string&)>& visit) const {
        for (auto file = state.lower_bound(root_);
             file != state.end() && file->first.starts_with(root_); ++file)
            for (const SettingsSection& section : ReadSettings(file->second.get()).sections)
                for (const Setting& setting : section.settings)
                    visit({file->first, section.Title(), setting.key}, setting.value);
    }

    Runs& runs_;
    const Trial& main_;
    std::string root_;
    const AccountOptions& options_;
    Secrets secrets_;
    Problems problems_;
    Extensions extensions_;
};

}  // namespace

InsideResult Account(Runs& runs, const TrialRunner& runner, const AccountOptions& options) {
    return Accountant(runs, runner, options).Make();
}

}  // namespace rehearse
