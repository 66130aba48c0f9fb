// Line, extension and caller databases, each step on its own.

#include <filesystem>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Databases : public Steps {
protected:
    void PutLines(const std::string& factory, const std::string& live) const {
        PutFactory("04-lines/linedb", factory);
        Put("linedb", live);
    }
    const std::string& CheckSections(const std::string& version, int ports) {
        extensions = {"21", "12"};
        Open(version).numFxo = ports;
        upgrader->CheckLineSections(*upgrader->lineDb, *upgrader->defaultLineDb);
        return TakeLog();
    }
    const std::string& Split() { return Run("2.3.0", &ConfigUpgrader::SplitExtensionDatabase); }
};

}  // namespace

TEST_F(Databases, GeneralSectionFollowsTheFirmware) {
    // The entry before, after, and where it is made.
    const char* const interfaces[][3] = {
        {"", "", "active_interface=,ppp0|"},
        {"active_interface=|", "active_interface=,ppp0|", ""},
        {"active_interface=ppp0,eth1|", "active_interface=ppp0,eth1|", ""},
    };
    for (const auto& [before, after, added] : interfaces) {
        PutLines("[general|special_codecs=f|sms_text=Mail|CDR_db=new|reg_status_file=n|]",
                 std::string(
                     "[general|CDR_db=old|reg_status_file=r|missed_calls_db=m|special_codecs=o|") +
                     before + "sms_text=x|]");
        Run("2.3.10", &ConfigUpgrader::CheckLineDatabase);
        EXPECT_EQ(Get("linedb"),
                  std::string(
                      "[general|CDR_db=new|reg_status_file=n|missed_calls_db=m|special_codecs=f|") +
                      after + "sms_text=Mail|sysmessages_folder=/telephony/sysmessages/en_IE|" +
                      added + "is_sip_to_routing_on=1|routing_prefix=R|]");
    }
}

TEST_F(Databases, LinesGainWhatTheFactoryHasMore) {
    PutLines(
        "[|x=1|][tone|busy=3|level=-30|modify_un=1|][line_0|line_name=Line 1|]"
        "[line_1|line_name=Line 2|][line_2|line_name=|][line_9|a=1|][fxo_9|a=1|]"
        "[nonactive_extension_list|ext_0=31|][hold|music=1|modify_un=1|time=60|]",
        "[tone|level=|][line_0|line_name=|][line_1|line_name=Shed|][line_2|a=1|line_name=x|]");
    Run("2.3.0", &ConfigUpgrader::CheckLineDatabase);
    EXPECT_EQ(Get("linedb"),
              "[tone|level=|busy=3|][line_0|line_name=Line 1|][line_1|line_name=Shed|]"
              "[line_2|a=1|line_name=x|][hold|music=1|time=60|]")
        << "without a general section no gate makes one";
    EXPECT_EQ(
        log,
        "\n=== linedb check ===\n"
        "\t- added entry \"busy\" with value \"3\" to section \"tone\" from default-conf\n"
        "\t- update empty entry \"line_name\" with value \"Line 1\" to section \"line_0\" from "
        "default-conf\n"
        "\t- section \"hold\" doesn't exist,- copy from default-conf will be set\n\n Done...\n");
}

TEST_F(Databases, LinesAreRestoredWhenTheyCannotBeRead) {
    for (const int result : {-1, 127, 0}) {
        Open("5.0.0").lineDb.reset();
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
        Put("linedb", "");
    }
}

TEST_F(Databases, LinesAreAddedUnattachedAndStrangersDetached) {
    PutLines("[line_0|extension=11|][line_1|extension=12|line_name=Line 2|][line_2|][tone|a=1|]",
             "[line_0|extension=21|][line_5|extension=35|][line_6|extension=|][line_7|a=1|]");
    CheckSections("5.0.0", 0);
    EXPECT_EQ(Get("linedb"),
              "[line_0|extension=21|][line_5|extension=|][line_6|extension=|][line_7|a=1|]"
              "[line_1|extension=|line_name=Line 2|][line_2|]");
    EXPECT_TRUE(
        Holds(log,
              "\n=== Lines sections check... ===\n\t/////////adding section line_1 /////////\n"
              "\t       ---------adding entries-------\n"
              "\t__________________________________________\n\t\ttoken\t\t\tvalue\n"
              "\textension\t\t\t12\n\tline_name\t\t\tLine 2\n"
              "\tclearing extension entry(12)\n\t///////Done///////\n\n"));
    // An empty one is in no list.
    EXPECT_EQ(Count(log, "\tfound unknown extension attached to line \"line_"), 3) << log;
}

TEST_F(Databases, ExchangePortsRingTheAttendantAndEchoTailsGoTwoWays) {
    PutLines("[fxo_0|line_name=E1|extension=11|][fxo_1|line_name=E2|v_activity_detect_on=0|]",
             "[fxo_0|extension=21|dsp_echo_cancel_tail=0|][line_0|dsp_echo_cancel_tail=6|]"
             "[line_1|dsp_echo_cancel_tail=0|][line_2|dsp_echo_cancel_tail=16|]"
             "[fxo_3|dsp_echo_cancel_tail=0|][fxo_2|dsp_echo_cancel_tail=6|extension=x|]");
    CheckSections("3.0.99", 0);
    const std::string lines =
        "[line_0|dsp_echo_cancel_tail=48|][line_1|dsp_echo_cancel_tail=0|]"
        "[line_2|dsp_echo_cancel_tail=16|][fxo_3|dsp_echo_cancel_tail=0|]";
    EXPECT_EQ(Get("linedb"), "[fxo_0|extension=21|dsp_echo_cancel_tail=0|]" + lines +
                                 "[fxo_2|dsp_echo_cancel_tail=6|extension=x|]")
        << "no port";
    Put("linedb", "[fxo_0|extension=21|dsp_echo_cancel_tail=0|]" + lines);
    CheckSections("3.0.99", 3);
    EXPECT_EQ(Get("linedb"),
              "[fxo_0|extension=21|dsp_echo_cancel_tail=64|v_activity_detect_on=1|]" + lines +
                  "[fxo_1|line_name=E2|v_activity_detect_on=1|extension=00|]"
                  "[fxo_2|line_name=E1|extension=00|v_activity_detect_on=1|]");
    EXPECT_EQ(Count(log, "\tadding section fxo_"), 2);
    EXPECT_TRUE(Holds(log,
                      "\t- value of entry \"dsp_echo_cancel_tail\" changed to \"64\" in "
                      "section \"fxo_0\"\n"));
}

TEST_F(Databases, SplitKeepsWhatItCannotMove) {
    const std::string attendant = "[attendant|extension=00|codec=PCMA|]";
    Put("linedb", attendant + "[line_0|extension=21|codec=G729|]");
    Put("extensiondb", "[00|fn_number=00|][21|fn_number=21|isdn_data=i|][12|fn_number=12|]");
    Unmakeable("00");
    Split();
    EXPECT_EQ(Get("linedb"), attendant + "[line_0|extension=21|codec=G729|]");
    EXPECT_EQ(Get("extensiondb"),
              "[00|fn_number=00|][12|fn_number=12|][attendant|att_0=00|]"
              "[extension|ext_21=21|ext_12=12|]");
    EXPECT_EQ(Get("21/codecsdb") + Get("21/pstnaccessdb"), "codec=G729|isdn_data=i|");
    EXPECT_EQ(Count(log, "\tCan't save file: " + site.Live("12/")), 5) << "it has no directory";
    EXPECT_TRUE(Holds(log,
                      "\n=== extensiondb check ===\n\textensiondb needs to be splited\n"
                      "\tFor extension - 00\nCan't create directory " +
                          site.Live("00") + "\n\tcreating/editing file: \"personaldatadb\"\n" +
                          "\tCan't save file: " + site.Live("00/personaldatadb") + "\n"))
        << log;
    EXPECT_TRUE(Holds(log, "\t\t-- done --\n\tFor extension - 21\n\tcreating/editing file: \"co"));
}

TEST_F(Databases, SplitGivesAnAttendantOutsideLinedbItsOwnEntries) {
    PutLines("", "[line_0|extension=21|][line_1|]");
    Put("extensiondb", "[00|fn_number=00|user_id=7|]");
    Split();
    EXPECT_EQ(Get("00/personaldatadb"), "fn_number=00|");
    EXPECT_EQ(Get("00/sipsettingsdb"), "user_id=7|");
    EXPECT_FALSE(Has("00/codecsdb"));
    EXPECT_EQ(Get("extensiondb"), "[attendant|att_0=00|][extension|]");
}

TEST_F(Databases, SplitEndsAtAMalformedFileAndLosesNothing) {
    Put("22/servicesdb", malformed);
    const std::string extensiondb = Get("extensiondb");
    const std::string linedb = Get("linedb");
    EXPECT_TRUE(Holds(Split(), "\t" + site.Live("22/servicesdb") + ", line "));
    EXPECT_FALSE(Holds(log, "\n Done...\n"));
    EXPECT_EQ(Get("22/servicesdb"), malformed);
    // A later step that saves the databases must not save half a split either.
    upgrader->Save(*upgrader->extensionDb);
    upgrader->Save(*upgrader->lineDb);
    EXPECT_EQ(Get("extensiondb"), extensiondb);
    EXPECT_EQ(Get("linedb"), linedb);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "23", "11", "12"}));

    Put("22/servicesdb", "");
    Split();
    EXPECT_FALSE(Holds(Get("extensiondb"), "[22|"));
    EXPECT_TRUE(Holds(Get("22/servicesdb"), "auto_call_type=PSTN|"));
    EXPECT_EQ(Get("00/codecsdb"), "codec=PCMA,PCMU|fax_codecs=T38|special_codecs=G729|");
    EXPECT_TRUE(Holds(Get("00/servicesdb"), "att_rout_support=1|"));
}

TEST_F(Databases, SplitKeepsHostileSectionNamesInTheFile) {
    const std::string hostile =
        "[../x|password=1|][..|password=2|][21/../y|password=3|][.|password=4|][|password=5|]"
        "[a=b|password=7|]";
    for (const char* name : {"../x", "y", "a=b"})
        fs::create_directories(site.Live(name));
    Put("extensiondb", hostile + "[21|password=6|]");
    Split();
    EXPECT_EQ(Get("extensiondb"), hostile + "[attendant|att_0=00|][extension|ext_21=21|]");
    for (const char* name : {"../x/", "../", "y/", "", "a=b/"})
        EXPECT_FALSE(Has(name + std::string("personaldatadb"))) << name;
    EXPECT_EQ(upgrader->liveExtensions, Names{"21"});
}

TEST_F(Databases, ASplitDatabaseIsOnlyRead) {
    Put("extensiondb",
        "[sle|s=81|t=21|][paging|p=77|][pickup|p=|q=75|][callpark|c=71|r=../x|]"
        "[extension|a=21|b=22|][attendant|att_0=00|][23|fn_number=23|]");
    const std::vector<std::string> before = site.Snapshot();
    EXPECT_EQ(Split(), "\n=== extensiondb check ===\n");
    EXPECT_EQ(site.Snapshot(), before);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "71", "75", "77", "81"}));
    EXPECT_EQ(upgrader->routingExtensions, (Names{"21", "22"}));
}

TEST_F(Databases, CallerWalkNumbersRecordsEndsInLoopsAndPassesAMalformedFile) {
    Remove("");
    const std::string old = "[|section_id=7|][b|]";
    const std::string numbered = "[|section_id=1|][b|section_id=2|]";
    for (const char* name : {"autologindb", "patterndb", "21/deep/huntdb", "22/huntdb", "otherdb"})
        Put(name, old);
    for (const char* name : {"linedb", "extensiondb", "22/speedcalldb"})
        Put(name, "");
    Put("22/anonymousdb", malformed);
    fs::create_symlink(".", site.Live("here"));
    fs::create_symlink("..", site.Live("21/up"));
    fs::create_symlink("../../22", site.Live("21/deep/aside"));
    fs::create_symlink("nowhere", site.Live("externaluserdb"));
    Run("2.3.0", &ConfigUpgrader::ProcessMergeList);
    for (const char* name : {"autologindb", "patterndb", "21/deep/huntdb", "22/huntdb"})
        EXPECT_EQ(Get(name), numbered) << name;
    EXPECT_EQ(Get("otherdb") + Get("22/speedcalldb") + Get("22/anonymousdb"), old + malformed);
    EXPECT_EQ(Count(log, "\tAdding sections id 2 to file "), 4) << log;
    EXPECT_EQ(Count(log, "=== services check for "), 5);
    EXPECT_EQ(Count(log, "MINOR ERROR: Invalid file: " + site.Live("")), 1);
    EXPECT_EQ(Count(log, "anonymousdb"), 1) << "one error line, no header";

    const std::string path = site.Live("autologindb");
    Put("autologindb", malformed);
    EXPECT_EQ(Run("2.3.6", &ConfigUpgrader::ProcessMergeList),
              "MINOR ERROR: Invalid file: " + path + "\n");
    EXPECT_EQ(Get("autologindb"), malformed);
    Remove("autologindb");
    EXPECT_EQ(Run("2.3.6", &ConfigUpgrader::ProcessMergeList),
              "\tFile: " + path + " not found to add section IDs\n");
    EXPECT_FALSE(Has("autologindb"));
}

TEST_F(Databases, CallerTypesAreSetWhereTheEvidenceIsPlain) {
    // The database, a record before and after (empty: as it was), and the caller that is reported.
    const char* const cases[][4] = {
        {"anonymousdb", "user_name=21|", "user_name=21|call_type=PBX|", "21 is set to type PBX"},
        {"speedcalldb", "user_name=00|call_type=|", "user_name=00|call_type=PBX|",
         "00 is set to type PBX"},
        {"blockedinnumsdb", "user_name=21|user_host_address=h|",
         "user_name=21|user_host_address=h|caller_type=PBX|", "21 is set to type PBX"},
        {"blockedoutnumsdb", "user_name=555|user_host_address=h|",
         "user_name=555|user_host_address=h|caller_type=IP|", "555 is set to type IP"},
        {"distringdb", "user_name=a@b|", "user_name=a@b|caller_type=IP|", "a@b is set to type IP"},
        {"huntdb", "caller=555|user_name=21|", "caller=0555|user_name=21|caller_type=PSTN|",
         "555 is set to type PSTN"},
        {"manyextringdb", "caller=0209|", "caller=00209|caller_type=PSTN|",
         "0209 is set to type PSTN"},
        {"forwardlistdb", "caller=21|", "caller=21|caller_type=PBX|", "21 is set to type PBX"},
        {"huntdb", "caller=555|caller_type=IP|", "", ""},
        {"huntdb", "caller=any|user_host_address=h|", "", ""},
        {"huntdb", "caller=|user_host_address=h|", "", ""},
        {"huntdb", "user_name=555|", "", ""},
        {"huntdb", "caller=+55|", "", ""},
        {"patterndb", "user_name=555|caller=555|", "", ""},
        {"autologindb", "user_name=21|", "", ""},
    };
    extensions = {"21"};
    attendants = {"00"};
    for (const auto& [database, before, after, reported] : cases) {
        const std::string name = std::string("21/") + database;
        Put(name, std::string("[a|") + before + "]");
        Open("2.3.0").CheckCallerDatabases(site.Live("21"), database);
        EXPECT_EQ(Get(name),
                  std::string("[a|") + (*after != '\0' ? after : before) + "section_id=1|]");
        const std::string line = *after != '\0' ? std::string("\tcaller ") + reported + "\n" : "";
        EXPECT_EQ(TakeLog(), std::string("\n=== services check for ") + database + " ===\n" + line +
                                 "\n Done...\n\tAdding sections id 1 to file " + site.Live(name) +
                                 "\n");
    }
}
