#pragma once

#include <functional>
#include <optional>
#include <string>

#include "recovery/mark.h"

/// What a start does with a recovery copy that it finds.
enum class Action {
    LeaveAlone,      // it is not ours
    Remove,          // the upgrade was finished
    PutBack,         // the upgrade was killed: put the tree back, begin again
    PutBackAgain,    // the same, as the second and last try of what the disk refused
    StampAndRemove,  // the run ended, and settings were changed since: they stay
    GiveUp           // what the tree is cannot be told
};

/// Decides by the copy's mark, the tree's stamp and what the tree is now, which is only asked for
/// where it counts: reading the whole tree is dear.
Action Decide(const std::optional<Mark>& mark, const std::string& stamp,
              const std::function<std::optional<TreeContent>()>& fingerprint);
