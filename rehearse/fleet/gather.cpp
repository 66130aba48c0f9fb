#include "rehearse/fleet/gather.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <numeric>
#include <set>
#include <tuple>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/page/page.h"
#include "rehearse/verdict/outcome.h"
#include "rehearse/verdict/problems.h"
#include "rehearse/watch/pattern.h"

namespace rehearse {
namespace {

std::size_t ClassRank(const std::string& id) {
    const auto& classes = SiteClasses();
    return static_cast<std::size_t>(
        std::find_if(classes.begin(), classes.end(),
                     [&](const SiteClass& one) { return one.id == id; }) -
        classes.begin());
}

/// Indexes into the sites follow these to their new places.
void Renumber(std::vector<std::size_t>& sites, const std::vector<std::size_t>& places) {
    for (std::size_t& site : sites)
        site = places[site];
    std::sort(sites.begin(), sites.end());
}

/// The backups of one fleet are rehearsed for one firmware.
void FindTargets(FleetResult& fleet) {
    std::map<std::string, std::size_t> targets;
    for (const SiteRow& site : fleet.sites)
        if (!site.to.empty())
            ++targets[site.to];
    if (targets.size() < 2)
        return;
    std::string text;
    for (const auto& [target, count] : targets)
        text += fmt::format("{}{} on {}", text.empty() ? "" : ", ", target, count);
    fleet.findings.push_back(
        {"firmware-differs", "The backups hold different firmware", text,
         "Rehearse the release that is meant: --firmware lays it under all of them."});
}

void FindWaivers(FleetResult& fleet) {
    for (const WaiverResult& waiver : fleet.waivers) {
        std::string about;
        for (const std::string* part : {&waiver.site, &waiver.rule, &waiver.file, &waiver.setting})
            about += part->empty() ? "" : (about.empty() ? "" : ", ") + *part;
        if (waiver.isExpired)
            fleet.findings.push_back(
                {"waiver-expired", "A waiver is out of date",
                 fmt::format("{}, until {}: {}", about, waiver.until, waiver.reason),
                 "Ask " + waiver.owner + "; renew it, or take it out and mend what it is about."});
        else if (waiver.count == 0)
            fleet.notes.push_back(
                fmt::format("the waiver of {} ({}) matched nothing", about, waiver.owner));
    }
}

/// What became of a site whose process has left no result.
Verdict VerdictOf(const Job& job) {
    const bool isOther = job.exitStatus == OtherProgram::exitStatus;
    const bool isUnwritten = job.exitStatus == 0 && job.signal == 0;
    Verdict verdict;
    verdict.result = isOther || isUnwritten ? "not-held" : "crashed";
    verdict.exitStatus = KindOf(verdict.result).exitStatus;
    verdict.summary =
        isOther ? "The rehearsal could not be held: a machine has another setupmend-rehearse, or "
                  "another program to rehearse with, than this one."
        : isUnwritten
            ? "The rehearsal could not be held: it left no result. Rehearse this site alone "
              "to see why."
        : WasTooLong(job) ? "Crashed: the rehearsal was ended, for it did not end itself."
                          : fmt::format("Crashed: the rehearsal died (exit status {}, signal {}).",
                                        job.exitStatus, job.signal);
    return verdict;
}

}  // namespace

void Gatherer::Add(const std::string& name) {
    const std::size_t number = sites_.size();
    GatheredSite& site = sites_.emplace_back();
    SiteRow& row = site.row;
    row.name = name;
    row.page = "sites/" + name + ".html";
    auto kept = ReadKept(runner_.KeptOf(name));
    if (!kept) {
        AddDead(site);
        return;
    }
    row.from = kept->verdict.from;
    row.to = kept->verdict.to;
    row.files = kept->verdict.files;
    row.harmless = kept->harmless;
    row.seconds = kept->seconds;
    WaiveIn(site, *kept);
    row.result = kept->verdict.result;
    row.exitStatus = kept->verdict.exitStatus;
    row.summary = kept->verdict.summary;
    row.problems = CountItems(kept->problems);
    worst_ = std::max(worst_, row.exitStatus);
    Collect(number, *kept);
    CollectSteps(kept->steps);
    if (keepsProblems_)
        site.problems = std::move(kept->problems);
}

/// Its own process was ended before it could leave a result: that is one, too, with a page.
void Gatherer::AddDead(GatheredSite& site) {
    const Job job = runner_.JobOf(site.row.name);
    SiteResult result;
    result.program.version = SETUPMEND_VERSION;
    result.site.name = site.row.name;
    result.kinds = ResultKinds();
    result.seconds = job.seconds;
    result.verdict = VerdictOf(job);
    try {
        WriteFile(runner_.Out() + "/" + site.row.page, Page(result));
    } catch (const Failure&) {
        site.row.page.clear();  // its name is too long for one
    }
    site.row.result = result.verdict.result;
    site.row.exitStatus = result.verdict.exitStatus;
    site.row.summary = result.verdict.summary;
    site.row.seconds = job.seconds;
    worst_ = std::max(worst_, site.row.exitStatus);
}

/// A verdict can be waived as well, such as that of a backup that nobody can make again.
void Gatherer::WaiveIn(GatheredSite& site, KeptSummary& kept) const {
    site.waivers = waivers_.Take(site.row.name, kept.problems);
    site.row.waived = site.waivers.size();
    if (site.row.waived != 0)
        Waive(kept.verdict, CountItems(kept.problems));
    const std::ptrdiff_t found =
        waivers_.Find(site.row.name, {kept.verdict.result, "", "", "", ""});
    if (KindOf(kept.verdict.result).tone != "bad" || found < 0)
        return;
    site.waivers.push_back(static_cast<std::size_t>(found));
    kept.verdict.exitStatus = kept.problems.empty() ? 0 : 1;
    site.row.note = "known and waived";
}

void Gatherer::Collect(std::size_t number, const KeptSummary& kept) {
    const Extensions extensions(kept.extensions.begin(), kept.extensions.end());
    for (const Problem& group : kept.problems)
        for (const ProblemItem& item : group.items) {
            const std::string place =
                item.file.empty() ? ""
                                  : Pattern(AtUsualPlace(item.file, kept.root), extensions) + ": ";
            const std::string text =
                place + FoldLine(item.reason.empty() ? item.text : item.reason, extensions);
            FleetProblem& problem = problems_[group.title + "\n" + text];
            if (problem.sites.empty())
                problem = {group.rule, group.title, text, group.means, group.action, {}};
            if (problem.sites.empty() || problem.sites.back() != number)
                problem.sites.push_back(number);
        }
}

/// In the order of the run, which every site has alike, though not every one runs every step.
void Gatherer::CollectSteps(const std::vector<StepResult>& steps) {
    auto place = steps_.begin();
    for (const StepResult& step : steps) {
        auto known = std::find_if(steps_.begin(), steps_.end(),
                                  [&](const FleetStep& one) { return one.name == step.name; });
        if (known == steps_.end())
            known = steps_.insert(place, {step.name, 0, 0});
        place = known + 1;
        const std::size_t files = step.changed + step.added + step.removed;
        if (files == 0)
            continue;
        ++known->sites;
        known->files += files;
    }
}

std::vector<WaiverResult> Gatherer::WaiverResults() const {
    std::vector<WaiverResult> results;
    for (const Waiver& waiver : waivers_.All())
        results.push_back({waiver.site, waiver.rule, waiver.file, waiver.setting, waiver.owner,
                           waiver.reason, waiver.until, waiver.isExpired, 0, 0});
    for (const GatheredSite& site : sites_) {
        for (const std::size_t number : site.waivers)
            ++results[number].count;
        for (const std::size_t number :
             std::set<std::size_t>(site.waivers.begin(), site.waivers.end()))
            ++results[number].sites;
    }
    return results;
}

FleetResult Gatherer::Take(Comparison comparison) {
    FleetResult fleet;
    fleet.comparison = std::move(comparison);
    fleet.waivers = WaiverResults();
    std::vector<std::size_t> order(sites_.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    const auto rank = [&](std::size_t number) {
        const SiteRow& row = sites_[number].row;
        return std::tuple(ClassRank(row.comparedClass), &KindOf(row.result) - ResultKinds().data(),
                          -static_cast<long>(row.problems), row.name);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t a, std::size_t b) { return rank(a) < rank(b); });
    std::vector<std::size_t> places(sites_.size());
    std::vector<GatheredSite> ordered;
    for (const std::size_t number : order) {
        places[number] = ordered.size();
        ordered.push_back(std::move(sites_[number]));
        fleet.sites.push_back(ordered.back().row);
        ++fleet.counts[ordered.back().row.result];
    }
    sites_ = std::move(ordered);
    for (auto& [key, problem] : problems_) {
        Renumber(problem.sites, places);
        fleet.problems.push_back(std::move(problem));
    }
    std::stable_sort(fleet.problems.begin(), fleet.problems.end(),
                     [](const FleetProblem& a, const FleetProblem& b) {
                         const std::size_t rankA = RankOf(a.rule);
                         const std::size_t rankB = RankOf(b.rule);
                         return rankA != rankB ? rankA < rankB : a.sites.size() > b.sites.size();
                     });
    for (FleetDifference& difference : fleet.comparison.differences)
        Renumber(difference.sites, places);
    fleet.steps = std::move(steps_);
    FindTargets(fleet);
    FindWaivers(fleet);
    return fleet;
}

}  // namespace rehearse
