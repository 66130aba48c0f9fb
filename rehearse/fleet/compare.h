#pragma once

#include <string>
#include <vector>

#include "rehearse/fleet/gather.h"

namespace rehearse {

/// Compares gathered sites with another OUT, which keeps its results, and gives each its class.
/// What is regressed or fixed is rehearsed once more before it is said. Throws Failure.
Comparison CompareFleet(FleetRunner& runner, Gatherer& gatherer, const std::string& baseline,
                        const Waivers& waivers, bool showsProgress);

/// The sites that the baseline has and `names` have not.
std::vector<std::string> OnlyInBaseline(const std::string& baseline,
                                        const std::vector<std::string>& names);

/// What a comparison has to know of an OUT, which keeps it.
void WriteSide(const std::string& out, const ComparedSide& side, const std::string& common);
/// Throws Failure when an OUT has none of it, before anything is rehearsed to be compared with it.
void RequireSide(const std::string& out);

}  // namespace rehearse
