// Line, extension and caller databases, each step on its own.

#include <filesystem>
#include <gtest/gtest.h>

#include "tests/support/site.h"

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

constexpr const char* malformed = "section open\n{\nkey=value\n";

std::string Section(const std::string& name, const std::string& entries) {
    return "section " + name + "\n{\n" + entries + "}\n";
}

int Count(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

class Databases : public testing::Test {
protected:
    void Open(const std::string& version) {
        upgrader = site.Upgrader(version);
        upgrader->systemLanguage = "en_IE";
        upgrader->attendantExtension = "00";
        upgrader->liveExtensions.clear();
    }
    void WriteLines(const std::string& factory, const std::string& live) const {
        site.Write(site.Factory("04-lines/linedb"), factory);
        site.Write(site.Live("linedb"), live);
    }
    std::string CheckLines(const std::string& version) {
        Open(version);
        upgrader->CheckLineDatabase();
        return site.TakeLog(*upgrader);
    }
    std::string CheckSections(const std::string& version, int ports) {
        Open(version);
        upgrader->liveExtensions = {"21", "12"};
        upgrader->numFxo = ports;
        upgrader->CheckLineSections(*upgrader->lineDb, *upgrader->defaultLineDb);
        return site.TakeLog(*upgrader);
    }
    std::string Split() {
        Open("2.3.0");
        upgrader->SplitExtensionDatabase();
        return site.TakeLog(*upgrader);
    }
    std::string Live(const std::string& name) const { return site.Read(site.Live(name)); }
    std::string Value(const std::string& name, const std::string& section,
                      const std::string& key) const {
        Configuration::MultiSectionFile file(site.Live(name));
        return file.GotoSection(section) ? file.GetSectionEntry(key).value_or("(absent)")
                                         : "(no section)";
    }

    Site site;
    std::unique_ptr<ConfigUpgrader> upgrader;
};

TEST_F(Databases, LineGatesHoldBelowTheirVersionOnly) {
    const char* const cases[][4] = {
        {"2.3.11", "2.3.10", "special_codecs", "factory"},
        {"2.3.11", "2.3.10", "active_interface", "office,ppp0"},
        {"3.0.1", "3.0.0", "is_sip_to_routing_on", "1"},
        {"3.0.7", "3.0.6", "routing_prefix", "R"},
        {"3.0.11", "3.0.10", "sysmessages_folder", "/telephony/sysmessages/en_IE"},
        {"3.1.22", "3.1.21", "sms_text", "Mail"},
    };
    for (const auto& [gate, below, key, then] : cases) {
        for (const char* version : {gate, below}) {
            const std::string rest = "CDR_db=old\nreg_status_file=r\n";
            WriteLines(Section("general", "special_codecs=factory\nsms_text=Mail\nCDR_db=new\n"),
                       Section("general", std::string(key) + "=office\n" + rest));
            CheckLines(version);
            EXPECT_EQ(Value("linedb", "general", key), version == gate ? "office" : then) << key;
            EXPECT_EQ(Value("linedb", "general", "CDR_db"), "new") << "follows the firmware always";
            EXPECT_EQ(Value("linedb", "general", "reg_status_file"), "r") << "factory has none";
        }
    }
    WriteLines("", Section("nonactive_extension_list", "ext_0=31\n"));
    CheckLines("2.4.11");
    EXPECT_EQ(Value("linedb", "nonactive_extension_list", "ext_0"), "31");
    CheckLines("2.4.10");
    EXPECT_EQ(Live("linedb"), "");
}

TEST_F(Databases, ActiveInterfaceGainsPppOnce) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ",ppp0"},
        {"active_interface=\n", ",ppp0"},
        {"active_interface=ppp0,eth1\n", "ppp0,eth1"},
    };
    for (const auto& [before, after] : cases) {
        WriteLines(Section("general", ""), Section("general", before));
        EXPECT_TRUE(Holds(CheckLines("2.3.10"),
                          "\tSet sysmessages_folder = /telephony/sysmessages/en_IE\n"));
        EXPECT_EQ(Value("linedb", "general", "active_interface"), after);
    }
}

TEST_F(Databases, LinesGainWhatTheFactoryHasMore) {
    WriteLines("section\n{\nx=1\n}\n" + Section("tone", "busy=3\nlevel=-30\nmodify_un=1\n") +
                   Section("line_0", "line_name=Line 1\n") +
                   Section("line_1", "line_name=Line 2\n") + Section("line_2", "line_name=\n") +
                   Section("line_9", "a=1\n") + Section("fxo_9", "a=1\n") +
                   Section("nonactive_extension_list", "ext_0=31\n") +
                   Section("hold", "music=1\ntime=60\n"),
               Section("tone", "level=\n") + Section("line_0", "line_name=\n") +
                   Section("line_1", "line_name=Shed\n") + Section("line_2", "a=1\n"));
    const std::string log = CheckLines("2.3.0");
    EXPECT_EQ(Live("linedb"),
              Section("tone", "level=\nbusy=3\n") + Section("line_0", "line_name=Line 1\n") +
                  Section("line_1", "line_name=Shed\n") + Section("line_2", "a=1\nline_name=\n") +
                  Section("hold", "music=1\ntime=60\n"))
        << "without a general section no gate makes one";
    EXPECT_EQ(
        log,
        "\n=== linedb check ===\n"
        "\t- added entry \"busy\" with value \"3\" to section \"tone\" from default-conf\n"
        "\t- update empty entry \"line_name\" with value \"Line 1\" to section \"line_0\" from "
        "default-conf\n"
        "\t- added entry \"line_name\" with value \"\" to section \"line_2\" from default-conf\n"
        "\t- section \"hold\" doesn't exist,- copy from default-conf will be set\n"
        "\n Done...\n");
}

TEST_F(Databases, ModifyUnIsNotAddedWithASectionEither) {
    WriteLines(Section("general", "modify_un=1\na=1\n"), "");
    CheckLines("5.0.0");
    EXPECT_EQ(Live("linedb"), Section("general", "a=1\n"));
}

TEST_F(Databases, LinesAreRestoredWhenTheyCannotBeRead) {
    for (const int result : {-1, 127, 0}) {
        Open("5.0.0");
        upgrader->lineDb.reset();
        site.Write(site.Live("linedb"), malformed);
        if (result != 0)
            upgrader->appliance.runShell = [&](const std::string&) { return result; };
        upgrader->CheckLineDatabase();
        const std::string log = site.TakeLog(*upgrader);
        EXPECT_TRUE(Holds(log, "\tfile linedb doesn't exist or corrupted, copying from default"));
        EXPECT_EQ(Holds(log, "\tCan't copy linedb from default-conf, probably a problem with "),
                  result != 0);
        EXPECT_EQ(Holds(log, "\n Done...\n"), result == 0);
        EXPECT_EQ(site.Exists(site.Live("linedb")), result == 0);
        site.Write(site.Live("linedb"), "");
    }
}

TEST_F(Databases, LinesAreAddedUnattachedAndStrangersDetached) {
    WriteLines(Section("line_0", "extension=11\n") +
                   Section("line_1", "extension=12\nline_name=Line 2\n") + Section("line_2", ""),
               Section("line_0", "extension=21\n") + Section("line_5", "extension=35\n") +
                   Section("line_6", "extension=\n") + Section("line_7", "flash_time=1\n"));
    const std::string log = CheckSections("5.0.0", 0);
    EXPECT_EQ(Live("linedb"),
              Section("line_0", "extension=21\n") + Section("line_5", "extension=\n") +
                  Section("line_6", "extension=\n") + Section("line_7", "flash_time=1\n") +
                  Section("line_1", "extension=\nline_name=Line 2\n") + Section("line_2", ""));
    const std::string head =
        " /////////\n\t       ---------adding entries-------\n"
        "\t__________________________________________\n\t\ttoken\t\t\tvalue\n";
    std::string expected = "\n=== Lines sections check... ===\n\t/////////adding section line_1" +
                           head + "\textension\t\t\t12\n\tline_name\t\t\tLine 2\n" +
                           "\tclearing extension entry(12)\n\t///////Done///////\n\n" +
                           "\t/////////adding section line_2" + head + "\t///////Done///////\n\n";
    for (const char* line : {"line_5", "line_6", "line_1"})  // an empty one is in no list
        expected += std::string("\tfound unknown extension attached to line \"") + line +
                    "\" in linedb, it's being deleted\n";
    EXPECT_EQ(log, expected + "\n Done...\n");
}

TEST_F(Databases, EchoTailsGoTwoWays) {
    const char* const cases[][4] = {
        {"3.1.24", "line_0", "6", "48"}, {"3.1.25", "line_0", "6", "6"},
        {"3.1.24", "line_0", "0", "0"},  {"3.1.24", "line_0", "16", "16"},
        {"3.1.24", "fxo_0", "0", "64"},  {"3.1.25", "fxo_0", "0", "0"},
        {"3.1.24", "fxo_0", "6", "6"},   {"3.1.24", "fxo_1", "0", "0"},
    };
    for (const auto& [version, section, before, after] : cases) {
        const std::string key = "dsp_echo_cancel_tail";
        WriteLines("", Section(section, key + "=" + before + "\n"));
        const std::string log = CheckSections(version, 1);
        EXPECT_EQ(Value("linedb", section, key), after) << version << section << before;
        EXPECT_EQ(Holds(log, "\t- value of entry \"" + key + "\" changed to \"" + after +
                                 "\" in section \"" + section + "\"\n"),
                  std::string(before) != after);
    }
}

TEST_F(Databases, NewExchangePortsRingTheAttendant) {
    for (const std::string version : {"3.0.99", "3.1.0"}) {
        const std::string live = Section("fxo_0", "extension=21\nv_activity_detect_on=0\n");
        WriteLines(Section("fxo_0", "line_name=E1\nextension=11\nv_activity_detect_on=0\n") +
                       Section("fxo_1", "line_name=E2\nv_activity_detect_on=0\n"),
                   live);
        CheckSections(version, 0);
        EXPECT_EQ(Live("linedb"), live) << "no port";
        const std::string log = CheckSections(version, 3);
        const std::string on =
            version == "3.1.0" ? "v_activity_detect_on=0\n" : "v_activity_detect_on=1\n";
        EXPECT_EQ(Live("linedb"), Section("fxo_0", "extension=21\n" + on) +
                                      Section("fxo_1", "line_name=E2\n" + on + "extension=00\n") +
                                      Section("fxo_2", "line_name=E1\nextension=00\n" + on));
        EXPECT_EQ(Count(log, "\tadding section fxo_"), 2);
        EXPECT_EQ(Count(log, "\t- value of entry \"v_activity_detect_on\" changed to \"1\" in"),
                  version == "3.1.0" ? 0 : 3);
    }
}

TEST_F(Databases, SplitMovesTheSampleIntoDirectories) {
    Configuration::MultiSectionFile old(site.Live("extensiondb"));
    const std::string log = Split();
    const auto fileOf = [](const std::string& key) {
        const std::pair<const char*, std::string> files[] = {
            {"personaldatadb",
             " password num_of_attempts registration_date_and_time user_display_name "
             "is_ext_shared fn_number is_call_relay_allowed "},
            {"pstnaccessdb", " fxo_channel cas_data isdn_data "},
            {"sipsettingsdb",
             " user_name SIP_password SIP_server SIP_server_port SIP_registration out_bound_host "
             "out_bound_port user_id "},
        };
        for (const auto& [file, keys] : files)
            if (Holds(keys, " " + key + " "))
                return file;
        return "servicesdb";
    };
    // No line carries 11; what it had of its own must not get lost.
    for (const std::string extension : {"00", "21", "22", "23", "11"}) {
        ASSERT_TRUE(old.GotoSection(extension));
        for (const auto& [key, value] : old.SectionEntries())
            EXPECT_TRUE(
                Holds("\n" + Live(extension + "/" + fileOf(key)), "\n" + key + "=" + value + "\n"))
                << extension << key;
        EXPECT_EQ(Value("extensiondb", extension, "fn_number"), "(no section)");
    }
    EXPECT_EQ(Live("21/codecsdb"), "codec=PCMA,PCMU\nspecial_codecs=G729\nfax_codecs=T38,PCMA\n");
    EXPECT_EQ(Live("22/codecsdb"), "codec=PCMA\nfax_codecs=T38,PCMA\n");
    EXPECT_FALSE(Holds(Live("11/codecsdb"), "="));
    EXPECT_EQ(Live("21/servicesdb").find("special_fax_transport_on=1\n"), 0U);
    EXPECT_EQ(Live("23/servicesdb").find("special_fax_transport_on=0\n"), 0U);
    EXPECT_EQ(Live("00/personaldatadb"),
              "user_display_name=Larkfield Joinery\nfn_number=00\nnum_of_attempts=4\n");
    EXPECT_EQ(Live("00/servicesdb"),
              "att_call_reset_seq=##\nextended_menu_btn=8\nfax_transfer_on=1\next_to_fwd_fax=23\n"
              "dir_timeout=7\nis_call_back_on=1\nspecial_fax_transport_on=0\n"
              "att_ring_min_timeout=3\natt_ring_max_timeout=25\natt_call_back_timeout=45\n"
              "att_rout_support=1\n");
    EXPECT_EQ(Live("00/codecsdb"), "codec=PCMA,PCMU\nfax_codecs=T38\nspecial_codecs=G729\n");

    // 12 has no directory: it keeps its section, and its number.
    EXPECT_FALSE(site.Exists(site.Live("12")));
    EXPECT_EQ(Value("extensiondb", "12", "user_display_name"), "Spare");
    for (const char* file : {"codecs", "personaldata", "pstnaccess", "services", "sipsettings"})
        EXPECT_EQ(Count(log, "\tCan't save file: " + site.Live("12/") + file + "db\n"), 1);
    EXPECT_EQ(Count(log, "\tCan't save file: "), 5);
    EXPECT_TRUE(
        Holds(Live("extensiondb"),
              Section("attendant", "att_0=00\n") +
                  Section("extension", "ext_21=21\next_22=22\next_23=23\next_11=11\next_12=12\n")));
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "23", "11", "12"}));
    EXPECT_EQ(Value("linedb", "attendant", "codec"), "(no section)");
    EXPECT_EQ(Value("linedb", "line_0", "codec"), "PCMA,PCMU");

    std::string expected =
        "\n=== extensiondb check ===\n\textensiondb needs to be splited\n"
        "\tFor extension - 00\n directory created\n";
    for (const char* file : {"personaldata", "services", "codecs", "sipsettings", "", "codecs",
                             "personaldata", "pstnaccess", "services", "sipsettings"})
        expected += *file == '\0' ? "\t\t-- done --\n\tFor extension - 21\n"
                                  : std::string("\tcreating/editing file: \"") + file + "db\"\n";
    EXPECT_TRUE(Holds(log, expected + "\t\t-- done --\n")) << log;
    EXPECT_TRUE(Holds(log, "\n Done...\n"));
}

TEST_F(Databases, SplitLeavesAnAttendantThatCannotBeSaved) {
    fs::create_symlink("nowhere", site.Live("00"));
    const std::string attendant = Section("attendant", "extension=00\ncodec=PCMA\n");
    site.Write(site.Live("linedb"), attendant);
    site.Write(site.Live("extensiondb"), Section("00", "fn_number=00\n"));
    EXPECT_TRUE(Holds(Split(), "Can't create directory " + site.Live("00") + "\n"));
    EXPECT_EQ(Live("linedb"), attendant);
    EXPECT_EQ(Live("extensiondb"), Section("00", "fn_number=00\n") +
                                       Section("attendant", "att_0=00\n") +
                                       Section("extension", ""));
}

TEST_F(Databases, SplitEndsAtAMalformedFileAndLosesNothing) {
    site.Write(site.Live("22/servicesdb"), malformed);
    const std::string extensiondb = Live("extensiondb");
    const std::string linedb = Live("linedb");
    const std::string log = Split();
    EXPECT_TRUE(Holds(log, "\t" + site.Live("22/servicesdb") + ", line "));
    EXPECT_FALSE(Holds(log, "\n Done...\n"));
    EXPECT_EQ(Live("22/servicesdb"), malformed);
    // A later step that saves the databases must not save half a split either.
    upgrader->Save(*upgrader->extensionDb);
    upgrader->Save(*upgrader->lineDb);
    EXPECT_EQ(Live("extensiondb"), extensiondb);
    EXPECT_EQ(Live("linedb"), linedb);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "23", "11", "12"}));

    site.Write(site.Live("22/servicesdb"), "");
    Split();
    EXPECT_EQ(Value("extensiondb", "22", "fn_number"), "(no section)");
    EXPECT_TRUE(Holds(Live("22/servicesdb"), "auto_call_type=PSTN\n"));
    EXPECT_TRUE(Holds(Live("00/codecsdb"), "codec=PCMA,PCMU\n"));
}

TEST_F(Databases, SplitKeepsHostileSectionNamesInTheFile) {
    const std::string hostile = Section("../x", "password=1\n") + Section("..", "password=2\n") +
                                Section("21/../y", "password=3\n") + Section(".", "password=4\n") +
                                "section\n{\npassword=5\n}\n";
    for (const char* name : {"../x", "y"})
        fs::create_directories(site.Live(name));
    site.Write(site.Live("extensiondb"), hostile + Section("21", "password=6\n"));
    Split();
    EXPECT_EQ(Live("extensiondb"),
              hostile + Section("attendant", "att_0=00\n") + Section("extension", "ext_21=21\n"));
    for (const char* name : {"../x/", "../", "y/", ""})
        EXPECT_FALSE(site.Exists(site.Live(name) + "personaldatadb")) << name;
    EXPECT_EQ(upgrader->liveExtensions, Names{"21"});
}

TEST_F(Databases, ASplitDatabaseIsOnlyRead) {
    site.Write(site.Live("extensiondb"),
               Section("sle", "s=81\nt=21\n") + Section("paging", "p=77\n") +
                   Section("pickup", "p=\nq=75\n") + Section("callpark", "c=71\n") +
                   Section("extension", "a=21\nb=22\n") + Section("attendant", "att_0=00\n") +
                   Section("23", "fn_number=23\n"));
    const std::vector<std::string> before = site.Snapshot();
    EXPECT_EQ(Split(), "\n=== extensiondb check ===\n");
    EXPECT_EQ(site.Snapshot(), before);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "71", "75", "77", "81"}));
    EXPECT_EQ(upgrader->routingExtensions, (Names{"21", "22"}));
}

TEST_F(Databases, CallersAreNumberedAsTheVersionAsks) {
    site.Remove(site.Live(""));
    const std::string old = "section\n{\nsection_id=7\n}\nsection b\n{\n}\n";
    const std::string numbered = "section\n{\nsection_id=1\n}\nsection b\n{\nsection_id=2\n}\n";
    // The version, and how many of these three things it does.
    const std::pair<const char*, int> cases[] = {{"2.3.0", 3}, {"2.3.1", 2},  {"2.3.5", 2},
                                                 {"2.3.6", 1}, {"3.0.99", 1}, {"3.1.0", 0}};
    for (const auto& [version, things] : cases) {
        for (const char* name : {"linedb", "extensiondb", "22/speedcalldb"})
            site.Write(site.Live(name), "");
        for (const char* name : {"autologindb", "21/patterndb", "21/a/huntdb", "21/otherdb"})
            site.Write(site.Live(name), old);
        Open(version);
        upgrader->ProcessMergeList();
        const std::string log = site.TakeLog(*upgrader);
        EXPECT_EQ(Live("autologindb"), things > 0 ? numbered : old) << version;
        EXPECT_EQ(Count(log, " id 2 to file " + site.Live("autologindb") + "\n"), things > 0);
        for (const char* name : {"21/patterndb", "21/a/huntdb"})
            EXPECT_EQ(Live(name), things > 1 ? numbered : old) << version << name;
        EXPECT_EQ(Count(log, "\n=== services check for "), things > 2 ? 4 : 0) << version;
        EXPECT_EQ(Live("21/otherdb"), old);
        EXPECT_EQ(Live("22/speedcalldb"), "");
    }
    const std::string path = site.Live("autologindb");
    site.Write(path, malformed);
    Open("2.3.6");
    upgrader->ProcessMergeList();
    EXPECT_EQ(site.TakeLog(*upgrader), "MINOR ERROR: Invalid file: " + path + "\n");
    EXPECT_EQ(site.Read(path), malformed);
    site.Remove(path);
    upgrader->ProcessMergeList();
    EXPECT_TRUE(
        Holds(site.TakeLog(*upgrader), "\tFile: " + path + " not found to add section IDs\n"));
    EXPECT_FALSE(site.Exists(path));
}

TEST_F(Databases, CallerWalkEndsInLoopsAndPassesAMalformedFile) {
    site.Remove(site.Live(""));
    WriteLines("", "");
    for (const char* name : {"21/huntdb", "21/deep/distringdb", "22/huntdb"})
        site.Write(site.Live(name), Section("a", ""));
    site.Write(site.Live("extensiondb"), "");
    site.Write(site.Live("22/anonymousdb"), malformed);
    fs::create_symlink(".", site.Live("here"));
    fs::create_symlink("..", site.Live("21/up"));
    fs::create_symlink("../../22", site.Live("21/deep/aside"));
    fs::create_symlink("nowhere", site.Live("patterndb"));
    Open("2.3.0");
    upgrader->CheckCallerDatabases(site.Live(""), "");
    const std::string log = site.TakeLog(*upgrader);
    EXPECT_EQ(Count(log, "\tAdding sections id 1 to file "), 3) << log;
    EXPECT_EQ(Count(log, "MINOR ERROR: Invalid file: "), 1);
    EXPECT_EQ(Count(log, "anonymousdb"), 1) << "one error line, no header";
    EXPECT_EQ(Live("22/anonymousdb"), malformed);
}

TEST_F(Databases, CallerTypesAreSetWhereTheEvidenceIsPlain) {
    // The database, a record before and after (null: as it was), and the report.
    const char* const cases[][4] = {
        {"anonymousdb", "user_name=21\n", "user_name=21\ncall_type=PBX\n", "21 is set to type PBX"},
        {"speedcalldb", "user_name=00\ncall_type=\n", "user_name=00\ncall_type=PBX\n",
         "00 is set to type PBX"},
        {"blockedinnumsdb", "user_name=21\nuser_host_address=h\n",
         "user_name=21\nuser_host_address=h\ncaller_type=PBX\n", "21 is set to type PBX"},
        {"blockedoutnumsdb", "user_name=555\nuser_host_address=h\n",
         "user_name=555\nuser_host_address=h\ncaller_type=IP\n", "555 is set to type IP"},
        {"distringdb", "user_name=a@b\n", "user_name=a@b\ncaller_type=IP\n",
         "a@b is set to type IP"},
        {"huntdb", "caller=555\nuser_name=21\n", "caller=0555\nuser_name=21\ncaller_type=PSTN\n",
         "555 is set to type PSTN"},
        {"manyextringdb", "caller=0209\n", "caller=00209\ncaller_type=PSTN\n",
         "0209 is set to type PSTN"},
        {"forwardlistdb", "caller=21\n", "caller=21\ncaller_type=PBX\n", "21 is set to type PBX"},
        {"huntdb", "caller=555\ncaller_type=IP\n", nullptr, nullptr},
        {"huntdb", "caller=any\nuser_host_address=h\n", nullptr, nullptr},
        {"huntdb", "caller=\nuser_host_address=h\n", nullptr, nullptr},
        {"huntdb", "user_name=555\n", nullptr, nullptr},
        {"huntdb", "caller=+55\n", nullptr, nullptr},
        {"speedcalldb", "user_name=anna\n", nullptr, nullptr},
        {"patterndb", "user_name=555\ncaller=555\n", nullptr, nullptr},
        {"autologindb", "user_name=21\n", nullptr, nullptr},
    };
    for (const auto& [database, before, after, reported] : cases) {
        const std::string path = site.Live(std::string("21/") + database);
        site.Write(path, Section("a", before));
        Open("2.3.0");
        upgrader->liveExtensions = {"21"};
        upgrader->liveAttendants = {"00"};
        upgrader->CheckCallerDatabases(site.Live("21"), database);
        const std::string record = after != nullptr ? after : before;
        EXPECT_EQ(site.Read(path), Section("a", record + "section_id=1\n"));
        const std::string line =
            reported != nullptr ? std::string("\tcaller ") + reported + "\n" : "";
        EXPECT_EQ(site.TakeLog(*upgrader),
                  std::string("\n=== services check for ") + database + " ===\n" + line +
                      "\n Done...\n\tAdding sections id 1 to file " + path + "\n");
    }
}
