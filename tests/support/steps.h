#pragma once

#include <gtest/gtest.h>

#include "tests/support/site.h"
#include "tests/support/text.h"

/// Steps on their own, on files that a test writes and reads in the short form.
class Steps : public testing::Test {
protected:
    explicit Steps(Site::Content content = Site::Content::Sample) : site(content) {}

    void Put(const std::string& name, const std::string& shortForm) const {
        site.Write(site.Live(name), Text(shortForm));
    }
    void PutFactory(const std::string& name, const std::string& shortForm) const {
        site.Write(site.Factory(name), Text(shortForm));
    }
    std::string Get(const std::string& name) const { return ShortForm(site.Read(site.Live(name))); }
    bool Has(const std::string& name) const { return site.Exists(site.Live(name)); }
    void Remove(const std::string& name) const { site.Remove(site.Live(name)); }
    /// The version that the sample's firmware expects.
    std::string FactoryVersion() const { return Lines(site.Read(site.appliance.factoryLabel))[0]; }
    /// Makes `upgrader` one for a tree of that version.
    ConfigUpgrader& Open(const std::string& version) {
        upgrader = site.Upgrader(version);
        upgrader->attendantExtension = "00";
        upgrader->systemLanguage = "en_IE";
        return *upgrader;
    }
    /// Runs a step; its log, which is in `log` too.
    const std::string& Run(const std::string& version, void (ConfigUpgrader::*step)()) {
        (Open(version).*step)();
        return TakeLog();
    }
    const std::string& TakeLog() { return log = site.TakeLog(*upgrader); }

    Site site;
    std::unique_ptr<ConfigUpgrader> upgrader;
    std::string log;
};
