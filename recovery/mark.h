#pragma once

#include <optional>
#include <string>

#include "recovery/tree_copy.h"

/// How far the upgrade is that left a recovery copy. The state is the name of a file in the copy:
/// renaming it needs no room on a full disk. The names end as those of temporaries, so that no
/// mirror takes them along.
enum class State {
    UnderWay,        // target: a first try began
    SecondUnderWay,  // second: a second try began, for the disk refused something on the first
    Refused,         // again: a first try ended, though the disk refused something
    Done,            // done: nothing but the stamp is left to do
    Stamped          // stamped: nothing but the removal of the copy is left
};

/// What a copy's mark says.
struct Mark {
    State state = State::UnderWay;
    std::optional<TreeContent> held;  // by the copy, when it was made
    std::optional<TreeContent> left;  // of the tree, by a run that ended
    std::string version;              // to be stamped; empty when there is none
    EntryDigests digests;             // of what is held; empty in a mark of an older build
};

/// The mark of a copy. Nothing when it has none: then it is not ours.
std::optional<Mark> ReadMark(const std::string& copy);

/// Writes a mark under the name of its state. Returns the reason in words on failure.
std::string WriteMark(const std::string& copy, const Mark& mark);

/// Writes into a copy's mark what a run left of the tree. It is written over the old bytes, which
/// works on a full disk, too. False when it can't be written.
bool MarkLeft(const std::string& copy, const std::optional<TreeContent>& left);

/// Renames the mark; false when it is not on the disk under its new name.
bool SetState(const std::string& copy, State state);
