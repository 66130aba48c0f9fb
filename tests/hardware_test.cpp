#include "steps/hardware/hw_info.h"
#include "tests/support/steps.h"

namespace {

class Hardware : public Steps {};

}  // namespace

TEST_F(Hardware, BoardsAreReadFromHwInfo) {
    const struct {
        const char* text;
        bool e1t1, fxo, fxoTold;
        int isdn, isdnTotal;
    } cases[] = {
        {"", false, false, false, 0, 0},
        {"STUFFED_E1T1_CO 2\n", true, false, false, 0, 0},
        {"STUFFED_E1T1_CO 0\nSTUFFED_E1 YES\n", true, false, false, 0, 0},
        {"STUFFED_E1T1_CO 2 \nSTUFFED_E1 NO\n", false, false, false, 0, 0},
        {"STUFFED_E1 NO\nSTUFFED_T1=YES\n", true, false, false, 0, 0},
        {"STUFFED_E1 maybe\nSTUFFED_T1 YES\n", false, false, false, 0, 0},
        {"STUFFED_FXO YES\nSTUFFED_FXO_FXO NO\n", false, true, true, 0, 0},
        {"STUFFED_FXO=NO\nSTUFFED_FXO_FXO=YES\n", false, true, true, 0, 0},
        {"STUFFED_FXO NO\n", false, false, true, 0, 0},
        {"STUFFED_ISDN=2\nSTUFFED_FXO_ISDN 1\n", false, false, false, 2, 3},
        {"STUFFED_ISDN -2\nSTUFFED_FXO_ISDN x\n", false, false, false, 0, 0},
        {"STUFFED_ISDN 4", false, false, false, 4, 4},
    };
    for (const auto& test : cases) {
        const HwFacts facts = ParseHwInfo(test.text);
        EXPECT_EQ(facts.e1t1, test.e1t1) << test.text;
        EXPECT_EQ(facts.fxo, test.fxo) << test.text;
        EXPECT_EQ(facts.fxoTold, test.fxoTold) << test.text;
        EXPECT_EQ(static_cast<int>(facts.isdn), test.isdn) << test.text;
        EXPECT_EQ(static_cast<int>(facts.isdnTotal), test.isdnTotal) << test.text;
    }
}

TEST_F(Hardware, HwinfoIsWrittenInTheSecondPassOnly) {
    Put("hwinfo", "other=1|");
    site.Write(site.appliance.hwInfo, "STUFFED_ISDN 2\n");
    Open("3.0.1").ProbeHardware(false);
    EXPECT_EQ(upgrader->numIsdn, 2);
    EXPECT_EQ(Get("hwinfo"), "other=1|");
}

TEST_F(Hardware, LineCountsAreReadOrKeepTheirDefaults) {
    const struct {
        const char* fxs;  // null: no such file
        int numFxs;
        const char* linesDir;
        const char* failed;
    } cases[] = {
        {"16\n", 16, "16-lines/", ""},         {"2\n", 2, "02-lines/", ""},
        {"8\n", 8, "04-lines/", ""},           {"1000\n", 4, "04-lines/", "\tcan't read "},
        {"", 4, "04-lines/", "\tcan't read "}, {nullptr, 4, "04-lines/", "\tcan't open "},
    };
    site.Write(site.appliance.fxoNumber, "6\n");
    for (const auto& test : cases) {
        site.Remove(site.appliance.fxsNumber);
        if (test.fxs != nullptr)
            site.Write(site.appliance.fxsNumber, test.fxs);
        Open("3.0.1").ProbeLineCounts();
        EXPECT_EQ(upgrader->numFxs, test.numFxs);
        EXPECT_EQ(upgrader->numFxo, 6);
        EXPECT_EQ(upgrader->linesDir, test.linesDir);
        const std::string failed = test.failed;
        EXPECT_EQ(upgrader->report,
                  (failed.empty() ? "\t" : failed + site.appliance.fxsNumber + " ") +
                      "number of fxs is set " + std::to_string(test.numFxs) +
                      (failed.empty() ? "" : "(default)") +
                      "\n\tnumber of fxo is set 6\n\tNum of FXS lines depending cfg path is " +
                      test.linesDir + "\n");
    }
}
