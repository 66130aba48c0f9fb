#include <filesystem>
#include <gtest/gtest.h>

#include "directory.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/fleet/backups.h"
#include "rehearse/fleet/junit.h"
#include "rehearse/site/own_settings.h"
#include "rehearse/waivers/waivers.h"

namespace fs = std::filesystem;

namespace {

std::string WaiverText(const std::string& patterns) {
    return "[[waiver]]\n" + patterns + "\nowner='N. Tighe'\nreason='known'\nuntil=2027-03-31\n";
}

rehearse::Waivers Read(const std::string& text, const std::string& today = "2027-03-31") {
    const Directory directory;
    return {directory.Write("waivers.toml", text), today};
}

std::string Refusal(const std::function<void()>& work) {
    try {
        work();
    } catch (const rehearse::Failure& failure) {
        return failure.what();
    }
    return "";
}

}  // namespace

TEST(Waivers, MatchByAllTheirPatterns) {
    const rehearse::Waivable problem{"canceled", "etc/t/localrouttabledb", "", "",
                                     "[general] x changed: \"fax\" -> \"y\""};
    const rehearse::Waivable setting{"changed", "etc/t/22/servicesdb", "fax", "rate", ""};
    const struct {
        const char* patterns;
        bool takesProblem, takesSetting;
    } cases[] = {
        {"rule='canceled'", true, false},
        {"file='*/localrouttabledb'", true, false},
        {"file='localrouttabledb'", false, false},
        {"site='site-00*'", true, true},
        {"site='other'\nrule='canceled'", false, false},
        {"setting='rate'", false, true},
        {"setting='fax rate'", false, true},
        {"setting='fax'", false, false},  // a value, and a section
        {"setting='general x'", true, false},
        {"rule='changed'\nsetting='r?te'\nfile='*/servicesdb'", false, true},
    };
    for (const auto& one : cases) {
        const rehearse::Waivers waivers = Read(WaiverText(one.patterns));
        EXPECT_EQ(waivers.Find("site-0042", problem) == 0, one.takesProblem) << one.patterns;
        EXPECT_EQ(waivers.Find("site-0042", setting) == 0, one.takesSetting) << one.patterns;
    }
    const rehearse::Waivers late = Read(WaiverText("rule='*'"), "2027-04-01");
    EXPECT_TRUE(late.All()[0].isExpired);
    EXPECT_EQ(late.Find("s", problem), -1);
}

TEST(Waivers, TakeItemsAndLeaveTheOthers) {
    std::vector<rehearse::Problem> problems = {
        {"canceled", "t", "m", "a", {{"x", "f", 0, "", "", {}}, {"y", "g", 0, "", "", {}}}},
        {"order", "t", "m", "a", {{"z", "f", 0, "", "", {}}}}};
    const auto waivers = Read(WaiverText("rule='nothing'") + WaiverText("file='f'"));
    EXPECT_EQ(waivers.Take("s", problems), (std::vector<std::size_t>{1, 1}));
    ASSERT_EQ(problems.size(), 1U);
    EXPECT_EQ(problems[0].items.at(0).text, "y");
}

// A slip in the file must not waive more than was meant, or nothing without a word.
TEST(Waivers, SlipsAreRefused) {
    const struct {
        std::string text;
        const char* why;
    } cases[] = {
        {WaiverText(""), "waiver 1: it has no pattern"},
        {WaiverText("rule='a'") + WaiverText("rul='b'"), "waiver 2: \"rul\" is not understood"},
        {"[[waiver]]\nrule='a'\nowner='o'\nreason='r'\n", "a day"},
        {"[[waiver]]\nrule='a'\nowner='o'\nreason='r'\nuntil='2027-03-31'\n", "\"until\""},
        {"[waiver]\nrule='a'\n", "[[waiver]] alone"},
        {"[[waiver]]\nrule=\n", "line 2"},
        {"", "empty"},
    };
    for (const auto& one : cases)
        EXPECT_NE(Refusal([&] { Read(one.text); }).find(one.why), std::string::npos) << one.why;
}

TEST(Fleet, OwnSettingsOfASite) {
    const Directory directory;
    const auto own = rehearse::ReadOwnSettings(
        directory.Write("own", "config-root='/data/pbx'\ntime-limit=20\norix-path='/data/'\n"));
    EXPECT_EQ(own.configRoot + own.orixPath, "/data/pbx/data/");
    EXPECT_EQ(own.secondsAtMost, 20U);
    for (const char* slip : {"config_root='/x'", "time-limit='20'", "time-limit=-1", "x"})
        EXPECT_NE(Refusal([&] { rehearse::ReadOwnSettings(directory.Write("own", slip)); }), "")
            << slip;
}

TEST(Fleet, WhatIsABackup) {
    const Directory place;
    const fs::path directory = place.path;
    fs::create_directories(directory / "site");
    fs::create_directory_symlink("nowhere", directory / "dangling");
    const auto write = [&](const char* name, const std::string& text) {
        rehearse::WriteFile(directory / name, text);
    };
    write("cut.tar.zst", "");
    write("packed", "\x1f\x8b and more");
    write("README", "none");
    write("SHA256SUMS", std::string(600, 'a'));
    write("site.setupmend-site.toml", "");
    const auto found = rehearse::FindBackups(directory, {});
    EXPECT_EQ(found.names, (std::vector<std::string>{"cut.tar.zst", "dangling", "packed", "site"}));
    EXPECT_EQ(found.passedOver, 2U);
    EXPECT_EQ(rehearse::FindBackups(directory, {"s*", "cut*"}).names.size(), 2U);
    EXPECT_NE(Refusal([&] { rehearse::FindBackups(directory, {"x"}); }), "");
}

TEST(Fleet, ATestSuiteForCi) {
    rehearse::FleetResult fleet;
    fleet.waivers.push_back(
        {"", "canceled", "", "", "N. Tighe", "known", "2027-03-31", false, 1, 1});
    std::vector<rehearse::GatheredSite> sites(4);
    const struct {
        const char* result;
        int exitStatus;
    } rows[] = {{"upgraded", 0}, {"upgraded-with-problems", 1}, {"not-held", 4}, {"upgraded", 0}};
    for (std::size_t i = 0; i < sites.size(); ++i) {
        sites[i].row.name = "site-" + std::to_string(i);
        sites[i].row.result = rows[i].result;
        sites[i].row.exitStatus = rows[i].exitStatus;
    }
    sites[1].problems.push_back(
        {"order", "A <title>", "means", "do that", {{"text\x1b[2J", "etc/f", 0, "", "", {}}}});
    sites[3].waivers = {0};
    const std::string text = JUnit("fleet", fleet, sites);
    const std::vector<std::string> parts = {
        R"(tests="4" failures="1" errors="1" skipped="1")",
        R"(name="site-0" classname="fleet")",
        R"(<failure message="A &lt;title>: " type="order">)",
        "etc/f: text\\u001b[2J",
        "&gt; do that",
        R"(<error message="" type="not-held">)",
        R"-(<skipped message="known (N. Tighe, until 2027-03-31)" />)-"};
    for (const std::string& part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    // With a comparison, that alone decides.
    fleet.comparison.baseline.out = "/out";
    for (std::size_t i = 0; i < sites.size(); ++i)
        sites[i].row.comparedClass =
            std::vector{"regressed", "unchanged", "unchanged", "unknown"}[i];
    EXPECT_NE(JUnit("fleet", fleet, sites).find(R"(failures="1" errors="1" skipped="0")"),
              std::string::npos);
}
