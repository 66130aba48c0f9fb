// The run as a whole: order, restore paths, report and stamp.

#include <gtest/gtest.h>

#include "platform/thread.h"
#include "tests/support/site.h"

namespace {

std::string Stamp(const std::string& linedb) {
    Configuration::MultiSectionFile file(linedb, false);
    file.GotoSection("general");
    return file.GetSectionEntry("current_version").value_or("(absent)");
}

}  // namespace

TEST(Report, IsWrittenInPiecesAndVerbatim) {
    Site site;
    auto upgrader = site.Upgrader("3.0.1");
    upgrader->log.reset();
    upgrader->report = "kept";
    upgrader->FlushReport();
    upgrader->Trace(1, "nowhere %d", 1);
    EXPECT_EQ(upgrader->report, "kept") << "until there is a log";
    upgrader->log = std::make_unique<LogStream>(site.appliance.log, true, false, 3, 1, 2048, false);
    for (const std::size_t length : {0U, 999U, 1000U, 1001U, 2000U, 2500U}) {
        upgrader->report = std::string(length, '%') + "%n%s";
        const std::string expected = upgrader->report;
        EXPECT_EQ(site.TakeLog(*upgrader), expected);
        EXPECT_EQ(upgrader->report, "");
    }
    upgrader->Trace(3, "%s\n", std::string(100000, 'x').c_str());
    EXPECT_EQ(site.TakeLog(*upgrader).size(), 100001U);
}

TEST(Run, UpgradesTheSampleAndStampsIt) {
    Site site;
    const std::string log = site.Upgrade();
    EXPECT_EQ(Stamp(site.Live("linedb")), "5.1.0");
    EXPECT_NE(log.find("\tnumber of fxs is set 4\n"), std::string::npos)
        << "text from before the log exists";
    EXPECT_NE(log.find("\n=====Current configuration version: 5.1.0 is set in linedb\n"),
              std::string::npos);
    const auto upgraded = site.Snapshot();
    const std::string again = site.Upgrade();
    EXPECT_NE(again.find("\tConfigurarion already checked.\n"), std::string::npos);
    EXPECT_EQ(again.find("Current configuration version"), std::string::npos);
    EXPECT_EQ(site.Snapshot(), upgraded) << "the second run changes nothing";
}

TEST(Run, FindsTheConfigurationRoot) {
    Site site;
    const std::string live = site.Live("");
    std::filesystem::rename(site.Live(""), site.Path("elsewhere"));
    std::string argument = site.Path("elsewhere");
    std::string name = "setupmend";
    char* arguments[] = {name.data(), argument.data(), argument.data()};
    Thread::SetCommandLine(2, arguments);
    {
        ConfigUpgrader upgrader(site.appliance);
        upgrader.Run();
        EXPECT_EQ(upgrader.configRoot, site.Path("elsewhere/"));
    }
    EXPECT_EQ(Stamp(site.Path("elsewhere/linedb")), "5.1.0");

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
        ConfigUpgrader upgrader(site.appliance);
        upgrader.Run();
        EXPECT_EQ(upgrader.configRoot, expected);
    }
}

TEST(Run, RestoresTheMainDatabases) {
    struct Case {
        const char* what;
        const char* file;
        const char* text;  // null: missing
        const char* reported;
    };
    const Case cases[] = {
        {"missing linedb", "linedb", nullptr,
         "\tfile linedb doesn't exist or corrupted, copying from default-conf\n"},
        {"corrupted linedb", "linedb", "section general\n{\n",
         "\tfile linedb doesn't exist or corrupted, copying from default-conf\n"},
        {"missing extensiondb", "extensiondb", nullptr,
         "\tfile extensiondb copying from default-conf\n"},
        {"corrupted extensiondb", "extensiondb", "}\n", "extensiondb, line 1: \"}\" without a "},
    };
    for (const Case& test : cases) {
        Site site;
        site.Remove(site.Live(test.file));
        if (test.text != nullptr)
            site.Write(site.Live(test.file), test.text);
        const std::string log = site.Upgrade();
        EXPECT_NE(log.find(test.reported), std::string::npos) << test.what;
        EXPECT_EQ(Stamp(site.Live("linedb")), "5.1.0") << test.what;
    }
}

TEST(Run, EndsWhenARestoreCannotHelp) {
    for (const char* file : {"linedb", "extensiondb"}) {
        for (const int result : {-1, 127, 256}) {
            Site site;
            site.Remove(site.Live(file));
            std::vector<std::string> commands;
            site.appliance.runShell = [&](const std::string& command) {
                commands.push_back(command);
                return result;
            };
            ConfigUpgrader upgrader(site.appliance);
            upgrader.Run();
            EXPECT_EQ(commands,
                      std::vector<std::string>{"cp -p " + site.Factory("04-lines/") + file + " " +
                                               site.Live(file) + ".mend-tmp"});
            upgrader.FlushReport();
            const std::string text = upgrader.report + site.Read(site.appliance.log);
            // cp that ran without making the file: the second opening fails, and says so.
            const bool reopened = text.find("may the Lord help us!\n") != std::string::npos;
            EXPECT_EQ(reopened, result == 256) << file << result;
        }
    }
}

TEST(Run, AMissingFactoryTreeEndsItWithItsMessage) {
    Site site;
    site.Remove(site.Factory("04-lines/linedb"));
    const std::string log = site.Upgrade();
    EXPECT_NE(log.find("\t" + site.Factory("04-lines/linedb") + ": No such file or directory\n" +
                       "\nexiting setupmend... may the Lord help us!\n"),
              std::string::npos);
}

TEST(Run, ALogThatCannotBeMadeStopsNothing) {
    Site site;
    site.appliance.log = site.Path("none/mend.log");
    ConfigUpgrader(site.appliance).Run();
    EXPECT_EQ(Stamp(site.Live("linedb")), "5.1.0");
}

TEST(Run, ReadsTheAttendantWhereItLives) {
    Site site;
    {
        ConfigUpgrader upgrader(site.appliance);
        upgrader.Run();
        EXPECT_EQ(upgrader.attendantExtension, "00");
        EXPECT_EQ(upgrader.liveAttendants, std::vector<std::string>{"00"});
        EXPECT_EQ(upgrader.defaultAttendants, std::vector<std::string>{"00"});
    }
    Site newer;
    newer.SetLiveVersion("2.4.11");
    newer.Write(newer.Live("extensiondb"),
                "section attendant\n{\natt_1=01\natt_0=00\nempty=\n}\nsection extension\n{\n}\n");
    ConfigUpgrader upgrader(newer.appliance);
    upgrader.Run();
    EXPECT_EQ(upgrader.attendantExtension, "00");
    EXPECT_EQ(upgrader.liveAttendants, (std::vector<std::string>{"01", "00"}));
}

TEST(Run, KeepsTheAttendantOfATreeThatWasSplitBeforeItsLabelMovedOn) {
    Site site;
    site.Upgrade();
    Configuration::MultiSectionFile linedb(site.Live("linedb"));
    linedb.GotoSection("general");
    linedb.DeleteSectionEntry("current_version");  // the power went before the stamp
    linedb.Save(true, nullptr);
    ConfigUpgrader upgrader(site.appliance);
    upgrader.Run();
    EXPECT_EQ(upgrader.attendantExtension, "00");
    EXPECT_EQ(upgrader.liveAttendants, std::vector<std::string>{"00"});
}
