#pragma once

#include <optional>
#include <string>
#include <vector>

#include "rehearse/keep/kept.h"
#include "rehearse/waivers/waivers.h"

namespace rehearse {

/// A difference between two results of one site.
struct SiteDifference {
    std::string kind;    // verdict, problem, setting, mode, file, text or solved
    std::string change;  // came, went, emptied or changed
    std::string rule;    // of a problem, or the new verdict
    std::string title;
    std::string file;
    std::string section;
    std::string key;
    std::string before;
    std::string after;
    std::string text;  // of a problem, a verdict, a file or what is beside the settings
    std::string steps;
    std::string action;
};

struct SiteComparison {
    std::string comparedClass;  // of SiteClasses
    std::string note;
    std::vector<SiteDifference> differences;  // that no waiver accepts
    std::vector<std::size_t> waived;          // the waivers of the others
};

/// Says what a site's result is beside an earlier one. The stamp of the version that each went to
/// is no difference.
SiteComparison CompareSites(const std::string& site, const KeptResult& baseline,
                            const KeptResult& candidate, const Waivers& waivers);

/// Whether two results of the same rehearsal say the same.
bool AreAlike(const KeptResult& a, const KeptResult& b);

}  // namespace rehearse
