#pragma once

#include <string>
#include <vector>

#include "rehearse/verdict/result.h"

namespace rehearse {

/// A run that died or hung, as it is seen from outside.
struct Crashed {
    std::string why;
    std::string where;              // in words
    std::vector<StepResult> steps;  // that it ended
    std::string pristine;           // the tree as it was
    std::string root;               // and as it is now
    std::string scratch;
    bool showsSecrets = false;
};

/// The report of the upgrade, which lies aside when what crashed was a later start.
std::string ReportIn(const std::string& scratch);

/// Makes the result of it: the steps, the report and the changes up to there. Which step made which
/// change is not known any more, nor what became of the settings.
void TellCrash(SiteResult& result, const Crashed& crashed);

}  // namespace rehearse
