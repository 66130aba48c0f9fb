#pragma once

#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace rehearse {

// What the comparison of two results gives, as docs/fleet.schema.json describes it.

/// One of the two.
struct ComparedSide {
    std::string out;  // the directory of the result; empty for none
    std::string version;
    std::string binary;
    std::string firmware;
    std::string target;  // the version that was upgraded to, when all sites have one
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ComparedSide, out, version, binary, firmware, target)

/// A class of sites, for those who show it; the worst first.
struct SiteClass {
    std::string id;
    std::string label;
    std::string tone;
    std::string sign;
    std::string means;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SiteClass, id, label, tone, sign, means)

/// Two values that sites have.
struct ValuePair {
    std::string before;
    std::string after;
    std::size_t sites = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ValuePair, before, after, sites)

/// A difference between the results, told once for all sites that have it.
struct FleetDifference {
    std::string kind;    // see DifferenceKinds
    std::string change;  // came, went, emptied or changed
    std::string rule;    // of a problem
    std::string title;
    std::string file;
    std::string section;
    std::string key;
    std::string text;
    std::vector<ValuePair> values;  // the most common
    std::size_t more = 0;           // other pairs
    std::size_t count = 0;          // how often, on all sites
    std::vector<std::string> steps;
    std::string action;
    std::vector<std::size_t> sites;  // indexes
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(FleetDifference, kind, change, rule, title, file, section, key,
                                   text, values, more, count, steps, action, sites)

struct Comparison {
    ComparedSide baseline;
    ComparedSide candidate;
    int exitStatus = 0;
    std::string summary;
    std::vector<SiteClass> kinds;
    std::map<std::string, std::size_t> counts;  // of sites, by class
    std::vector<FleetDifference> differences;   // the gravest and most widespread first
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Comparison, baseline, candidate, exitStatus, summary, kinds,
                                   counts, differences)

/// The classes in their order.
const std::vector<SiteClass>& SiteClasses();

}  // namespace rehearse
