#pragma once

#include <map>
#include <string>
#include <vector>

#include "rehearse/compare/comparison.h"
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
    std::string page;           // below OUT; empty for none
    std::size_t waived = 0;     // problems that are accepted, and not among the others
    std::string comparedClass;  // of SiteClasses; empty when nothing was compared
    std::string note;           // why it is of its class, where that needs a word
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SiteRow, name, result, exitStatus, from, to, problems, harmless,
                                   files, seconds, summary, page, waived, comparedClass, note)

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

/// What somebody knows and accepts, and what became of it here.
struct WaiverResult {
    std::string site;  // patterns; empty for any
    std::string rule;
    std::string file;
    std::string setting;
    std::string owner;
    std::string reason;
    std::string until;
    bool isExpired = false;
    std::size_t count = 0;
    std::size_t sites = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(WaiverResult, site, rule, file, setting, owner, reason, until,
                                   isExpired, count, sites)

/// What is wrong with the fleet itself, and with no site of it.
struct Finding {
    std::string rule;
    std::string title;
    std::string text;
    std::string action;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Finding, rule, title, text, action)

struct FirmwareResult {
    std::string path;  // empty when each backup brought its own
    std::string version;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FirmwareResult, path, version)

struct FleetResult {
    std::string format = "setupmend-fleet/3";
    ProgramResult program;
    FirmwareResult firmware;
    double seconds = 0;
    std::vector<ResultKind> kinds;
    std::vector<SiteRow> sites;          // the worst first
    std::vector<FleetProblem> problems;  // the gravest and most widespread first
    std::vector<FleetStep> steps;
    std::map<std::string, std::size_t> counts;  // of sites, by result
    Comparison comparison;                      // its baseline has no name when there is none
    std::vector<WaiverResult> waivers;
    std::vector<Finding> findings;
    std::vector<std::string> notes;
    std::size_t passedOver = 0;  // files that are no backups
    std::size_t reused = 0;      // sites whose result of an earlier run still holds
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FleetResult, format, program, firmware, seconds, kinds, sites,
                                   problems, steps, counts, comparison, waivers, findings, notes,
                                   passedOver, reused)

}  // namespace rehearse
