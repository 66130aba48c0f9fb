#include "rehearse/fleet/fleet.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fmt/format.h>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/fleet/backups.h"
#include "rehearse/fleet/compare.h"
#include "rehearse/fleet/gather.h"
#include "rehearse/fleet/junit.h"
#include "rehearse/fleet/runner.h"
#include "rehearse/page/page.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

constexpr std::size_t mostTold = 10;

void TellComparison(const Comparison& comparison) {
    constexpr std::size_t most = 20;
    fmt::print("Compared with {}: {}\n", comparison.baseline.out, comparison.summary);
    for (std::size_t i = 0; i < std::min(most, comparison.differences.size()); ++i) {
        const FleetDifference& one = comparison.differences[i];
        std::string steps;
        for (const std::string& step : one.steps)
            steps += (steps.empty() ? "" : "; ") + step;
        fmt::print("  {:4} sites: {}{}{}\n", one.sites.size(),
                   one.title.empty() ? "" : one.title + ": ", PrintableLine(one.text),
                   steps.empty() ? "" : " (" + PrintableLine(steps) + ")");
    }
    if (comparison.differences.size() > most)
        fmt::print("  and {} differences more: see the page\n",
                   comparison.differences.size() - most);
}

void TellSites(const FleetResult& fleet) {
    std::size_t told = 0;
    for (const SiteRow& site : fleet.sites) {
        const bool isCompared = !site.comparedClass.empty();
        if (isCompared ? site.comparedClass == "unchanged" : site.exitStatus == 0)
            continue;
        if (told++ == mostTold)
            break;
        fmt::print("  {}{}: {}\n", isCompared ? site.comparedClass + ": " : "",
                   PrintableLine(site.name),
                   PrintableLine(site.note.empty() ? site.summary : site.note));
    }
}

void Tell(const FleetResult& fleet, const std::string& out) {
    fmt::print("{} sites in {:.0f} seconds", fleet.sites.size(), fleet.seconds);
    if (fleet.reused != 0)
        fmt::print(", {} of them as they were", fleet.reused);
    const char* between = ": ";
    for (const ResultKind& kind : fleet.kinds) {
        const auto count = fleet.counts.find(kind.id);
        if (count == fleet.counts.end())
            continue;
        fmt::print("{}{} {}", between, count->second, kind.id);
        between = ", ";
    }
    fmt::print("\n");
    for (const Finding& finding : fleet.findings)
        fmt::print("! {}: {}\n  > {}\n", finding.title, PrintableLine(finding.text),
                   PrintableLine(finding.action));
    for (const std::string& note : fleet.notes)
        fmt::print("Note: {}\n", PrintableLine(note));
    const bool isCompared = !fleet.comparison.baseline.out.empty();
    if (isCompared)
        TellComparison(fleet.comparison);
    TellSites(fleet);
    if (!fleet.problems.empty() && !isCompared) {
        fmt::print("The gravest problems:\n");
        for (std::size_t i = 0; i < std::min(mostTold, fleet.problems.size()); ++i)
            fmt::print("  {:4} sites: {}: {}\n", fleet.problems[i].sites.size(),
                       fleet.problems[i].title, PrintableLine(fleet.problems[i].text));
    }
    fmt::print("{}/fleet.html\n", out);
}

/// A site whose backup is gone would be missed by nobody.
void FindMissing(FleetResult& fleet, const std::vector<std::string>& names) {
    if (names.empty())
        return;
    std::string text = fmt::format("{} site{}:", names.size(), names.size() == 1 ? "" : "s");
    for (std::size_t i = 0; i < std::min(mostTold, names.size()); ++i)
        text += (i == 0 ? " " : ", ") + names[i];
    if (names.size() > mostTold)
        text += " and others";
    fleet.findings.push_back({"only-in-baseline", "The baseline has sites that these backups lack",
                              text, "Fetch their backups, or rehearse the baseline anew."});
}

/// One fleet, in one OUT.
class Fleet {
public:
    Fleet(const FleetRequest& request, const Request& site, std::string out, bool showsProgress)
        : request_(request),
          site_(site),
          directory_(fs::canonical(request.directory)),
          waivers_(site.waivers.empty() ? Waivers() : Waivers(site.waivers, Today())),
          runner_(request, site, directory_, std::move(out)),
          gatherer_(runner_, waivers_, !request.junit.empty()),
          showsProgress_(showsProgress) {}

    /// `baseline` is another OUT, or empty.
    FleetResult Hold(const std::string& baseline) {
        // Those of an earlier run must not pass for this one's, should it not come to its end.
        for (const char* name : {"/side.json", "/fleet.json", "/fleet.html"})
            fs::remove(runner_.Out() + name);
        const auto begin = std::chrono::steady_clock::now();
        const Backups backups = FindBackups(directory_, request_.only);
        const std::size_t reused = runner_.Run(backups.names, showsProgress_);
        for (const std::string& name : backups.names)
            gatherer_.Add(name);
        WriteSide(runner_.Out(), Side(), runner_.Common());
        Comparison comparison;
        if (!baseline.empty())
            comparison = CompareFleet(runner_, gatherer_, baseline, waivers_, showsProgress_);
        FleetResult result = gatherer_.Take(std::move(comparison));
        if (!baseline.empty() && request_.only.empty())
            FindMissing(result, OnlyInBaseline(baseline, backups.names));
        result.program = {SETUPMEND_VERSION, site_.binary};
        result.firmware = {site_.firmware, runner_.Target()};
        result.kinds = ResultKinds();
        result.passedOver = backups.passedOver;
        result.reused = reused;
        if (backups.passedOver != 0)
            result.notes.push_back(fmt::format(
                "{} file{} passed over that {} no backup", backups.passedOver,
                backups.passedOver == 1 ? "" : "s", backups.passedOver == 1 ? "is" : "are"));
        result.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        return result;
    }

    void Write(const FleetResult& result) {
        const Json json = result;
        WriteFile(runner_.Out() + "/fleet.json", Text(json) + "\n");
        WriteFile(runner_.Out() + "/fleet.html", Page(json));
        if (!request_.junit.empty())
            WriteFile(request_.junit,
                      JUnit(fs::path(directory_).filename(), result, gatherer_.Sites()));
    }

    int Worst() const { return gatherer_.Worst(); }

private:
    ComparedSide Side() {
        std::string target = runner_.Target();
        for (const GatheredSite& site : gatherer_.Sites()) {
            if (!target.empty() && !site.row.to.empty() && target != site.row.to)
                return {"", SETUPMEND_VERSION, site_.binary, site_.firmware, ""};
            target = site.row.to.empty() ? target : site.row.to;
        }
        return {"", SETUPMEND_VERSION, site_.binary, site_.firmware, target};
    }

    const FleetRequest& request_;
    const Request& site_;
    std::string directory_;
    Waivers waivers_;
    FleetRunner runner_;
    Gatherer gatherer_;
    bool showsProgress_;
};

std::string OutOf(const FleetRequest& request) {
    const std::string directory = fs::canonical(request.directory);
    std::string out = fs::weakly_canonical(
        fs::absolute(request.out.empty() ? directory + "-rehearsed" : request.out));
    if ((out + "/").starts_with(directory + "/"))
        throw Failure("OUT lies among the backups: " + out);
    return out;
}

/// Rehearses what is compared with, beside the other result.
std::string HoldAgainst(const FleetRequest& request, const Request& site, const std::string& out,
                        bool showsProgress) {
    FleetRequest before = request;
    before.junit.clear();
    Request old = site;
    old.binary = request.againstBinary;
    old.expected.clear();
    old.waivers.clear();
    if (!request.againstFirmware.empty())
        old.firmware = request.againstFirmware;
    Fleet fleet(before, old, out + "/against", showsProgress);
    fleet.Write(fleet.Hold(""));
    return out + "/against";
}

}  // namespace

int RehearseFleet(const FleetRequest& request, const Request& site, bool showsProgress) {
    if (!fs::is_directory(request.directory))
        throw Failure("no such directory: " + request.directory);
    const std::string out = OutOf(request);
    std::string baseline = request.baseline;
    if (!request.againstFirmware.empty() || !request.againstBinary.empty())
        baseline = HoldAgainst(request, site, out, showsProgress);
    if (!baseline.empty() && fs::weakly_canonical(baseline) == out)
        throw Failure("the baseline is OUT itself, which would be written over: " + out);
    if (!baseline.empty())
        RequireSide(baseline);
    Fleet fleet(request, site, out, showsProgress);
    const FleetResult result = fleet.Hold(baseline);
    fleet.Write(result);
    Tell(result, out);
    if (!baseline.empty())
        return result.comparison.exitStatus;
    return result.findings.empty() ? fleet.Worst() : std::max(1, fleet.Worst());
}

}  // namespace rehearse
