// The run as a whole: order, restore paths, report and stamp.

#include "app/config_root.h"
#include "app/version.h"
#include "platform/thread.h"
#include "recovery/recovery_copy.h"
#include "tests/support/refused_calls.h"
#include "tests/support/steps.h"

namespace {

class Run : public Steps {
protected:
    bool IsStamped() const {
        return Holds(Get("linedb"), "current_version=" + FactoryVersion() + "|");
    }
};

}  // namespace

TEST_F(Run, ReportIsWrittenInPiecesAndVerbatim) {
    Open("3.0.1").log.reset();
    upgrader->report = "kept";
    upgrader->FlushReport();
    upgrader->Trace(1, "nowhere %d", 1);
    EXPECT_EQ(upgrader->report, "kept") << "until there is a log";
    upgrader->log = std::make_unique<LogStream>(site.appliance.log, true, false, 3, 1, 2048, false);
    for (const std::size_t length : {0U, 999U, 1000U, 1001U, 2500U}) {
        upgrader->report = std::string(length, '%') + "%n%s";
        const std::string expected = upgrader->report;
        EXPECT_EQ(TakeLog(), expected);
        EXPECT_EQ(upgrader->report, "");
    }
    const std::string longLine = std::string(100000, 'x') + "\n";
    upgrader->Trace(3, "%s", longLine.c_str());
    EXPECT_EQ(TakeLog(), longLine);
}

TEST_F(Run, FindsTheConfigurationRoot) {
    const std::string live = site.Live("");
    const std::string elsewhere = site.Path("elsewhere");
    std::filesystem::rename(live, elsewhere);
    std::string argument = elsewhere;
    std::string name = "setupmend";
    char* arguments[] = {name.data(), argument.data(), argument.data()};
    Thread::SetCommandLine(2, arguments);
    ConfigUpgrader(site.appliance).Run();
    EXPECT_TRUE(
        Holds(site.Read(elsewhere + "/linedb"), "current_version=" + FactoryVersion() + "\n"));

    const std::pair<const char*, std::string> environment[] = {
        {"/none/x", "/none/xtelephony/"},  // no separator at the end: kept so
        {"/none/x/", "/none/x/telephony/"},
        {nullptr, live},
    };
    Thread::SetCommandLine(3, arguments);  // two arguments are none
    site.appliance.runShell = [](const std::string&) { return -1; };
    for (const auto& [root, expected] : environment) {
        if (root != nullptr)
            setenv("ORIX_PATH", root, 1);
        else
            unsetenv("ORIX_PATH");
        ConfigUpgrader unit(site.appliance);
        unit.Run();
        EXPECT_EQ(unit.configRoot, expected);
    }
}

TEST_F(Run, TellsAPersonOfASlipInTheArguments) {
    unsetenv("ORIX_PATH");
    const std::string live = site.Live("");
    const std::string parent = site.Path("etc/orix-conf/");
    const std::string is = "the configuration root is ";
    const std::pair<Names, std::string> cases[] = {
        {{}, ""},
        {{live}, ""},
        {{site.Path("")}, ""},  // no linedb, here or below
        {{live, live}, "2 arguments count as none, " + is + live},
        {{""}, "an empty argument counts as none, " + is + live},
        {{"--help"}, is + "--help/, which is no directory"},
        {{live + "linedb"}, is + live + "linedb/, which is no directory"},
        {{parent}, is + parent + ", which has no linedb: did you mean " + live + "?"},
        {{site.Path("both/")}, ""},
    };
    for (const char* linedb : {"both/linedb", "both/telephony/linedb"})
        site.Write(site.Path(linedb), "");
    for (const auto& [given, expected] : cases) {
        Names words = given;
        std::vector<char*> arguments = {nullptr};
        for (std::string& word : words)
            arguments.push_back(word.data());
        Thread::SetCommandLine(static_cast<int>(arguments.size()), arguments.data());
        EXPECT_EQ(AdviceOnArguments(FindConfigRoot(site.appliance.liveConf)), expected);
    }
    Thread::SetCommandLine(1, nullptr);
}

TEST_F(Run, EveryStepTellsWhyAFileCannotBeRead) {
    const std::string path = site.Live("11/servicesdb");
    Remove("11/servicesdb");
    std::filesystem::create_directory(path);
    std::size_t told = 0;
    const std::function<void(const Fact&)> count = [&](const Fact& fact) {
        told += fact.kind == Fact::Kind::Unreadable && fact.path == path ? 1 : 0;
    };
    site.appliance.onFact = &count;
    log = site.Upgrade();
    EXPECT_GE(told, 3U);
    for (const char* step : {"", " in UpdateLocalRouteDB", " in UpdateFxoPrefix"})
        EXPECT_TRUE(Holds(log, std::string("MINOR ERROR") + step + ": Invalid file: " + path +
                                   "\n\t" + path + ": is a directory\n"))
            << step;
}

TEST_F(Run, RestoresTheMainDatabasesOrEnds) {
    const char* const cases[][3] = {
        {"linedb", nullptr,
         "\tfile linedb doesn't exist or corrupted, copying from default-conf\n"},
        {"linedb", malformed, "linedb, line 3: end of file inside a section\n"},
        {"extensiondb", nullptr, "\tfile extensiondb copying from default-conf\n"},
        {"extensiondb", "]", "extensiondb, line 1: \"}\" without a section\n"},
    };
    for (const auto& [file, text, reported] : cases) {
        for (const int result : {0, -1, 127, 256}) {  // of the copy, which is made when it is 0
            Site unit;
            unit.Remove(unit.Live(file));
            if (text != nullptr)
                unit.Write(unit.Live(file), Text(text));
            Names commands;
            if (result != 0)
                unit.appliance.runShell = [&](const std::string& command) {
                    commands.push_back(command);
                    return result;
                };
            bool hasEndedEarly = false;
            const std::function<void(const Fact&)> look = [&](const Fact& fact) {
                hasEndedEarly |= fact.kind == Fact::Kind::EndedEarly;
            };
            unit.appliance.onFact = &look;
            ConfigUpgrader upgrade(unit.appliance);
            upgrade.Run();
            EXPECT_EQ(hasEndedEarly, result != 0);
            upgrade.FlushReport();
            const std::string all = upgrade.report + unit.Read(unit.appliance.log);
            EXPECT_TRUE(Holds(all, reported)) << all;
            // cp that ran without making the file: the second opening fails, and says so.
            EXPECT_EQ(Holds(all, "may the Lord help us!\n"), result == 256) << file << result;
            EXPECT_EQ(Holds(all, "=== cfg files existence check ==="), result == 0);
            if (result != 0) {
                EXPECT_EQ(commands, Names{"cp -p " + unit.Factory("04-lines/") + file + " " +
                                          unit.Live(file) + ".mend-tmp"});
            }
        }
    }
    site.Remove(site.Factory("04-lines/linedb"));
    EXPECT_TRUE(Holds(site.Upgrade(), "\t" + site.Factory("04-lines/linedb") +
                                          ": No such file or directory\n\nexiting setupmend... "
                                          "may the Lord help us!\n"));
    site.Remove(site.Live("extensiondb"));
    site.appliance.runShell = [](const std::string&) { return -1; };
    EXPECT_TRUE(Holds(site.Upgrade(), "MINOR ERROR: Can't run: cp -p " + site.Factory("")));
}

TEST_F(Run, OneReadThatFailsCostsNoDatabaseAndNoLabel) {
    for (int nth = 1, isReached = true; isReached && nth < 40; ++nth)
        isReached = WithRefused({{"read", EIO, nth}}, [&] {
            const Site unit(Site::Content::Databases);
            unit.SetLiveVersion("5.0.0");
            unit.Write(unit.appliance.factoryLabel, "5.1.0\n");
            log = unit.Upgrade();
            EXPECT_FALSE(Holds(log, "copying from default-conf")) << nth;
            EXPECT_FALSE(Holds(log, "upgrade is not continued")) << "nothing was interrupted";
        });
    // The same where no try helps.
    site.appliance.liveLabel = "/proc/self/mem";
    EXPECT_TRUE(Holds(site.Upgrade(), "=== cfg files existence check ==="));
}

TEST_F(Run, AnObserverIsToldOfEachStepInItsOrder) {
    std::string steps;
    site.appliance.afterStep = [&](const char* step) { steps += std::string(step) + ", "; };
    std::string canceled;
    const std::function<void(const Fact&)> look = [&](const Fact& fact) {
        EXPECT_NE(fact.path, site.appliance.fxsNumber) << "it is there";
        if (fact.kind == Fact::Kind::Canceled)
            canceled = fact.path;
    };
    site.appliance.onFact = &look;
    site.Upgrade();
    EXPECT_EQ(canceled, "localrouttabledb");
    EXPECT_TRUE(steps.starts_with(
        "recovery, hardware, linedb, version check, extensiondb, line counts, hardware record, "
        "voice data and links, extension split, file set check, line database, "));
    EXPECT_TRUE(steps.ends_with("extension length, stamp, "));
}

TEST_F(Run, ALogThatCannotBeMadeStopsNothing) {
    site.appliance.log = site.Path("none/mend.log");
    ConfigUpgrader(site.appliance).Run();
    EXPECT_TRUE(IsStamped());
}

TEST_F(Run, TheAttendantIsReadWhereItLives) {
    {
        const Site unit;
        unit.Write(unit.Live("22/servicesdb"), Text(malformed));  // ends the split
        setenv("ORIX_PATH", unit.appliance.liveConf.c_str(), 1);
        ConfigUpgrader upgrade(unit.appliance);
        upgrade.Run();
        EXPECT_EQ(upgrade.liveAttendants, Names{"00"});
        unsetenv("ORIX_PATH");
    }
    const auto expect = [&](const Names& expected, const char* first = "00") {
        ConfigUpgrader unit(site.appliance);
        unit.Run();
        EXPECT_EQ(unit.attendantExtension, first);
        EXPECT_EQ(unit.liveAttendants, expected);
        EXPECT_EQ(unit.defaultAttendants, Names{"00"});
    };
    expect({"00"});
    // Split already, with an old label: the index's attendant has its mailbox.
    Put("linedb", "[general|]");
    const std::string mailbox = Get("00/voicemaildb");
    expect({"00"}, "");
    EXPECT_EQ(Get("00/voicemaildb"), mailbox);
    site.SetLiveVersion("2.4.11");
    Put("linedb", "[general|extension_length=3|]");
    Put("extensiondb", "[attendant|att_1=01|att_0=00|empty=|up=..|][extension|]");
    expect({"01", "00"});
}

TEST_F(Run, AnUpToDateTreeGetsTheLinesOfNewHardware) {
    site.Upgrade();
    site.Write(site.appliance.fxoNumber, "4\n");
    EXPECT_TRUE(Holds(site.Upgrade(), "lines is less than lines data in linedb!\n\n=== Lines"));
    EXPECT_TRUE(Holds(Get("linedb"), "[fxo_3|"));
}

TEST_F(Run, ATreesOwnLabelFollowsAConversionThatEnded) {
    const std::string label = site.Live("mend-label");
    site.Upgrade();
    EXPECT_FALSE(site.Exists(label)) << "it is the scripts' to make";
    struct {
        const char* before;
        bool endsEarly;
        std::string after;
    } const rows[] = {{"2.2.0\n", true, "2.2.0\n"},
                      {"2.2.0\n", false, FactoryVersion() + "\n"},
                      {"99.1\n", false, "99.1\n"},  // of a newer firmware that was fallen back from
                      {"", false, FactoryVersion() + "\n"}};
    for (const auto& row : rows) {
        Site unit;
        unit.Write(unit.Live("mend-label"), row.before);
        if (row.endsEarly)
            unit.Write(unit.Factory("04-lines/extensiondb"), Text(malformed));
        EXPECT_TRUE(Holds(unit.Upgrade(), " is set in linedb\n"));
        EXPECT_EQ(unit.Read(unit.Live("mend-label")), row.after) << row.before;
    }
}

// The start script (packaging/adopt-label) reads labels and stamps by itself. What it takes for one
// must be what the program takes; what it refuses, it leaves to a person.
TEST_F(Run, TheStartScriptReadsLabelsAndStampsAsTheProgramDoes) {
    const std::string own = site.Live("mend-label");
    const auto adopt = [&](const std::string& mode) {
        Site::RunShell("env -u ORIX_PATH -u ADOPT_LABEL sh " SOURCES "/packaging/adopt-label " +
                       mode + " " + site.Path("") + " >" + site.Path("said"));
        return site.Read(site.Path("said"));
    };
    const auto handedOn = [](bool isTaken, const std::string& text) {
        return isTaken ? text + "\n" : "(missing)";
    };
    const struct {
        std::string bytes, text;
        bool isTaken;
    } labels[] = {{"5.1.0\n", "5.1.0", true},
                  {"", "", false},
                  {"\n", "", false},
                  {"5.1.0", "5.1.", true},
                  {"5", "", false},
                  {"5.1.0\r\n", "5.1.0\r", false},
                  {" 5.1.0\n", " 5.1.0", false},
                  {"5.1.0 \n", "5.1.0 ", false},
                  {"5.1.0\n\n", "5.1.0\n", false},
                  {"5.1.0\n5.2.0\n", "5.1.0\n5.2.0", false},
                  {"new\n", "new", true},
                  {"\xff#\n", "\xff#", false},
                  {std::string("5.1.0\0\n", 7), "5.1.0", false},
                  {std::string("\0\n", 2), "", false},
                  {std::string(48, '5') + "\n", std::string(48, '5'), true},
                  {std::string(49, '5') + "\n", "none", false}};
    for (const auto& [bytes, text, isTaken] : labels) {
        site.Remove(own);
        site.Remove(site.Path("etc/orix-conf/config_label.first"));
        site.Write(site.appliance.liveLabel, bytes);
        const Label label = ReadLabel(site.appliance.liveLabel);
        EXPECT_EQ(label.IsUsable() ? *label.text : "none", text);
        const std::string said = adopt("before");
        EXPECT_EQ(site.Read(own), handedOn(isTaken, text)) << bytes << ": " << said;
    }

    const struct {
        std::string linedb, text;
        bool isTaken;
    } stamps[] = {{"[general|current_version=5.1.0|]", "5.1.0", true},
                  {"[ general | current_version =5.1.0\r|]", "5.1.0", true},
                  {"[general|current_version= 5.1.0|]", " 5.1.0", false},
                  {"[general|#current_version=5.1.0|]", "", false},
                  {"current_version=1|[x|current_version=2|][general|a=b|]", "", false},
                  {"[general|current_version=|current_version=2|]", "", false},
                  {"[general|a=b|][general|current_version=2|]", "", false}};
    for (const auto& [linedb, text, isTaken] : stamps) {
        site.Remove(own);
        Put("linedb", linedb);
        EXPECT_EQ(ReadStamp(site.Live("")), text);
        const std::string said = adopt("accept");
        EXPECT_EQ(site.Read(own), handedOn(isTaken, text)) << linedb << ": " << said;
    }

    const struct {
        std::string tree, firmware;
        const char* said;
    } pairs[] = {{"5.1.0", "5.1.0", "is up to date"},
                 {"5.1", "5.1.0", "did not come to its end"},
                 {"5.1.0", "5.1", "did not come to its end"},
                 {"5.1.0.1", "5.1.0", "is older than"},
                 {"9.9.9", "10.0.0", "did not come to its end"},
                 {"10.0.0", "9.9.9", "is older than"},
                 {"5.01.0", "5.1.0", "did not come to its end"}};
    for (const auto& [tree, firmware, said] : pairs) {
        site.Write(own, tree + "\n");
        site.SetLiveVersion(tree);
        site.Write(site.appliance.factoryLabel, firmware + "\n");
        Put("linedb", "[general|current_version=" + firmware + "|]");
        EXPECT_TRUE(Holds(adopt("after"), said)) << tree << " under " << firmware;
        EXPECT_EQ(IsNewerLabel(tree, firmware), std::string(said) == "is older than") << tree;
        EXPECT_EQ(ConfigUpgrader(site.appliance).CheckVersion(), tree == firmware) << tree;
    }
}
