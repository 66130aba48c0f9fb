// Steps, as far as they are no ordinary cases (tests/cases): errors of the shell, hostile names,
// the environment, and the tables of what they calculate.

#include "tests/support/steps.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "files/refusals.h"
#include "steps/hardware/hw_info.h"
#include "steps/services/voicemail_migration.h"
#include "steps/sipnat/port_ranges.h"
#include "tests/support/refused_calls.h"

namespace fs = std::filesystem;

/// A factory tree and a live tree of a few files each, made by the test.
class FileSet : public Steps {
protected:
    FileSet() : Steps(Site::Content::Databases) {}
};

TEST_F(Steps, BoardsAreReadFromHwInfo) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "isdn 0 of 0"},
        {"STUFFED_E1T1_CO 2\n", "e1t1, isdn 0 of 0"},
        {"STUFFED_E1T1_CO 0\nSTUFFED_E1 YES\n", "e1t1, isdn 0 of 0"},
        {"STUFFED_E1T1_CO 2 \nSTUFFED_E1 NO\n", "isdn 0 of 0"},
        {"STUFFED_E1 NO\nSTUFFED_T1=YES\n", "e1t1, isdn 0 of 0"},
        {"STUFFED_E1 maybe\nSTUFFED_T1 YES\n", "isdn 0 of 0"},
        {"STUFFED_FXO YES\nSTUFFED_FXO_FXO NO\n", "told of fxo, fxo, isdn 0 of 0"},
        {"STUFFED_FXO=NO\nSTUFFED_FXO_FXO=YES\n", "told of fxo, fxo, isdn 0 of 0"},
        {"STUFFED_FXO NO\n", "told of fxo, isdn 0 of 0"},
        {"STUFFED_ISDN=2\nSTUFFED_FXO_ISDN 1\n", "isdn 2 of 3"},
        {"STUFFED_ISDN -2\nSTUFFED_FXO_ISDN x\n", "isdn 0 of 0"},
        {"STUFFED_ISDN 4", "isdn 4 of 4"},
    };
    for (const auto& [text, expected] : cases) {
        const HwFacts facts = ParseHwInfo(text);
        EXPECT_EQ(std::string(facts.e1t1 ? "e1t1, " : "") + (facts.fxoTold ? "told of fxo, " : "") +
                      (facts.fxo ? "fxo, " : "") + "isdn " + std::to_string(facts.isdn) + " of " +
                      std::to_string(facts.isdnTotal),
                  expected)
            << text;
    }
}

TEST_F(Steps, LinesAreRestoredWhenTheyCannotBeRead) {
    for (const int result : {-1, 127, 0}) {
        Open("4.1.6").lineDb.reset();
        Put("linedb", malformed);
        if (result != 0)
            upgrader->appliance.runShell = [&](const std::string&) { return result; };
        upgrader->CheckLineDatabase();
        const bool restored = result == 0;
        EXPECT_TRUE(
            Holds(TakeLog(), "\tfile linedb doesn't exist or corrupted, copying from default"));
        EXPECT_EQ(Holds(log, "\tCan't copy linedb from default-conf, probably a problem with "),
                  !restored);
        EXPECT_EQ(Holds(log, "\n Done...\n"), restored);
        EXPECT_EQ(Get("linedb") == malformed, !restored) << "it goes when there is another";
        upgrader->UpdateExtensionLength();
        EXPECT_EQ(Holds(TakeLog(), "linedb doesn't exist.\n"), !restored);
        Put("linedb", "");
    }
}

TEST_F(Steps, SplitEndsAtAMalformedFileAndLosesNothing) {
    Put("22/servicesdb", malformed);
    const std::string extensiondb = Get("extensiondb");
    const std::string linedb = Get("linedb");
    EXPECT_TRUE(Holds(Run("2.3.0", &ConfigUpgrader::SplitExtensionDatabase),
                      "\t" + site.Live("22/servicesdb") + ", line "));
    EXPECT_FALSE(Holds(log, "\n Done...\n"));
    EXPECT_EQ(Get("22/servicesdb"), malformed);
    // A later step that saves the databases must not save half a split either.
    upgrader->Save(*upgrader->extensionDb);
    upgrader->Save(*upgrader->lineDb);
    EXPECT_EQ(Get("extensiondb"), extensiondb);
    EXPECT_EQ(Get("linedb"), linedb);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "23", "11", "12"}));
}

TEST_F(Steps, MailboxSharesAreRoundedDownAndCutTo8Bits) {
    EXPECT_EQ(MailboxPortion(2, 3), 66);
    EXPECT_EQ(MailboxPortion(256, 100), 0);
}

TEST_F(Steps, StunFileIsWhereTheEnvironmentSays) {
    const std::string prefix = site.Path("pre-");  // nothing is put between it and the name
    const std::string named = prefix + "stun.cfg";
    const std::string usual = site.appliance.liveConf + "stun.cfg";
    for (const bool isNamed : {true, false}) {
        for (const std::string& path : {named, usual})
            site.Write(path, Text("[server|Port=8|]"));
        isNamed ? setenv("ORIX_PATH", prefix.c_str(), 1) : unsetenv("ORIX_PATH");
        Run("3.1.1", &ConfigUpgrader::UpdateStunFile);
        EXPECT_EQ(site.Read(isNamed ? named : usual), "Port=8\n");
        EXPECT_EQ(site.Read(isNamed ? usual : named), Text("[server|Port=8|]"));
    }
}

TEST_F(Steps, PortRangesJoinKeepOrCut) {
    constexpr std::uint32_t t = 4294967295U;
    const struct {
        PortRange own, unit;
        std::uint32_t most;
        PortRange nat, rtp;
    } cases[] = {
        {{100, 199}, {200, 299}, 0, {100, 299}, {100, 299}},  // right behind
        {{100, 199}, {200, 299}, 199, {100, 299}, {100, 298}},
        {{200, 299}, {100, 199}, 50, {100, 299}, {100, 149}},  // right before
        {{100, 199}, {201, 299}, 50, {100, 199}, {100, 199}},  // a port between
        {{100, 199}, {120, 150}, 10, {100, 199}, {100, 109}},  // inside
        {{199, 250}, {100, 199}, 0, {100, 250}, {100, 250}},
        {{100, 199}, {500, 699}, 10, {500, 699}, {500, 699}},  // apart: never cut
        {{500, 699}, {100, 199}, 10, {500, 699}, {500, 699}},
        {{500, 599}, {100, 199}, 10, {500, 599}, {500, 599}},  // apart and equal
        {{500, 0}, {100, 101}, 10, {100, 101}, {100, 101}},
        {{t - 4, t}, {t - 9, t - 5}, 7, {t - 9, t}, {t - 9, t - 3}},
        {{t - 9, t}, {0, 5}, 3, {t - 9, t}, {t - 9, t}},  // the top has nothing behind it
    };
    const auto text = [](const PortRange& range) {
        return std::to_string(range.start) + "-" + std::to_string(range.end);
    };
    for (const auto& test : cases) {
        const std::string what = text(test.own) + " and " + text(test.unit);
        EXPECT_EQ(text(MergeNatRange(test.own, test.unit)), text(test.nat)) << what;
        EXPECT_EQ(text(MergeRtpRange(test.own, test.unit, test.most)), text(test.rtp)) << what;
    }
}

TEST_F(Steps, ARouteToolThatFailsHasItsErrorTextReported) {
    site.appliance.runShell = [this](const std::string&) {
        EXPECT_EQ(site.Read(site.appliance.lastError), "") << "whatever stood there";
        dprintf(STDERR_FILENO, "table locked");
        return 256;
    };
    site.Write(site.appliance.lastError, "old");
    Put("localrouttabledb", "[|id=3|emergancy=1|][|id=1|]");
    Run("2.9.9", &ConfigUpgrader::UpdateLocalRouteDB);
    EXPECT_TRUE(Holds(log, "Update done - Failed: table locked.\nDone.\n")) << log;
    EXPECT_EQ(Get("localrouttabledb"), "[|id=1|]");
    EXPECT_FALSE(site.Exists(site.appliance.lastError));
}

TEST_F(Steps, AMergeTellsWhetherItAddedASection) {
    Put("live", "[|pattern=9|]");
    Put("factory", "[|pattern=9|][|pattern=0*|]");
    Configuration::MultiSectionFile live(site.Live("live"));
    Configuration::MultiSectionFile factory(site.Live("factory"));
    EXPECT_TRUE(Open("3.0.1").MergeKeyedSections(&live, &factory, "pattern", "section_id"));
    EXPECT_FALSE(upgrader->MergeKeyedSections(&live, &factory, "pattern", "section_id"));
}

TEST_F(FileSet, WhatOthersReadFromIsQueuedFirst) {
    for (const char* name :
         {"linedb", "rtp.cfg", "supservices_3", "sip.cfg", "fax.cfg", "manyextringdb",
          "speedcalldb", "blockedoutnumsdb", "distringdb", "forwardlistdb", "huntdb",
          "externaluserdb", "addresspatterndb", "anonymousdb", "blockedinnumsdb", "extensiondb",
          "Makefile", "dialplan.xml", "nat.cfg"}) {
        PutFactory(name, "");
        Put(name, "");
    }
    Open("2.2.0").CheckFileSet(site.Live(""), site.Factory(""), false);
    Names queued;
    for (const auto& [live, factory] : upgrader->mergeList)
        queued.push_back(live.substr(site.Live("").size()));
    ASSERT_EQ(queued.size(), 4U) << "the others are never merged";
    for (const int half : {0, 2})
        std::sort(queued.begin() + half, queued.begin() + half + 2);
    EXPECT_EQ(queued, (Names{"rtp.cfg", "sip.cfg", "fax.cfg", "nat.cfg"}));
    EXPECT_EQ(Get("sip.cfg"), "|") << "below 2.3.9 it gets a line end";
    Open("2.2.0");
    WithRefused({{"create", EROFS}}, [&] {
        upgrader->CheckFileSet(site.Live(""), site.Factory(""), false);
        EXPECT_TRUE(Holds(TakeLog(), "Can't save file: " + site.Live("sip.cfg") + " (can't "));
    });
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
    Open("3.0.1").CheckFileSet(site.Live(""), site.Factory(""), false);
    TakeLog();
    EXPECT_EQ(Get("a b;touch x$(touch y)'"), "odd");
    EXPECT_TRUE(Holds(log, "\tfile %n%s.cfg is copied from default-conf - Done!\n"));
    EXPECT_TRUE(fs::is_empty(site.Path("tmp")));
    fs::current_path("/");
    EXPECT_FALSE(Has("dangling"));
}

TEST_F(Steps, ANulEndsALabel) {
    site.Write(site.appliance.factoryLabel, "4.0.0\n");
    site.Write(site.appliance.liveLabel, std::string("3.0.1\0.9\n", 9));
    EXPECT_FALSE(Open("").CheckVersion());
    EXPECT_EQ(upgrader->liveVersion, "3.0.1");
}

TEST_F(Steps, ACopyThatLostNothingButItsTimesStays) {
    site.appliance.runShell = [](const std::string& command) {
        return std::system(("cp" + command.substr(5)).c_str());  // without -p, as on vfat
    };
    site.Write(site.Factory("new"), "x");
    const auto old = fs::file_time_type(std::chrono::seconds(1));
    fs::last_write_time(site.Factory("new"), old);
    EXPECT_EQ(Open("").CopyWhole("-p", site.Factory("new"), site.Live("new")), 0);
    EXPECT_EQ(Get("new"), "x");
    EXPECT_NE(fs::last_write_time(site.Live("new")), old);
    EXPECT_EQ(TakeLog(), "");
}

TEST_F(Steps, OnlyAVisibleFileOfTheAttendantMakesAFailedCopyTheDisksFault) {
    site.appliance.runShell = [](const std::string&) { return 256; };
    for (const bool isVisible : {false, true}) {
        Remove("00");
        Put(isVisible ? "00/file" : "00/.hidden", "");
        Put("system/file", "");
        const files::RefusalWatch watch;
        Run("3.0.0", &ConfigUpgrader::UpdateSystemExtension);
        EXPECT_EQ(watch.HasSeenOne(), isVisible);
    }
    site.appliance.runShell = [](const std::string& command) {
        EXPECT_FALSE(command.ends_with("/system")) << "where a recovery copy may share files";
        return 256;
    };
    Open("3.0.0");
    WithRefused({{"stat", EIO}}, [&] { upgrader->UpdateSystemExtension(); });
}

TEST_F(Steps, WhatNoCopyCanLayOverIsNotTheDisksFault) {
    for (const auto& [attendants, systems] :
         {std::pair("00/odd", "system/odd/below"), std::pair("00/odd/below", "system/odd"),
          std::pair("00/deep/odd", "system/deep/odd/below")}) {
        for (const char* directory : {"00", "system"})
            Remove(directory);
        Put(attendants, "a");
        Put(systems, "b");
        const files::RefusalWatch watch;
        Run("3.0.0", &ConfigUpgrader::UpdateSystemExtension);
        EXPECT_TRUE(Holds(log, "Copy 00 to System done - Failed: "));
        EXPECT_FALSE(watch.HasSeenOne()) << attendants;
        EXPECT_EQ(Get(systems), "b");
    }
    // An extension without a directory of its own, and a template that has one more below.
    PutFactory("04-lines/default/more/file", "x");
    const files::RefusalWatch watch;
    Open("3.0.1").liveExtensions = {"77"};
    upgrader->CheckFileSet(site.Live(""), site.Factory(""), false);
    EXPECT_FALSE(watch.HasSeenOne());
}

TEST_F(Steps, ACopyThatWasKilledHasItsModesInTheEnd) {
    site.appliance.runShell = [this](const std::string& command) {
        EXPECT_EQ(std::system(command.c_str()), 0);
        const std::string copy = site.Live("new.mend-tmp");
        return std::system(("rm " + copy + "/sub/b && chmod 600 " + copy + "/sub/a && chmod 700 " +
                            copy + "/sub " + copy)
                               .c_str());
    };
    const std::string original = site.Factory("new");
    site.Write(original + "/sub/a", "a");
    site.Write(original + "/sub/b", "b");
    for (const char* name : {"", "/sub", "/sub/a", "/sub/b"})
        fs::permissions(original + name, fs::perms(*name == 0 ? 0751 : 0754));
    EXPECT_EQ(Open("").CopyWhole("-p -r", original, site.Live("new")), 0);
    for (const char* name : {"", "/sub", "/sub/a", "/sub/b"})
        EXPECT_EQ(fs::status(site.Live("new") + name).permissions(),
                  fs::status(original + name).permissions())
            << name;
    EXPECT_EQ(Get("new/sub/b"), "b");
}

TEST_F(Steps, WhatIsMadeFromAFileIsOpenToNobodyElse) {
    const auto close = [this](const std::string& name, unsigned mode) {
        fs::permissions(site.Live(name), fs::perms(mode));
    };
    const auto mode = [this](const std::string& name) {
        return static_cast<unsigned>(fs::status(site.Live(name)).permissions());
    };
    Put("voicemaildb", "[21|password=1|]");
    close("voicemaildb", 0600);
    Open("2.4.8").liveExtensions = {"21"};
    upgrader->attendantExtension.clear();
    upgrader->MigrateVoicemail();
    EXPECT_EQ(Get("21/voicemaildb"), "password=1|");
    EXPECT_EQ(mode("21/voicemaildb"), 0600U);

    // Of a file that is made from several, what each of them allows.
    for (const char* database : {"huntdb", "anonymousdb"})
        Put(std::string("21/") + database,
            "[|caller_type=SIP|caller=5|call_type=SIP|user_name=5|]");
    Put("21/servicesdb", "");
    close("21/huntdb", 0640);
    close("21/anonymousdb", 0604);
    for (const char* made : {"21/addresspatterndb", "21/supservices_0"})
        Remove(made);
    Open("3.0.0").liveExtensions = {"21"};
    upgrader->MergeSupplementaryServices();
    EXPECT_EQ(mode("21/addresspatterndb"), 0600U);
    EXPECT_EQ(mode("21/supservices_0"), 0600U);

    Put("extensiondb", "[21|password=1|]");
    Put("linedb", "[line_0|extension=21|codec=1|]");
    close("extensiondb", 0640);
    close("linedb", 0604);
    for (const char* made : {"21/personaldatadb", "21/servicesdb", "21/codecsdb"})
        Remove(made);
    Open("2.3.0").SplitExtensionDatabase();
    EXPECT_EQ(mode("21/personaldatadb"), 0640U);
    EXPECT_EQ(mode("21/servicesdb"), 0600U);
    EXPECT_EQ(mode("21/codecsdb"), 0604U);
}
