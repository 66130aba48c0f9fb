#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "app/config_upgrader.h"
#include "tests/support/input.h"

/// A copy of the sample appliance, or one of nothing but empty databases, in a directory of its
/// own, for one test to change and upgrade.
class Site {
public:
    enum class Content { Sample, Databases };
    explicit Site(Content content = Content::Sample);
    ~Site();
    Site(const Site&) = delete;

    /// Paths: of the whole unit, of the live telephony directory, of the factory's.
    std::string Path(const std::string& name) const { return root_ + "/" + name; }
    std::string Live(const std::string& name) const;
    std::string Factory(const std::string& name) const;

    void Write(const std::string& path, const std::string& text) const;
    /// The file's bytes; "(missing)" when there is none.
    std::string Read(const std::string& path) const;
    void Remove(const std::string& path) const { std::filesystem::remove_all(path); }
    void Unpack(const std::string& input) const {
        UnpackInput(TEST_DATA "/inputs/" + input, root_);
    }
    bool Exists(const std::string& path) const { return std::filesystem::exists(path); }
    /// The version label of the live tree.
    void SetLiveVersion(const std::string& version) const {
        Write(appliance.liveLabel, version + "\n");
    }

    /// Runs a command as the system would; a plain "cp -p -r FILE FILE", of which an upgrade
    /// has dozens, in this process. A shell and a cp for each took half of the tests' time.
    static int RunShell(const std::string& command);

    /// Runs the whole upgrade, destructor included, and returns the log that this run wrote.
    std::string Upgrade() const;

    /// A ready upgrader for a single step: root, version and log set, the live and factory
    /// databases open, the lists of extensions as given.
    std::unique_ptr<ConfigUpgrader> Upgrader(const std::string& version) const;
    /// What an upgrader has logged and reported so far; empties both.
    std::string TakeLog(ConfigUpgrader& upgrader) const;

    /// The live configuration and the voice data, without this test's own root in the texts: each
    /// path, with ":" and its text, " -> " and its target, or for an empty directory nothing.
    std::map<std::string, std::string> Snapshot() const;

    Appliance appliance;

private:
    std::string root_;
};
