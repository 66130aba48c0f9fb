#include "steps/hardware/hw_info.h"
#include "tests/support/steps.h"

namespace {

class Hardware : public Steps {};

}  // namespace

TEST_F(Hardware, BoardsAreReadFromHwInfo) {
    // E1/T1, FXO, whether FXO was told of, ISDN boards of the unit and in all.
    const std::pair<const char*, const char*> cases[] = {
        {"", "00000"},
        {"STUFFED_E1T1_CO 2\n", "10000"},
        {"STUFFED_E1T1_CO 0\nSTUFFED_E1 YES\n", "10000"},
        {"STUFFED_E1T1_CO 2 \nSTUFFED_E1 NO\n", "00000"},
        {"STUFFED_E1 NO\nSTUFFED_T1=YES\n", "10000"},
        {"STUFFED_E1 maybe\nSTUFFED_T1 YES\n", "00000"},
        {"STUFFED_FXO YES\nSTUFFED_FXO_FXO NO\n", "01100"},
        {"STUFFED_FXO=NO\nSTUFFED_FXO_FXO=YES\n", "01100"},
        {"STUFFED_FXO NO\n", "00100"},
        {"STUFFED_ISDN=2\nSTUFFED_FXO_ISDN 1\n", "00023"},
        {"STUFFED_ISDN -2\nSTUFFED_FXO_ISDN x\n", "00000"},
        {"STUFFED_ISDN 4", "00044"},
    };
    for (const auto& [text, expected] : cases) {
        const HwFacts facts = ParseHwInfo(text);
        std::string told;
        for (const bool fact : {facts.e1t1, facts.fxo, facts.fxoTold})
            told += fact ? '1' : '0';
        EXPECT_EQ(told + std::to_string(facts.isdn) + std::to_string(facts.isdnTotal), expected)
            << text;
    }
}

TEST_F(Hardware, InterfacesAreSwitchedToWhatIsThere) {
    const char* const cases[][3] = {
        {"STUFFED_E1 YES\n", "fxo_on=1|isdn_on=0|e1t1_on=0|", "fxo_on=0|isdn_on=0|e1t1_on=1|"},
        {"STUFFED_E1 YES\nSTUFFED_ISDN 2\n", "fxo_on=1|isdn_on=0|e1t1_on=0|",
         "fxo_on=0|isdn_on=1|e1t1_on=0|num_of_isdn=2|"},
        {"STUFFED_FXO YES\nSTUFFED_ISDN 2\n", "fxo_on=0|isdn_on=0|e1t1_on=1|",
         "fxo_on=1|isdn_on=0|e1t1_on=0|num_of_isdn=2|"},
        {"STUFFED_ISDN 1\nSTUFFED_FXO_ISDN 2\n", "fxo_on=0|isdn_on=0|e1t1_on=1|",
         "fxo_on=0|isdn_on=1|e1t1_on=0|num_of_isdn=3|"},
        {"", "fxo_on=1|isdn_on=1|e1t1_on=1|", "fxo_on=0|isdn_on=0|e1t1_on=0|"},
        {"STUFFED_FXO YES\n", "fxo_on=0|isdn_on=0|", "fxo_on=0|isdn_on=0|"},
    };
    for (const auto& [hwInfo, before, after] : cases) {
        site.Write(site.appliance.hwInfo, hwInfo);
        Put("linedb", std::string("[general|") + before + "]");
        Open("3.0.1").ProbeHardware(true);
        EXPECT_EQ(Get("linedb"), std::string("[general|") + after + "]") << hwInfo;
    }
}

TEST_F(Hardware, HwinfoIsWrittenInTheSecondPassOnly) {
    const std::string old = "# old|fxo_installed=0|other=1|";
    Put("hwinfo", old);
    site.Write(site.appliance.hwInfo, "STUFFED_E1 NO\nSTUFFED_ISDN 2\n");
    Open("3.0.1").ProbeHardware(false);
    EXPECT_EQ(upgrader->numIsdn, 2);
    EXPECT_EQ(Get("hwinfo"), old);
    upgrader->ProbeHardware(true);
    EXPECT_EQ(Get("hwinfo"), "e1t1_installed=0|isdn_installed=1|");

    site.Remove(site.appliance.hwInfo);
    const std::string linedb = Get("linedb");
    upgrader->ProbeHardware(true);
    EXPECT_EQ(upgrader->report, "\tcan't open " + site.appliance.hwInfo + "\n");
    EXPECT_EQ(Get("linedb"), linedb);
}

TEST_F(Hardware, LineCountsAreReadOrKeepTheirDefaults) {
    struct Case {
        const char* fxs;  // null: no such file
        int numFxs;
        const char* linesDir;
        const char* reported;
    };
    const Case cases[] = {
        {"16\n", 16, "16-lines/", ""},         {"2\n", 2, "02-lines/", ""},
        {"8\n", 8, "04-lines/", ""},           {"1000\n", 4, "04-lines/", "\tcan't read "},
        {"", 4, "04-lines/", "\tcan't read "}, {nullptr, 4, "04-lines/", "\tcan't open "},
    };
    site.Write(site.appliance.fxoNumber, "6\n");
    for (const Case& test : cases) {
        site.Remove(site.appliance.fxsNumber);
        if (test.fxs != nullptr)
            site.Write(site.appliance.fxsNumber, test.fxs);
        Open("3.0.1").ProbeLineCounts();
        EXPECT_EQ(upgrader->numFxs, test.numFxs);
        EXPECT_EQ(upgrader->numFxo, 6);
        EXPECT_EQ(upgrader->linesDir, test.linesDir);
        const std::string count = "number of fxs is set " + std::to_string(test.numFxs);
        EXPECT_EQ(upgrader->report,
                  (*test.reported == '\0'
                       ? "\t" + count
                       : test.reported + site.appliance.fxsNumber + " " + count + "(default)") +
                      "\n\tnumber of fxo is set 6\n\tNum of FXS lines depending cfg path is " +
                      test.linesDir + "\n");
    }
}

TEST_F(Hardware, LineCountsAreRecordedAndSurplusPortsDropped) {
    Put("linedb",
        "[fxo_1|][fxo_2|][fxo_3|][fxo_5|][general|num_of_fxs=4|num_of_fxo=4|special_codecs=x|]");
    PutFactory("04-lines/linedb", "[general|special_codecs=g|]");
    Open("3.0.1").UpdateLineCounts();
    EXPECT_FALSE(upgrader->linesMismatch);
    EXPECT_EQ(upgrader->report, "Number of FXS lines was set 4\n");
    EXPECT_EQ(Get("linedb"),
              "[fxo_1|][fxo_5|][general|num_of_fxs=4|num_of_fxo=2|special_codecs=g|]");
    upgrader->numFxo = 4;
    upgrader->UpdateLineCounts();
    EXPECT_TRUE(upgrader->linesMismatch) << "FXO grew";
    upgrader->linesMismatch = false;
    upgrader->numFxs = 16;
    upgrader->UpdateLineCounts();
    EXPECT_TRUE(upgrader->linesMismatch) << "FXS grew";
}
