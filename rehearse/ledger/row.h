#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "rehearse/ledger/spot.h"

namespace rehearse {

/// Where a setting that moves is expected, and with which value.
struct Target {
    std::string file;     // below the configuration root
    std::string section;  // by name or title; empty for the top level, "*" for any
    std::string key;
    std::string value;
};

enum class Effect { Becomes, Goes, Moves };

/// One thing that a step does on purpose, as the table spells it:
///
///     On("linedb", "general", "routing_prefix").Becomes(Is("R"), "the prefix is R").Below("3.0.7")
///
/// Names may hold "*", which stands for no "/"; an empty section is the top level, and "*" is any.
struct Row {
    const char* file;  // below the configuration root
    const char* section;
    const char* key;
    Effect effect = Effect::Goes;
    const char* reason = "";  // what somebody at the site is told
    std::function<bool(const Spot&)> holds;
    std::function<std::vector<Target>(const Spot&)> targets;
    std::function<bool(const Spot&)> applies;
    const char* below = "";
    bool isDue = false;

    /// It is there afterwards, and `what` says of it whether it is what the step makes of it.
    Row& Becomes(std::function<bool(const Spot&)> what, const char* why);
    /// It is not there any more.
    Row& Goes(const char* why);
    /// It is not there any more, but one of these is.
    Row& Moves(std::function<std::vector<Target>(const Spot&)> where, const char* why);
    /// The row is about those settings alone.
    Row& If(std::function<bool(const Spot&)> about);
    /// The gate.
    Row& Below(const char* version);
    /// A setting that the row is about, and that stays what it was, was forgotten.
    Row& Due();
};

Row On(const char* file, const char* section, const char* key);

/// The rows under one step's name, that the observer is told.
struct StepRows {
    const char* step;
    std::vector<Row> rows;
};

// The table, in the folders of the steps. A step without a row here says so by an empty list.
const std::vector<StepRows>& DatabaseRows();
const std::vector<StepRows>& ServiceRows();
const std::vector<StepRows>& SipNatRows();
const std::vector<StepRows>& UpdateRows();

/// All rows under a step's name; null for a name that the table does not know.
const std::vector<Row>* RowsOf(const std::string& step);

// What rows are made of.

using Holds = std::function<bool(const Spot&)>;

Holds Is(std::string value);
Holds IsOneOf(std::vector<std::string> values);
/// What the factory's file says.
Holds Factory();
/// What the function gives.
Holds Equals(std::function<std::string(const Spot&)> expected);

Holds WasOneOf(std::vector<std::string> values);
Holds IsThere();  // before the step
Holds InExtension();

/// The targets of a setting that keeps its value: `$d` in their parts is the first directory, `$s`
/// the section, `$k` the key.
std::function<std::vector<Target>(const Spot&)> To(std::vector<std::string> files,
                                                   std::string section = "",
                                                   std::string key = "$k");

}  // namespace rehearse
