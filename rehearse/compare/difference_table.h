#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "rehearse/compare/compare_sites.h"
#include "rehearse/compare/comparison.h"
#include "rehearse/watch/pattern.h"

namespace rehearse {

/// The differences of many sites, each told once: what is alike but for the extension, a number or
/// the values is one.
class DifferenceTable {
public:
    /// Files below the site's configuration root are told as if it were at its usual place.
    void Add(std::size_t site, const std::vector<SiteDifference>& differences,
             const KeptSummary& summary);

    /// The gravest and most widespread first.
    std::vector<FleetDifference> Take();

private:
    struct Group {
        FleetDifference told;
        std::map<std::pair<std::string, std::string>, std::set<std::size_t>> values;
        std::set<std::string> steps;
    };
    std::map<std::string, Group> groups_;
};

/// A text in which all numbers are "*".
std::string WithoutNumbers(const std::string& text);

}  // namespace rehearse
