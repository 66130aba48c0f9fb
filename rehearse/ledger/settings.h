#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// One entry of a configuration file. A key may stand several times in a section.
struct Setting {
    std::string key;
    std::string value;
    unsigned occurrence = 0;
};

struct SettingsSection {
    std::string name;  // empty for the top level and for a section without a name
    bool isTop = false;
    std::vector<Setting> settings;
    std::vector<std::uint32_t> byKey =
        {};  // their places by key and occurrence; of many settings only

    const std::string* Find(const std::string& key, unsigned occurrence = 0) const;
    bool Holds(const std::string& key, const std::string& value) const;
    /// For a reader: the name or, of a section without one, what tells it from others.
    std::string Title() const;
};

/// A file's settings as the store reads them. The top level is the first section.
struct SettingsFile {
    bool isReadable = true;  // as a sectioned file; if not, its lines count as a flat one's
    std::vector<SettingsSection> sections;

    /// The first section of the name, the top level for an empty one; null when there is none.
    const SettingsSection* Section(const std::string& name) const;
};

/// The settings of a file; of none when it is absent, no regular file, or no text.
SettingsFile ReadSettings(const FileState* state);

/// For each section the one that it became, by its index; -1 for one that went. Sections without a
/// name are known by what they hold.
std::vector<std::ptrdiff_t> MatchSections(const SettingsFile& before, const SettingsFile& after);

/// What became of one setting, or where it came from. One side is missing when it came or went.
struct SettingChange {
    std::ptrdiff_t sectionBefore = -1;  // indexes into the two files
    std::ptrdiff_t sectionAfter = -1;
    std::string key;
    unsigned occurrence = 0;
    std::optional<std::string> before;
    std::optional<std::string> after;
};

std::vector<SettingChange> CompareSettings(const SettingsFile& before, const SettingsFile& after);

}  // namespace rehearse
