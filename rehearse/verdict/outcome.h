#pragma once

#include <string>

#include "rehearse/verdict/problems.h"
#include "rehearse/verdict/result.h"

namespace rehearse {

/// What the verdict is made of.
struct Outcome {
    std::string from;  // versions as the labels say; empty when not known
    std::string to;
    bool isDue = false;
    bool hasEndedEarly = false;
    bool isStamped = false;     // with the firmware's version
    bool hasConverted = false;  // the versioned steps changed files
    std::string crash;          // how the program died; empty when it did not
};

/// The verdict without what the next start would do.
Verdict Decide(const Outcome& outcome, const std::vector<Problem>& problems,
               const FileCounts& files);

/// The verdict when some of its problems are accepted, and so many are left.
void Waive(Verdict& verdict, std::size_t left);

std::size_t CountItems(const std::vector<Problem>& problems);

/// The verdict in ten to thirty lines of text.
std::string VerdictText(const SiteResult& result);

/// Where a problem is, in a line.
std::string ItemText(const ProblemItem& item);

}  // namespace rehearse
