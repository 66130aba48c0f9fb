#include <gtest/gtest.h>

#include "steps/hardware/hw_info.h"
#include "tests/support/site.h"

TEST(HardwareProbe, ReadsBoardsFromHwInfo) {
    struct Case {
        const char* text;
        bool e1t1;
        bool fxo;
        bool fxoTold;
        int isdn;
        unsigned isdnTotal;
    };
    const Case cases[] = {
        {"", false, false, false, 0, 0},
        {"STUFFED_E1T1_CO 2\n", true, false, false, 0, 0},
        {"STUFFED_E1T1_CO 0\nSTUFFED_E1 YES\n", true, false, false, 0, 0},
        {"STUFFED_E1T1_CO 2 \nSTUFFED_E1 NO\n", false, false, false, 0, 0},
        {"STUFFED_E1 NO\nSTUFFED_T1=YES\n", true, false, false, 0, 0},
        {"STUFFED_T1 YES\n", false, false, false, 0, 0},
        {"STUFFED_E1 maybe\nSTUFFED_T1 YES\n", false, false, false, 0, 0},
        {"STUFFED_FXO YES\nSTUFFED_FXO_FXO NO\n", false, true, true, 0, 0},
        {"STUFFED_FXO=NO\nSTUFFED_FXO_FXO=YES\n", false, true, true, 0, 0},
        {"STUFFED_FXO NO\n", false, false, true, 0, 0},
        {"STUFFED_ISDN=2\nSTUFFED_FXO_ISDN 1\n", false, false, false, 2, 3},
        {"STUFFED_ISDN -2\nSTUFFED_FXO_ISDN x\n", false, false, false, 0, 0},
        {"STUFFED_ISDN 4", false, false, false, 4, 4},
    };
    for (const Case& test : cases) {
        const HwFacts facts = ParseHwInfo(test.text);
        EXPECT_EQ(facts.e1t1, test.e1t1) << test.text;
        EXPECT_EQ(facts.fxo, test.fxo) << test.text;
        EXPECT_EQ(facts.fxoTold, test.fxoTold) << test.text;
        EXPECT_EQ(facts.isdn, test.isdn) << test.text;
        EXPECT_EQ(facts.isdnTotal, test.isdnTotal) << test.text;
    }
}

TEST(HardwareProbe, SwitchesInterfacesToWhatIsThere) {
    struct Case {
        const char* hwInfo;
        const char* before;  // fxo_on, isdn_on, e1t1_on
        const char* after;
        const char* isdnCount;
    };
    const Case cases[] = {
        {"STUFFED_E1 YES\n", "100", "001", "(absent)"},
        {"STUFFED_E1 YES\nSTUFFED_ISDN 2\n", "100", "010", "2"},
        {"STUFFED_FXO YES\n", "010", "100", "(absent)"},
        {"STUFFED_ISDN 1\nSTUFFED_FXO_ISDN 2\n", "001", "010", "3"},
        {"", "111", "000", "(absent)"},
        {"STUFFED_FXO YES\n", "000", "000", "(absent)"},
    };
    for (const Case& test : cases) {
        Site site;
        site.Write(site.appliance.hwInfo, test.hwInfo);
        auto upgrader = site.Upgrader("3.0.1");
        const char* entries[] = {"fxo_on", "isdn_on", "e1t1_on"};
        ASSERT_TRUE(upgrader->lineDb->GotoSection("general"));
        upgrader->lineDb->DeleteSectionEntry("num_of_isdn");
        for (int i = 0; i < 3; ++i)
            upgrader->lineDb->SetSectionEntry(entries[i], std::string(1, test.before[i]));
        upgrader->ProbeHardware(true);

        Configuration::MultiSectionFile saved(site.Live("linedb"), false);
        ASSERT_TRUE(saved.GotoSection("general"));
        if (std::string(test.before) != test.after || *test.isdnCount != '(') {
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(saved.GetSectionEntry(entries[i]), std::string(1, test.after[i]))
                    << test.hwInfo << entries[i];
        }
        EXPECT_EQ(saved.GetSectionEntry("num_of_isdn").value_or("(absent)"), test.isdnCount);
    }
}

TEST(HardwareProbe, WritesHwinfoInTheSecondPassOnly) {
    Site site;
    site.Write(site.Live("hwinfo"), "# old\nfxo_installed=0\nother=1\n");
    site.Write(site.appliance.hwInfo, "STUFFED_E1 NO\nSTUFFED_ISDN 2\n");
    auto upgrader = site.Upgrader("3.0.1");
    upgrader->ProbeHardware(false);
    EXPECT_EQ(upgrader->numIsdn, 2);
    EXPECT_EQ(site.Read(site.Live("hwinfo")), "# old\nfxo_installed=0\nother=1\n");
    upgrader->ProbeHardware(true);
    EXPECT_EQ(site.Read(site.Live("hwinfo")), "e1t1_installed=0\nisdn_installed=1\n");

    site.Remove(site.appliance.hwInfo);
    const std::string linedb = site.Read(site.Live("linedb"));
    upgrader->ProbeHardware(true);
    EXPECT_EQ(upgrader->report, "\tcan't open " + site.appliance.hwInfo + "\n");
    EXPECT_EQ(site.Read(site.Live("linedb")), linedb);
}

TEST(LineCounts, AreReadOrKeepTheirDefaults) {
    struct Case {
        const char* fxs;  // null: no such file
        int numFxs;
        const char* linesDir;
        const char* reported;
    };
    const Case cases[] = {
        {"16\n", 16, "16-lines/", "\tnumber of fxs is set 16\n"},
        {"2\n", 2, "02-lines/", "\tnumber of fxs is set 2\n"},
        {"8\n", 8, "04-lines/", "\tnumber of fxs is set 8\n"},
        {"1000\n", 4, "04-lines/", "\tcan't read PATH number of fxs is set 4(default)\n"},
        {"", 4, "04-lines/", "\tcan't read PATH number of fxs is set 4(default)\n"},
        {nullptr, 4, "04-lines/", "\tcan't open PATH number of fxs is set 4(default)\n"},
    };
    for (const Case& test : cases) {
        Site site;
        site.Remove(site.appliance.fxsNumber);
        if (test.fxs != nullptr)
            site.Write(site.appliance.fxsNumber, test.fxs);
        site.Write(site.appliance.fxoNumber, "6\n");
        auto upgrader = site.Upgrader("3.0.1");
        upgrader->ProbeLineCounts();
        EXPECT_EQ(upgrader->numFxs, test.numFxs);
        EXPECT_EQ(upgrader->numFxo, 6);
        EXPECT_EQ(upgrader->linesDir, test.linesDir);
        std::string reported = test.reported;
        if (const std::size_t at = reported.find("PATH"); at != std::string::npos)
            reported.replace(at, 4, site.appliance.fxsNumber);
        EXPECT_EQ(upgrader->report, reported + "\tnumber of fxo is set 6\n" +
                                        "\tNum of FXS lines depending cfg path is " +
                                        test.linesDir + "\n");
    }
}

TEST(LineCounts, UpdateRecordsThemAndDropsSurplusPorts) {
    Site site;
    site.Write(site.Live("linedb"),
               "section fxo_1\n{\n}\nsection fxo_2\n{\n}\nsection fxo_3\n{\n}\n"
               "section fxo_5\n{\n}\nsection general\n{\nnum_of_fxs=4\nnum_of_fxo=4\n}\n");
    site.Write(site.Factory("04-lines/linedb"), "section general\n{\nspecial_codecs=g\n}\n");
    auto upgrader = site.Upgrader("3.0.1");
    upgrader->UpdateLineCounts();
    EXPECT_FALSE(upgrader->linesMismatch);
    EXPECT_EQ(upgrader->report, "Number of FXS lines was set 4\n");
    EXPECT_EQ(site.Read(site.Live("linedb")),
              "section fxo_1\n{\n}\nsection fxo_5\n{\n}\nsection general\n{\nnum_of_fxs=4\n"
              "num_of_fxo=2\nspecial_codecs=g\n}\n");
    upgrader->numFxo = 4;
    upgrader->UpdateLineCounts();
    EXPECT_TRUE(upgrader->linesMismatch) << "FXO grew";
    upgrader->linesMismatch = false;
    upgrader->numFxs = 16;
    upgrader->UpdateLineCounts();
    EXPECT_TRUE(upgrader->linesMismatch) << "FXS grew";
}
