#include "app/version.h"

#include <gtest/gtest.h>

#include "tests/support/site.h"

TEST(Version, ComparesFieldsAsNumbers) {
    struct Case {
        const char* live;
        const char* version;
        bool older;
    };
    const Case cases[] = {
        {"2.4.10", "2.4.9", false},  {"2.4.10", "2.4.11", true}, {"2.4.10", "2.4.10", false},
        {"3.1", "2.4.9", true},      {"", "2.2.0", true},        {"5", "1.0.0", true},
        {"3.1.0.1", "4.1.7", false}, {"3..1", "3.0.1", false},   {"3..0", "3.0.1", true},
        {"3. 1.5x", "3.1.6", true},  {"3.-1.0", "3.0.0", true},  {"a.b.c", "0.0.1", true},
        {"10.0.0", "9.9.9", false},  {"...", "9.9.9", false},    {"..", "0.0.0", false},
    };
    for (const Case& test : cases)
        EXPECT_EQ(IsOlderVersion(test.live, test.version), test.older)
            << test.live << " below " << test.version;
}

TEST(Version, CheckDecidesFromLabelsAndStamp) {
    struct Case {
        const char* what;
        std::string factory;
        std::string live;
        std::string stamp;
        bool upToDate;
        std::string liveVersion;
        std::string targetVersion;
        std::string reported;
    };
    const std::string fifty(50, '1');
    const Case cases[] = {
        {"equal", "5.1.0\n", "5.1.0\n", "", true, "5.1.0", "", "\tUp-to-date\n"},
        {"stamped", "5.1.0\n", "3.0.1\n", "5.1.0", true, "5.1.0", "",
         "\tConfigurarion already checked.\n"},
        {"older", "5.1.0\n", "3.0.1\n", "4.1.0", false, "3.0.1", "5.1.0",
         "\tcurrent configuration version is not up-to-date (3.0.1)\n"},
        {"no line end", "5.1.0\n", "5.1.0", "", false, "5.1.", "5.1.0",
         "\tcurrent configuration version is not up-to-date (5.1.)\n"},
        {"empty label", "5.1.0\n", "", "", false, "", "5.1.0",
         "\tcurrent configuration version is not up-to-date ()\n"},
        {"factory label of 50 bytes", fifty, "3.0.1\n", "", false, "", "", ""},
        {"live label of 50 bytes", "5.1.0\n", fifty, "", false, "", "", ""},
    };
    for (const Case& test : cases) {
        Site site;
        site.Write(site.appliance.factoryLabel, test.factory);
        site.Write(site.appliance.liveLabel, test.live);
        auto upgrader = site.Upgrader("");
        upgrader->lineDb->GotoSection("general");
        if (!test.stamp.empty())
            upgrader->lineDb->SetSectionEntry("current_version", test.stamp);
        EXPECT_EQ(upgrader->CheckVersion(), test.upToDate) << test.what;
        EXPECT_EQ(upgrader->liveVersion, test.liveVersion) << test.what;
        EXPECT_EQ(upgrader->targetVersion, test.targetVersion) << test.what;
        EXPECT_EQ(upgrader->report, "\n=== version check ===\n" + test.reported) << test.what;
        upgrader->targetVersion.clear();
    }
}

TEST(Version, MissingLabelsMakeEveryGateOpenAndStampNothing) {
    Site site;
    site.Remove(site.appliance.liveLabel);
    auto upgrader = site.Upgrader("");
    EXPECT_FALSE(upgrader->CheckVersion());
    EXPECT_EQ(upgrader->report, "\n=== version check ===\n\tcan't open " +
                                    site.appliance.liveLabel +
                                    " version of current configuration can't be checked\n"
                                    "\tnow we gonna to play a little with it... he-he\n");
    EXPECT_TRUE(upgrader->IsVersionBelow("2.0.0"));
    EXPECT_EQ(upgrader->targetVersion, "");
}
