#pragma once

#include <string>

#include "app/config_upgrader.h"

// What the two conversions into sections share.

/// Deletes a top-level entry; the value it had, empty without one.
std::string TakeTopLevelEntry(Configuration::MultiSectionFile& file, const std::string& key);

/// Goes to a section; false, and reported, when there is none.
bool GotoSectionOrReport(ConfigUpgrader& upgrader, Configuration::MultiSectionFile& file,
                         const std::string& section);

/// The same, reported also when there is one.
bool EnterSection(ConfigUpgrader& upgrader, Configuration::MultiSectionFile& file,
                  const std::string& section);
