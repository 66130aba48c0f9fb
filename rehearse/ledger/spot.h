#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "rehearse/ledger/settings.h"

namespace rehearse {

/// What the rows of the ledger's table have to know of the run.
struct RunContext {
    std::string root;         // the configuration root below the tree, with a "/" at its end
    std::string liveVersion;  // that gates are compared with; empty opens them all
    std::string targetVersion;
    std::string stamp;     // that the tree bore before
    bool isDue = false;    // an upgrade, not an up-to-date start
    std::string linesDir;  // the factory's directory for this number of lines
    std::string language;
    std::string attendant;  // the first one
    std::set<std::string> extensions;
    std::set<std::string> attendants;
};

/// Where links of the tree lead: the same file under the name that the steps know it by.
class Aliases {
public:
    Aliases() = default;
    /// Of the links below `root`.
    Aliases(const TreeState& state, const std::string& root);
    /// The name below the configuration root of a file of the tree; nothing for one that is none of
    /// it.
    std::optional<std::string> NameOf(const std::string& path) const;
    std::string PathOf(const std::string& name) const;
    void Add(const std::string& path, const std::string& name) { names_[path] = name; }

private:
    std::string root_;
    std::map<std::string, std::string> names_;  // by the real path, of files and of directories
};

/// A tree's settings, read when they are asked for.
class TreeSettings {
public:
    TreeSettings(const TreeState& state, const Aliases& aliases)
        : state_(state), aliases_(aliases) {}

    /// Empty when there is no such file below the configuration root.
    const SettingsFile& File(const std::string& name);
    const SettingsFile& FileAt(const std::string& path);
    bool Has(const std::string& name) const { return state_.contains(aliases_.PathOf(name)); }
    /// A setting's value. An empty section is the top level.
    std::optional<std::string> Value(const std::string& name, const std::string& section,
                                     const std::string& key);
    const TreeState& State() const { return state_; }
    /// Forgets what is read of a directory below the configuration root.
    void Forget(const std::string& directory);

private:
    const TreeState& state_;
    const Aliases& aliases_;
    std::map<std::string, SettingsFile> files_;
};

/// A step, with the trees that it found and left.
struct StepContext {
    const RunContext& run;
    TreeSettings& before;
    TreeSettings& after;
};

/// One setting, as a row of the table looks at it.
struct Spot {
    const StepContext& step;
    const std::string& file;        // below the configuration root
    const SettingsSection* before;  // the section that the step found; null without one
    const SettingsSection* after;   // and left
    const std::string& key;
    unsigned occurrence;

    const std::string* Before() const { return before ? before->Find(key, occurrence) : nullptr; }
    const std::string* After() const { return after ? after->Find(key, occurrence) : nullptr; }
    std::string Was() const { return Before() ? *Before() : ""; }
    std::string Is() const { return After() ? *After() : ""; }

    std::string Section() const { return before ? before->name : after ? after->name : ""; }
    /// The first directory of the file's name: an extension's number.
    std::string Directory() const { return file.substr(0, file.find('/')); }
    std::string FileName() const { return file.substr(file.rfind('/') + 1); }
    /// Another entry of the same section, as the step found it.
    std::string Sibling(const std::string& other) const {
        const std::string* value = before ? before->Find(other) : nullptr;
        return value ? *value : "";
    }
    std::string SiblingNow(const std::string& other) const {
        const std::string* value = after ? after->Find(other) : nullptr;
        return value ? *value : "";
    }
    bool IsKnownExtension() const {
        return step.run.extensions.contains(Directory()) ||
               step.run.attendants.contains(Directory());
    }
};

/// The factory's files for a file of the unit: of the unit's size, and for an extension's the
/// templates.
std::vector<std::string> FactoryFiles(const RunContext& run, const std::string& file);

/// Whether the setting is now what one of these files says.
bool IsFromFactory(const Spot& spot);
/// What the factory says of it, when it says something.
std::optional<std::string> FactoryValue(const Spot& spot);

}  // namespace rehearse
