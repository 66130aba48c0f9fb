#pragma once

#include <map>
#include <string>
#include <vector>

#include "rehearse/verdict/result.h"

namespace rehearse {

// What a fleet's rehearsal gives, as docs/fleet.schema.json describes it.

struct SiteRow {
    std::string name;
    std::string result;
    int exitStatus = 4;
    std::string from;
    std::string to;
    std::size_t problems = 0;
    std::size_t harmless = 0;
    FileCounts files;
    double seconds = 0;
    std::string summary;
    std::string page;  // below OUT; empty for none
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SiteRow, name, result, exitStatus, from, to, problems, harmless,
                                   files, seconds, summary, page)

/// The same problem on many sites.
struct FleetProblem {
    std::string rule;
    std::string title;
    std::string text;
    std::string means;
    std::string action;
    std::vector<std::size_t> sites;  // indexes
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FleetProblem, rule, title, text, means, action, sites)

struct FleetStep {
    std::string name;
    std::size_t sites = 0;
    std::size_t files = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FleetStep, name, sites, files)

struct FleetResult {
    std::string format = "setupmend-fleet/2";
    ProgramResult program;
    double seconds = 0;
    std::vector<ResultKind> kinds;
    std::vector<SiteRow> sites;  // the worst first
    std::vector<FleetProblem> problems;
    std::vector<FleetStep> steps;
    std::map<std::string, std::size_t> counts;  // of sites, by result
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FleetResult, format, program, seconds, kinds, sites, problems,
                                   steps, counts)

}  // namespace rehearse
