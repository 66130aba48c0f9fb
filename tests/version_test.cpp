#include "app/version.h"

#include "tests/support/steps.h"

namespace {

class Version : public Steps {};

}  // namespace

TEST_F(Version, FieldsAreComparedAsNumbers) {
    const struct {
        const char *live, *version;
        bool older;
    } cases[] = {
        {"2.4.10", "2.4.9", false},  {"2.4.10", "2.4.11", true}, {"2.4.10", "2.4.10", false},
        {"3.1", "2.4.9", true},      {"", "2.2.0", true},        {"5", "1.0.0", true},
        {"3.1.0.1", "4.1.7", false}, {"3..1", "3.0.1", false},   {"3..0", "3.0.1", true},
        {"3. 1.5x", "3.1.6", true},  {"3.-1.0", "3.0.0", true},  {"10.0.0", "9.9.9", false},
        {"...", "9.9.9", false},     {"..", "0.0.0", false},
    };
    for (const auto& test : cases)
        EXPECT_EQ(IsOlderVersion(test.live, test.version), test.older)
            << test.live << " below " << test.version;
}

TEST_F(Version, CheckDecidesFromLabelsAndStamp) {
    const std::string fifty(50, '1');
    const std::string older = "\tcurrent configuration version is not up-to-date (";
    const struct {
        std::string factory, live, stamp;
        bool upToDate;
        std::string liveVersion, targetVersion, reported;
    } cases[] = {
        {"6.1.0\n", "6.1.0\n", "", true, "6.1.0", "", "\tUp-to-date\n"},
        {"6.1.0\n", "3.0.1\n", "6.1.0", true, "6.1.0", "", "\tConfigurarion already checked.\n"},
        {"6.1.0\n", "3.0.1\n", "4.1.0", false, "3.0.1", "6.1.0", older + "3.0.1)\n"},
        {"6.1.0\n", "6.1.0", "", false, "6.1.", "6.1.0", older + "6.1.)\n"},
        {"6.1.0\n", "", "", false, "", "6.1.0", older + ")\n"},
        {fifty, "3.0.1\n", "", false, "", "", ""},
        {"6.1.0\n", fifty, "", false, "", "", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.factory + test.live + test.stamp);
        site.Write(site.appliance.factoryLabel, test.factory);
        site.Write(site.appliance.liveLabel, test.live);
        Put("linedb", "[general|current_version=" + test.stamp + "|]");
        EXPECT_EQ(Open("").CheckVersion(), test.upToDate);
        EXPECT_EQ(upgrader->liveVersion, test.liveVersion);
        EXPECT_EQ(upgrader->targetVersion, test.targetVersion);
        EXPECT_EQ(upgrader->report, "\n=== version check ===\n" + test.reported);
        upgrader->targetVersion.clear();
    }
    site.Remove(site.appliance.liveLabel);
    EXPECT_FALSE(Open("").CheckVersion());
    EXPECT_TRUE(Holds(upgrader->report, "\tcan't open " + site.appliance.liveLabel +
                                            " version of current configuration can't be checked\n"
                                            "\tnow we gonna to play a little with it... he-he\n"));
    EXPECT_TRUE(upgrader->IsVersionBelow("2.0.0")) << "every gate is open";
    EXPECT_EQ(upgrader->targetVersion, "") << "nothing is stamped";
}
