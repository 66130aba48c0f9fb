#pragma once

#include <string>

#include "rehearse/site/trial.h"
#include "rehearse/verdict/result.h"

namespace rehearse {

/// The runs of one rehearsal.
struct Runs {
    Trial watched;           // the linked upgrade, by step
    Trial shipped;           // the program from outside, if there is one
    Trial next;              // the start behind it
    Trial other;             // with the directories in the other order
    bool isOrdered = false;  // whether there were two orders

    bool IsShipped() const { return !shipped.steps.empty(); }
    /// The one that the verdict is of.
    const Trial& Main() const { return IsShipped() ? shipped : watched; }
};

struct AccountOptions {
    std::string explain;  // what to tell the ways of; empty for nothing
    bool showsSecrets = false;
};

/// Makes the result of what was seen, and lets go of it on the way: of thousands of extensions it
/// is half a gigabyte.
InsideResult Account(Runs& runs, const TrialRunner& runner, const AccountOptions& options);

}  // namespace rehearse
