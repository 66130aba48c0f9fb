#pragma once

#include <map>
#include <string>
#include <vector>

#include "rehearse/fleet/result.h"
#include "rehearse/fleet/runner.h"
#include "rehearse/keep/kept.h"
#include "rehearse/waivers/waivers.h"

namespace rehearse {

/// A site's result for a page and for a test suite.
struct GatheredSite {
    SiteRow row;
    std::vector<Problem> problems;         // that are not waived; kept for a test suite alone
    std::vector<std::size_t> waivers;      // whatever they took
    std::vector<std::string> differences;  // in words
};

/// Puts sites' results together, from what is kept of each, one after the other.
class Gatherer {
public:
    Gatherer(const FleetRunner& runner, const Waivers& waivers, bool keepsProblems)
        : runner_(runner), waivers_(waivers), keepsProblems_(keepsProblems) {}

    void Add(const std::string& name);

    std::vector<GatheredSite>& Sites() { return sites_; }
    /// Orders the sites, the worst first, and fills in what the fleet has of them. `rank` is of a
    /// site's class; where it stands in the lists of sites changes with it.
    FleetResult Take(Comparison comparison);
    /// The worst exit status of a site.
    int Worst() const { return worst_; }

private:
    void AddDead(GatheredSite& site);
    void WaiveIn(GatheredSite& site, KeptSummary& kept) const;
    void Collect(std::size_t number, const KeptSummary& kept);
    void CollectSteps(const std::vector<StepResult>& steps);
    std::vector<WaiverResult> WaiverResults() const;

    const FleetRunner& runner_;
    const Waivers& waivers_;
    bool keepsProblems_;
    std::vector<GatheredSite> sites_;
    std::map<std::string, FleetProblem> problems_;
    std::vector<FleetStep> steps_;
    int worst_ = 0;
};

}  // namespace rehearse
