#include <algorithm>
#include <filesystem>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

/// A factory tree and a live tree of a few files each, made by the test.
class FileSet : public Steps {
protected:
    FileSet() : Steps(Site::Content::Nothing) {
        for (const char* name : {"linedb", "extensiondb"}) {
            PutFactory(std::string("04-lines/") + name, "");
            Put(name, "");
        }
        extensions = {"31", "32"};
        attendants = {"90"};
    }
    void Check(const std::string& version, bool upToDate = false) {
        Open(version).upToDate = upToDate;
        upgrader->defaultExtensions = {"11", "31"};
        upgrader->defaultAttendants = {"00"};
        upgrader->CheckFileSet(site.Live(""), site.appliance.factoryTelephony, false);
        TakeLog();
    }
    bool Logged(const std::string& text) const { return Holds(log, text); }
};

}  // namespace

TEST_F(FileSet, WhatIsOnBothSidesIsRefreshedQueuedRemovedOrLeft) {
    const auto check = [&](const std::string& version, bool upToDate) {
        for (const char* name :
             {"dspload.cfg",      "gaincontrol.cfg",     "codecgaindb",   "linedb",
              "rtp.cfg",          "supservices_3",       "sip.cfg",       "fax.cfg",
              "servicecodedb",    "default/codecgaindb", "manyextringdb", "speedcalldb",
              "blockedoutnumsdb", "distringdb",          "forwardlistdb", "huntdb",
              "externaluserdb",   "addresspatterndb",    "sysmessagedb",  "voipcarriersdb"}) {
            PutFactory(name, "factory");
            Put(name, name == std::string("linedb") ? "" : "live");
        }
        Check(version, upToDate);
        Names queued;
        for (const auto& [live, factory] : upgrader->mergeList) {
            queued.push_back(live.substr(site.Live("").size()));
            EXPECT_TRUE(Logged("\tAdded (" + factory + " & " + live + ") to merge list\n"));
        }
        if (queued.size() > 1) {
            std::sort(queued.begin(), queued.begin() + 2);
            EXPECT_EQ(queued[0] + queued[1], "rtp.cfgsip.cfg") << "the others need their ports";
        }
        std::sort(queued.begin(), queued.end());
        return queued;
    };
    EXPECT_EQ(check("2.2.0", false),
              (Names{"default/codecgaindb", "fax.cfg", "rtp.cfg", "sip.cfg"}));
    for (const char* name :
         {"dspload.cfg", "gaincontrol.cfg", "servicecodedb", "sysmessagedb", "voipcarriersdb"})
        EXPECT_EQ(Get(name), "factory") << name;
    EXPECT_FALSE(Has("codecgaindb"));
    EXPECT_TRUE(Logged("\tRemoving file " + site.Live("codecgaindb") + "\n"));
    EXPECT_TRUE(Has("default/codecgaindb"));
    EXPECT_EQ(Get("sip.cfg"), "live|") << "below 2.3.9 it gets a line end";

    EXPECT_EQ(check("3.0.1", false), (Names{"codecgaindb", "default/codecgaindb", "fax.cfg",
                                            "gaincontrol.cfg", "rtp.cfg", "sip.cfg"}));
    EXPECT_EQ(check("5.1.0", true), Names{});
    EXPECT_EQ(Get("dspload.cfg"), "live") << "an up-to-date tree is left alone";
}

TEST_F(FileSet, HostileNamesAndLoopsDoNoHarm) {
    PutFactory("a b;touch x$(touch y)'", "odd");
    PutFactory("%n%s.cfg", "percent");
    for (const char* name : {"loop", "loop2"}) {
        fs::create_symlink(".", site.Factory(name));
        fs::create_directories(site.Live(name));
    }
    fs::create_symlink("nowhere", site.Factory("dangling"));
    fs::current_path(site.Path("tmp"));
    Check("3.0.1");
    EXPECT_EQ(Get("a b;touch x$(touch y)'"), "odd");
    EXPECT_TRUE(Logged("\tfile %n%s.cfg is copied from default-conf - Done!\n"));
    EXPECT_TRUE(fs::is_empty(site.Path("tmp")));
    fs::current_path("/");
    EXPECT_FALSE(Has("dangling"));
}

TEST_F(FileSet, AShellThatCannotRunIsReported) {
    for (const int result : {127, 256}) {  // an exit status of cp is no failure
        PutFactory("voip.cfg", "v");
        site.appliance.runShell = [&](const std::string&) { return result; };
        Check("3.0.1");
        EXPECT_TRUE(Logged(std::string("\tfile voip.cfg is copied from default-conf - ") +
                           (result == 127 ? "Failed!!!!\n" : "Done!\n")));
        EXPECT_TRUE(Logged("\t====exiting...\n"));
    }
}
