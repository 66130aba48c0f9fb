#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/site.h"

namespace fs = std::filesystem;

/// A factory tree and a live tree of a few files each, made by the test.
class FileSet : public testing::Test {
protected:
    FileSet() {
        fs::remove_all(site.appliance.factoryTelephony);
        fs::remove_all(site.Live(""));
        for (const char* name : {"linedb", "extensiondb"}) {
            site.Write(site.Factory(std::string("04-lines/") + name), "");
            site.Write(site.Live(name), "");
        }
    }

    std::unique_ptr<ConfigUpgrader> Check(const std::string& version, bool upToDate = false) {
        auto upgrader = site.Upgrader(version);
        upgrader->upToDate = upToDate;
        upgrader->liveExtensions = {"31", "32"};
        upgrader->liveAttendants = {"90"};
        upgrader->defaultExtensions = {"11", "31"};
        upgrader->defaultAttendants = {"00"};
        upgrader->CheckFileSet(site.Live(""), site.appliance.factoryTelephony, false);
        log = site.TakeLog(*upgrader);
        return upgrader;
    }
    bool Logged(const std::string& text) const { return log.find(text) != std::string::npos; }

    Site site;
    std::string log;
};

TEST_F(FileSet, RestoresWhatIsMissingAndNothingOfOthers) {
    site.Write(site.Factory("voip.cfg"), "v");
    site.Write(site.Factory("sub/a"), "a");
    site.Write(site.Factory("sub/b"), "b");
    site.Write(site.Factory("new/c"), "c");
    site.Write(site.Factory("ippbx/d"), "another device");
    site.Write(site.Factory("16-lines/e"), "another size");
    site.Write(site.Factory("04-lines/f"), "this size");
    site.Write(site.Factory("04-lines/11/g"), "an extension this unit lacks");
    site.Write(site.Factory("04-lines/00/h"), "an attendant this unit lacks");
    site.Write(site.Factory("04-lines/31/i"), "default extension 31");
    site.Write(site.Factory("04-lines/default/j"), "template");
    site.Write(site.Live("sub/a"), "office");
    site.Write(site.Live("32/keep"), "office");
    Check("3.0.1");

    EXPECT_EQ(site.Read(site.Live("voip.cfg")), "v");
    EXPECT_EQ(site.Read(site.Live("sub/a")), "office");
    EXPECT_EQ(site.Read(site.Live("sub/b")), "b");
    EXPECT_EQ(site.Read(site.Live("new/c")), "c");
    EXPECT_EQ(site.Read(site.Live("f")), "this size");
    EXPECT_EQ(site.Read(site.Live("default/j")), "template");
    for (const char* name : {"ippbx", "16-lines", "04-lines", "11", "00", "d", "e", "32/j"})
        EXPECT_FALSE(site.Exists(site.Live(name))) << name;
    EXPECT_TRUE(fs::is_empty(site.Live("31"))) << "made, and left empty";
    EXPECT_TRUE(Logged("\tfile voip.cfg is copied from default-conf - Done!\n"));
    EXPECT_TRUE(Logged("\tdir  new is copied from default-conf - Done!\n"));
    EXPECT_TRUE(Logged("\tdir  31 is created for extension 31- Done!\n"));
    EXPECT_TRUE(
        Logged("\tfile  " + site.Live("32/j") + " is belong to extension, skipped copying.\n "));
    EXPECT_TRUE(Logged("\n\n\tChecking non-default attendants dirs.\n\n "));
}

TEST_F(FileSet, WhatIsOnBothSidesIsRefreshedQueuedRemovedOrLeft) {
    const char* names[] = {"dspload.cfg",   "gaincontrol.cfg",    "codecgaindb", "linedb",
                           "rtp.cfg",       "supservices_3",      "sip.cfg",     "fax.cfg",
                           "servicecodedb", "default/codecgaindb"};
    const auto prepare = [&] {
        for (const char* name : names) {
            site.Write(site.Factory(name), "factory");
            site.Write(site.Live(name), std::string(name) == "linedb" ? "" : "live");
        }
    };
    const auto queue = [&](const ConfigUpgrader& upgrader) {
        std::vector<std::string> queued;
        for (const auto& [live, factory] : upgrader.mergeList) {
            queued.push_back(live.substr(site.Live("").size()));
            EXPECT_TRUE(Logged("\tAdded (" + factory + " & " + live + ") to merge list\n"));
        }
        return queued;
    };

    prepare();
    auto upgrader = Check("2.2.0");
    for (const char* name : {"dspload.cfg", "gaincontrol.cfg", "servicecodedb"})
        EXPECT_EQ(site.Read(site.Live(name)), "factory") << name;
    EXPECT_FALSE(site.Exists(site.Live("codecgaindb")));
    EXPECT_TRUE(Logged("\tRemoving file " + site.Live("codecgaindb") + "\n"));
    EXPECT_TRUE(site.Exists(site.Live("default/codecgaindb")));
    EXPECT_EQ(site.Read(site.Live("sip.cfg")), "live\n") << "below 2.3.9 it gets a line end";
    std::vector<std::string> queued = queue(*upgrader);
    EXPECT_TRUE(queued.at(0) == "sip.cfg" || queued.at(0) == "rtp.cfg");
    EXPECT_TRUE(queued.at(1) == "sip.cfg" || queued.at(1) == "rtp.cfg");
    std::sort(queued.begin(), queued.end());
    EXPECT_EQ(queued,
              (std::vector<std::string>{"default/codecgaindb", "fax.cfg", "rtp.cfg", "sip.cfg"}));
    prepare();
    upgrader = Check("3.0.1");
    EXPECT_EQ(site.Read(site.Live("gaincontrol.cfg")), "live");
    EXPECT_EQ(site.Read(site.Live("sip.cfg")), "live");
    queued = queue(*upgrader);
    std::sort(queued.begin(), queued.end());
    EXPECT_EQ(queued, (std::vector<std::string>{"codecgaindb", "default/codecgaindb", "fax.cfg",
                                                "gaincontrol.cfg", "rtp.cfg", "sip.cfg"}));
    prepare();
    upgrader = Check("5.1.0", true);
    EXPECT_TRUE(upgrader->mergeList.empty());
    EXPECT_EQ(site.Read(site.Live("dspload.cfg")), "live") << "an up-to-date tree is left alone";
}

TEST_F(FileSet, HostileNamesAndLoopsDoNoHarm) {
    site.Write(site.Factory("a b;touch x$(touch y)'"), "odd");
    site.Write(site.Factory("%n%s.cfg"), "percent");
    fs::create_symlink(".", site.Factory("loop"));
    fs::create_symlink(".", site.Factory("loop2"));
    fs::create_symlink("nowhere", site.Factory("dangling"));
    for (const char* name : {"loop", "loop2"})
        fs::create_directories(site.Live(name));
    ASSERT_EQ(chdir(site.Path("tmp").c_str()), 0);
    Check("3.0.1");
    EXPECT_EQ(site.Read(site.Live("a b;touch x$(touch y)'")), "odd");
    EXPECT_TRUE(Logged("\tfile %n%s.cfg is copied from default-conf - Done!\n"));
    EXPECT_TRUE(fs::is_empty(site.Path("tmp")));
    fs::current_path("/");
    EXPECT_FALSE(site.Exists(site.Live("dangling")));
}

TEST_F(FileSet, AShellThatCannotRunIsReported) {
    site.Write(site.Factory("voip.cfg"), "v");
    site.appliance.runShell = [](const std::string&) { return 127; };
    Check("3.0.1");
    EXPECT_TRUE(Logged("\tfile voip.cfg is copied from default-conf - Failed!!!!\n"));
    EXPECT_TRUE(Logged("\t====exiting...\n"));
    site.appliance.runShell = [](const std::string&) { return 256; };
    Check("3.0.1");
    EXPECT_TRUE(Logged("\tfile voip.cfg is copied from default-conf - Done!\n"))
        << "an exit status of cp is no failure";
}
