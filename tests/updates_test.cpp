#include <filesystem>
#include <gtest/gtest.h>

#include "platform/string_utils.h"
#include "tests/support/site.h"

namespace fs = std::filesystem;

namespace {

/// A section's text from "name: key=value|key=value"; without the name it is an anonymous one. A
/// text that is one already stays.
std::string Section(const std::string& text) {
    if (text.ends_with("}\n"))
        return text;
    const std::size_t colon = text.find(": ");
    const bool named = colon != std::string::npos;
    std::string section = "section" + (named ? " " + text.substr(0, colon) : "") + "\n{\n";
    for (const std::string& entry :
         StringUtils::ParseCommaLine(named ? text.substr(colon + 2) : text, '|'))
        section += entry + "\n";
    return section + "}\n";
}

template <typename... Text>
std::string File(const Text&... sections) {
    return (Section(sections) + ...);
}

using Step = void (ConfigUpgrader::*)();

class Updates : public testing::Test {
protected:
    /// Writes a file of the live tree.
    void Put(const std::string& name, const std::string& text) {
        site.Write(site.Live(name), text);
    }
    std::string Get(const std::string& name) const { return site.Read(site.Live(name)); }
    bool Has(const std::string& name) const { return site.Exists(site.Live(name)); }
    /// A file that can be opened for creation but never saved.
    void Unsaveable(const std::string& name) {
        fs::remove(site.Live(name));
        fs::create_symlink("no-such-directory/file", site.Live(name));
    }
    std::unique_ptr<ConfigUpgrader> Run(const std::string& version, Step step) {
        site.appliance.runShell = shell;
        auto upgrader = site.Upgrader(version);
        upgrader->liveExtensions = extensions;
        upgrader->liveAttendants = attendants;
        upgrader->routingExtensions = routing;
        (*upgrader.*step)();
        log = site.TakeLog(*upgrader);
        return upgrader;
    }
    bool Logged(const std::string& text) const { return log.find(text) != std::string::npos; }

    Site site;
    std::string log;
    std::vector<std::string> extensions = {"21"};
    std::vector<std::string> attendants;
    std::vector<std::string> routing;
    std::function<int(const std::string&)> shell = site.appliance.runShell;
};

const char* const oldDatabases[] = {"anonymousdb",  "blockedinnumsdb", "blockedoutnumsdb",
                                    "distringdb",   "huntdb",          "manyextringdb",
                                    "forwardlistdb"};

/// A caller's services file as it is made, with the given sections changed.
std::string Services(const std::vector<std::string>& changed) {
    std::string text;
    for (const char* name : {"clir", "blockin", "blockout", "distring", "huntring", "manyext",
                             "funcond", "fnoanswer", "fbusy"}) {
        const std::string prefix = std::string(name) + ": ";
        const bool on = prefix == "distring: " || prefix == "fnoanswer: ";
        std::string section = prefix + (on ? "service_on=1" : "service_on=0");
        for (const std::string& other : changed)
            if (other.starts_with(prefix))
                section = other;
        text += Section(section);
    }
    return text;
}

}  // namespace

TEST_F(Updates, MergeGivesEveryCallerOneSectionAndOneServicesFile) {
    site.Remove(site.Live("21"));
    Put("21/servicesdb",
        "dist_ring_srv=1\nhunt_service_on=0\nmany_extension_ringing_service=yes\n"
        "call_forwarding_enabled=1\ncall_forwarding_mode=Noanswer\n");
    const std::string known = File("section_id=6|type=SIP|address=amy@host.example:5061",
                                   "section_id=2|address=PSTN_555");
    Put("21/addresspatterndb", known);
    Put("21/supservices_6", File("blockin: service_on=0", "distring: service_on=0|ring_pattern=9",
                                 "fnoanswer: service_on=0"));
    const std::string amy =
        "|user_name=amy|user_display_name=Amy|user_host_address=host.example|"
        "user_host_port=5061";
    Put("21/anonymousdb", File("call_type=PBX|user_name=any|user_host_address=",
                               "call_type=H323|user_name=bob|H323_alias_address=bob-alias|"
                               "user_host_address=10.0.0.9",
                               "call_type=SIP" + amy, "call_type=PSTN|user_name="));
    Put("21/blockedinnumsdb",
        File("caller_type=SIP|send_message_to_calling_party=1|hide_rec=1" + amy,
             "caller_type=H323|user_name=bob|H323_alias_address=another|hide_rec=0",
             "caller_type=PSTN|user_name=555|hide_rec=1"));
    Put("21/blockedoutnumsdb",
        File("caller_type=|user_name=any|hide_rec=1|send_message_to_calling_party=1"));
    Put("21/distringdb",
        File("caller_type=SIP|nick_name=Amy D|ring_pattern=4" + amy,
             "caller_type=IP|user_name=carl|user_host_address=10.0.0.3|nick_name=Carl|"
             "ring_pattern=2",
             "caller_type=PBX|user_name=24"));
    Put("21/huntdb", File("caller_type=H323|caller=bob|caller_desc=Bob B|extensions_list=21,22",
                          "caller=any|extensions_list=23"));
    Put("21/manyextringdb", File("caller=900|extensions_list=25"));
    Put("21/forwardlistdb",
        File("caller=any|call_type=PSTN|user_name=0555", "caller=any|call_type=PBX|user_name=23",
             "caller_type=PSTN|caller=777|caller_desc=Joe|call_type=SIP|user_name=joe|"
             "user_host_address=sip.example",
             "caller_type=IP|caller=carl@10.0.0.3|call_type=H323|call_H323_alias_address=x",
             "caller_type=H323|caller=dan|caller_H323_alias_address=dan-alias|"
             "H323_alias_address=wrong|call_type=PSTN|user_name=31",
             "caller=any|call_type=IP|user_host_address=10.0.0.4|user_host_port=99"));
    Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);

    const std::string user = "|description=|permission=user";
    EXPECT_EQ(
        Get("21/addresspatterndb"),
        File(known, "section_id=7|type=|address=any|description=|permission=system",
             "section_id=8|type=H323|address=bob" + user + "|H232_alias=bob-alias",
             "section_id=9|type=IP|address=carl@10.0.0.3|description=Carl|permission=user",
             "section_id=10|type=PBX|address=24" + user, "section_id=11|type=|address=900" + user,
             "section_id=12|type=PSTN|address=777|description=Joe|permission=user",
             "section_id=13|type=H323|address=dan" + user + "|H232_alias=dan-alias",
             "section_id=14|type=|address=any" + user));
    EXPECT_EQ(Get("21/supservices_6"),
              File("blockin: service_on=1|send_message_to_calling_party=1|permission=admin",
                   "distring: service_on=0|ring_pattern=4|nick_name=Amy D",
                   "fnoanswer: service_on=1|callto=PBX-23"));

    const std::string blocked =
        "blockout: service_on=1|send_message_to_calling_party=1|permission=admin";
    const std::string hunted = "huntring: service_on=0|extensions_list=23";
    // Copied entry by entry: of two targets the second one stays.
    const std::string forwarded = "fnoanswer: service_on=1|callto=PBX-23";
    const std::vector<std::string> callers[] = {
        {blocked, hunted, "clir: service_on=1",
         "fnoanswer: service_on=1|callto=PSTN-0555|callto=PBX-23"},
        {blocked, forwarded, "clir: service_on=1",
         "blockin: service_on=1|send_message_to_calling_party=|permission=user",
         "huntring: service_on=0|extensions_list=21,22"},
        {blocked, hunted, forwarded, "distring: service_on=1|ring_pattern=2|nick_name=Carl"},
        {blocked, hunted, forwarded, "distring: service_on=1|ring_pattern=|nick_name="},
        {blocked, hunted, forwarded, "manyext: service_on=0|extensions_list=25"},
        {blocked, hunted, "fnoanswer: service_on=1|callto=SIP-joe@sip.example"},
        {blocked, hunted, "fnoanswer: service_on=1|callto=PSTN-31"},
        {blocked, hunted, "fnoanswer: service_on=1|callto=IP-10.0.0.4:99"},
    };
    for (std::size_t i = 0; i < std::size(callers); ++i)
        EXPECT_EQ(Get("21/supservices_" + std::to_string(7 + i)), Services(callers[i])) << 7 + i;
    EXPECT_FALSE(Has("21/supservices_2"));
    EXPECT_FALSE(Has("21/supservices_15"));
    for (const char* name : oldDatabases)
        EXPECT_FALSE(Has(std::string("21/") + name)) << name;
    EXPECT_EQ(log,
              "Starting update Supplementary Services.\nUpdate Ext: 21\n"
              "MINOR ERROR: section not found in addresspattern file for caller: 555, type:PSTN.\n"
              "Starting merge non \"any\" callers with \"any\" caller.\n"
              "MINOR ERROR: Invalid file: " +
                  site.Live("21/supservices_2") +
                  ".\nMerge Done.\nRemoving ald services DBs.\nRemove Done.\nExt Done.\nDone.\n");
}

TEST_F(Updates, MergeOfAnEmptyExtensionCountsFromZeroAndFollowsTheForwardingMode) {
    using Mode = std::pair<std::string, std::string>;
    for (const auto& [mode, section] :
         {Mode("Unconditional", "funcond"), Mode("Noanswer", "fnoanswer"), Mode("Busy", "fbusy")}) {
        site.Remove(site.Live("21"));
        Put("21/servicesdb",
            "hunt_service_on=1\nmany_extension_ringing_service=1\ncall_forwarding_mode=" + mode +
                "\n");
        Put("21/forwardlistdb", File("caller_type=PBX|caller=22|call_type=PBX|user_name=9"));
        Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);
        EXPECT_EQ(
            Get("21/supservices_0"),
            Services({"distring: service_on=0", "huntring: service_on=1", "manyext: service_on=1",
                      "fnoanswer: service_on=0", section + ": service_on=0|callto=PBX-9"}));
    }
}

TEST_F(Updates, MergeKeepsTheOldDatabasesOfAnExtensionItCouldNotConvert) {
    const std::string services = "call_forwarding_enabled=1\n";
    const std::string caller = File("call_type=PBX|user_name=22");
    const std::pair<const char*, const char*> cases[] = {
        {"addresspatterndb", "MINOR ERROR: Can't save file: PATH ("},
        {"supservices_0", "MINOR ERROR: Can't save file: PATH ("},
        {"servicesdb", "MINOR ERROR: Invalid file: PATH\n"},
        {"huntdb", "MINOR ERROR: Invalid file: PATH\n"},
    };
    extensions = {"31", "32"};
    for (const auto& [name, message] : cases) {
        for (const std::string& extension : extensions) {
            site.Remove(site.Live(extension));
            Put(extension + "/servicesdb", services);
            for (const char* database : oldDatabases)
                Put(extension + "/" + database, "");
            Put(extension + "/anonymousdb", caller);
        }
        const std::string file = std::string("31/") + name;
        if (std::string(name) == "servicesdb")
            site.Remove(site.Live(file));
        else if (std::string(name) == "huntdb")
            Put(file, "not a section\n");
        else
            Unsaveable(file);
        Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);
        EXPECT_TRUE(Logged(StringUtils::ReplaceString(message, "PATH", site.Live(file), 0))) << log;
        for (const char* database : oldDatabases) {
            EXPECT_TRUE(Has(std::string("31/") + database)) << name << ": " << database;
            EXPECT_FALSE(Has(std::string("32/") + database)) << name << ": " << database;
        }
        EXPECT_EQ(Get("31/anonymousdb"), caller);
        EXPECT_NE(Get("32/addresspatterndb").find("address=22"), std::string::npos);
    }
}

TEST_F(Updates, EchoDelayIsLoweredWhereItStands) {
    Put("e1t1/trunk0.cfg",
        File("trunk_t1: echoDelay=40", "trunk_e1: echoDelay=x", "trunk: echoDelay=500"));
    Put("isdn/trunk0.cfg", File("trunk: echoTail=64|echoDelay=160ms"));
    site.Remove(site.Live("isdn/trunk1.cfg"));
    Put("isdn/trunk2.cfg", File("trunk_e1: echoDelay=160", "trunk: echoTail=1"));
    const std::string trunk2 = Get("isdn/trunk2.cfg");
    Run("3.0.31", &ConfigUpgrader::UpdateEchoDelay);
    EXPECT_EQ(Get("e1t1/trunk0.cfg"),
              File("trunk_t1: echoDelay=-40", "trunk_e1: echoDelay=-80", "trunk: echoDelay=500"));
    EXPECT_EQ(Get("isdn/trunk0.cfg"), File("trunk: echoTail=64|echoDelay=80"));
    EXPECT_EQ(Get("isdn/trunk2.cfg"), trunk2);
    const auto path = [&](const char* name) { return site.Live(name); };
    EXPECT_EQ(log, "Starting update e1t1 & isdn cfg files\nOpen File: " + path("e1t1/trunk0.cfg") +
                       ".\nSet echoDelay from x to -80.\nSet echoDelay from 40 to -40.\nUpdated.\n"
                       "Open File: " +
                       path("isdn/trunk0.cfg") +
                       ".\nSet echoDelay from 160ms to 80.\nUpdated.\n"
                       "MINOR ERROR: Invalid file: " +
                       path("isdn/trunk1.cfg") + "\nOpen File: " + path("isdn/trunk2.cfg") +
                       ".\nUpdated.\nDone.\n");
    EXPECT_FALSE(Has("isdn/trunk1.cfg"));
}

TEST_F(Updates, IsdnMappingMovesEveryKeyToItsPlace) {
    const std::string kept =
        "loopbackmode=f|echoTail=g|echoDelay=h|nlp_diff=i|nlp_shift=j|transmitEnergy=k|"
        "receiveEnergy=l|processSaturation=m|patternCount=n|echoAdvancedSettings=o|";
    const std::string l2 = "Isdn_L2_timer_T200=3|Isdn_L2_timer_T203=4|auto_switch=5|";
    const std::string first =
        "B1_channel=a|B2_channel=b|B_channel_order=c|B_channel_select_type=d|"
        "Isdn_L3_timer_T302=e|Isdn_L3_timer_T306=f|Isdn_L3_timer_T309=g|"
        "Isdn_L3_timer_T310=h|";
    const std::string last =
        "generate_progress_tone_pbx=l|clirService=m|called_type_number=n|"
        "calling_type_number=o|called_numbering_plan=p|calling_numbering_plan=q|"
        "enhanced_disconnect_mode=r|incoming_dnis_size=s|";
    Put("isdn/trunk0.cfg",
        File("trunk: encoding_type=a|line_code=b|frame_mode=c|tx_lbo=d|sync_clock=e|" + kept +
                 "networkside=p|passive_mode=r",
             "isdn_user: D_channel_timeslot_tx=1|D_channel_timeslot_rx=2|" + l2 +
                 "tei_number=6|tei_power_up=7|" + first +
                 "route_call=DestNumber|switch_type=i|progress_ind_type=j|"
                 "generate_progress_tone=k|" +
                 last +
                 "passive_mode=t|use_default_msn=\t1 |enable_msn= 2|incoming_msn=3\t|"
                 "route_msn_call= 12 , DestNumber,34|calling_ext=DestNumber |"
                 "outgoing_msn=1,,\tDestNumbers,|calling_board_number= DestNumber |"
                 "alert_guard_timeout= 9|ddi_service=\tYes ",
             "isdn_net: route_call= DestNumber|tei_number=64|ddi_service=yes"));
    site.Remove(site.Live("isdn/trunk1.cfg"));
    const std::string trunk2 = Get("isdn/trunk2.cfg");
    Put("isdn/trunk0/trunk.cfg", File("trunk: line_code=new|call_control_signaling_type=new"));
    Put("isdn/trunk0/bri_user.cfg", File("level_2: tei_number=127", "level_3: "));
    Put("isdn/trunk0/bri_net.cfg", File("level_3: switch_type=new", "level_2: auto_switch=new"));
    Put("isdn.cfg",
        File("trunk_2: file_name=c|enabled=1", "trunk_0: file_name=a", "trunk_3: file_name=d"));
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);

    EXPECT_EQ(Get("isdn.cfg"), File("trunk_2: enabled=1", "trunk_0: ", "trunk_3: file_name=d"));
    EXPECT_EQ(Get("isdn/trunk0/trunk.cfg"),
              File("trunk: line_code=new|call_control_signaling_type=|encoding_type=a|" + kept +
                   "interface_type=p|passive_mode=r"));
    EXPECT_EQ(Get("isdn/trunk0/bri_user.cfg"),
              File("level_2: tei_number=0|" + l2 + "tei_power_up=7",
                   "level_3: " + first +
                       "route_call=RouteInbNmb|switch_type=i|progress_ind_type=j|"
                       "generate_progress_tone_ip=k|" +
                       last +
                       "use_default_msn=1|enable_msn=2|incoming_msn=3|"
                       "route_msn_call=12,RouteInbNmb,34|calling_ext=RouteInbNmb|"
                       "outgoing_msn=1,,DestNumbers,|calling_board_number=DestNumber|"
                       "alert_guard_timeout=9|ddi_service=Yes"));
    EXPECT_EQ(Get("isdn/trunk0/bri_net.cfg"),
              File("level_3: switch_type=new|route_call= DestNumber|ddi_service=yes",
                   "level_2: auto_switch=new|tei_number=64"));
    EXPECT_FALSE(Has("isdn/trunk0.cfg"));
    EXPECT_EQ(Get("isdn/trunk2.cfg"), trunk2) << "behind the missing one";
    EXPECT_TRUE(log.ends_with("MINOR ERROR: Invalid file: " + site.Live("isdn/trunk1.cfg") +
                              "\nUpdated.\n"));
}

TEST_F(Updates, IsdnMappingEndsAtAnEmptyCommaList) {
    for (const char* key : {"route_msn_call", "calling_ext", "outgoing_msn"}) {
        const std::string old = File("trunk: echoTail=7") +
                                Section("isdn_user: tei_number=6|" + std::string(key) + "=");
        Put("isdn/trunk0.cfg", old);
        Put("isdn/trunk1.cfg", old);
        Put("isdn/trunk0/trunk.cfg", File("trunk: echoTail=1"));
        const std::string side = File("level_2: tei_number=1", "level_3: ");
        Put("isdn/trunk0/bri_user.cfg", side);
        Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
        EXPECT_TRUE(log.ends_with("bri_user.cfg.\nbasic_string::_M_check")) << log;
        EXPECT_NE(Get("isdn/trunk0/trunk.cfg").find("echoTail=7\n"), std::string::npos);
        EXPECT_EQ(Get("isdn/trunk0/bri_user.cfg"), side);
        EXPECT_EQ(Get("isdn/trunk0.cfg"), old);
        EXPECT_EQ(Get("isdn/trunk1.cfg"), old);
    }
    site.Remove(site.Live("isdn.cfg"));
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
    EXPECT_EQ(log, "Mapping isdn config files\nMINOR ERROR: Invalid file: " +
                       site.Live("isdn.cfg") + "\n");
    EXPECT_TRUE(Has("isdn/trunk0.cfg"));
}

TEST_F(Updates, LocalRoutesAreDroppedWithPermissionOnly) {
    const std::string kept = File("id=1|emergancy=0|access_code=0", "id=2");
    const std::string routes = File("id=3|emergancy=1", kept, "id=4|emergancy=0|access_code=1",
                                    "id=5|emergancy=1|access_code=1");
    int calls = 0;
    int result = 0;
    shell = [&](const std::string& command) {
        ++calls;
        EXPECT_EQ(command, site.appliance.routeTool + " 2> " + site.appliance.lastError);
        site.Write(site.appliance.lastError, "table locked");
        return result;
    };
    extensions = {"31", "32", "33", "34"};
    const auto run = [&](const std::vector<std::string>& inRouting) {
        routing = inRouting;
        calls = 0;
        Put("31/servicesdb", "routing_on=no\n");
        Put("32/servicesdb", "other=1\n");
        site.Remove(site.Live("33"));
        Put("34/servicesdb", "routing_on=1\n");
        Put("localrouttabledb", routes);
        Run("2.9.9", &ConfigUpgrader::UpdateLocalRouteDB);
        EXPECT_EQ(Get("31/servicesdb"), "routing_on=1\n");
        EXPECT_EQ(Get("32/servicesdb"), "other=1\n");
    };
    const std::string opening =
        "Check extensions for update localrouttabledb.\n"
        "MINOR ERROR in UpdateLocalRouteDB: Invalid file: " +
        site.Live("33/servicesdb") + "\n";
    run({"31", "32", "33"});  // none of them was in routing mode
    EXPECT_EQ(Get("localrouttabledb"), kept);
    EXPECT_EQ(log, opening + "Starting update localrouttabledb.\nUpdate done - Success.\nDone.\n");
    EXPECT_FALSE(site.Exists(site.appliance.lastError));

    run({"34"});
    EXPECT_EQ(Get("localrouttabledb"), routes);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log, opening + "Extension 34 is in routing mode, Update canceled.\nDone.\n");

    result = 256;
    run({});
    EXPECT_EQ(Get("localrouttabledb"), kept);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(Logged("Update done - Failed: table locked.\nDone.\n"));
    EXPECT_FALSE(site.Exists(site.appliance.lastError));
}

TEST_F(Updates, DialPlanCarriesTheTimeoutOver) {
    const std::string factory = File("pattern=R*|timeout=4", "pattern=R*");
    const std::string old = File("pattern=0*|timeout=7", "pattern=0*|timeout=8");
    const struct {
        std::string live, factory, after;
        int result;  // of the copy, which is made when it is 0
    } cases[] = {
        {old, factory, File("pattern=R*|timeout=7", "pattern=R*"), 0},
        {File("pattern=0|timeout=7"), factory, factory, 0},
        {old, File("pattern=R"), File("pattern=R"), 0},
        {File("pattern=R*", old), factory, File("pattern=R*|timeout=7", old), 127},
    };
    for (const auto& test : cases) {
        Put("dialplan.cfg", test.live);
        site.Write(site.Factory("dialplan.cfg"), test.factory);
        std::string command;
        shell = [&](const std::string& text) {
            command = text;
            return test.result == 0 ? std::system(text.c_str()) : test.result;
        };
        Run("3.0.6", &ConfigUpgrader::UpdateDialPlan);
        EXPECT_EQ(Get("dialplan.cfg"), test.after);
        const std::string reported =
            "cp -p -r " + site.Factory("dialplan.cfg") + " " + site.Live("dialplan.cfg");
        EXPECT_EQ(command, reported + ".mend-tmp") << "a cut copy never stands in its place";
        EXPECT_EQ(log,
                  "Starting update dialplan.cfg.\n"
                  "File  dialplan.cfg is copied from default-conf .\n" +
                      reported + (test.result == 0 ? " - Success.\n" : " - Failed.\n") +
                      (test.after.find("timeout=7") == std::string::npos
                           ? ""
                           : "Set timeout = 7 for pattern \"R*\".\n"));
    }
    site.Remove(site.Live("dialplan.cfg"));
    Run("3.0.6", &ConfigUpgrader::UpdateDialPlan);
    EXPECT_TRUE(Logged("Invalid file: " + site.Live("dialplan.cfg") + "\n"));
    EXPECT_FALSE(Has("dialplan.cfg"));
}

TEST_F(Updates, GroupListsGetOneEntryPerAddress) {
    const std::string useless = File("address_list=1002,,1003");
    extensions = {"31", "32", "33", "34"};
    Put("31/grouplistdb",
        File("group=a|address_list=1001/host/x,1002, SIP/b|note=n", "group=b|addr=kept", useless));
    Put("32/grouplistdb", useless);
    Put("33/grouplistdb", "not a section\n");
    Run("3.0.99", &ConfigUpgrader::UpdateGroupListDB);
    EXPECT_EQ(Get("31/grouplistdb"),
              File("group=a|note=n|addr=1001-host/x|addr= SIP-b", "group=b|addr=kept", ""));
    EXPECT_EQ(Get("32/grouplistdb"), useless) << "no address added, so not saved";
    EXPECT_FALSE(Has("34/grouplistdb"));
    EXPECT_TRUE(
        log.ends_with("Update for extension 33.\nMINOR ERROR in UpdateGroupListDB: Invalid "
                      "file: " +
                      site.Live("33/grouplistdb") + "\nUpdate for extension 34.\nDone.\n"));
}

TEST_F(Updates, SystemExtensionTakesWhatTheMailboxesLeave) {
    extensions = {"31", "32", "33"};
    attendants = {"00"};
    // A relative folder: the test's own directory may have a 00 in its name, too.
    const fs::path home = fs::current_path();
    fs::current_path(site.Path(""));
    const std::string folder = "mnt/bbram/voice/00/";
    for (const auto& [share, left] : {std::pair("48", "1"), std::pair("49", "0")}) {
        Put("00/voicemaildb", "voice_data_folder=" + folder + "\nmail_box_portion=20\n");
        Put("00/personaldatadb", "scenario=office\nname=x\n");
        Put("31/voicemaildb", "mail_box_portion=30\n");
        Put("32/voicemaildb", "mail_box_portion=" + std::string(share) + "\n");
        fs::create_directories(site.Live("system"));
        site.Write(site.Path(folder + "attwelcomerouting.wav"), "");
        Run("3.0.99", &ConfigUpgrader::UpdateSystemExtension);
        EXPECT_EQ(Get("system/voicemaildb"),
                  std::string("voice_data_folder=mnt/bbram/voice/system/\nmail_box_portion=") +
                      left + "\n");
        EXPECT_EQ(Get("system/personaldatadb"), "scenario=\nname=x\nis_default=1\n");
        EXPECT_FALSE(fs::exists(folder + "attwelcomerouting.wav"));
        EXPECT_TRUE(
            Logged("SUM mail_box_portion = " + std::to_string(50 + std::stoi(share)) + ".\n"));
        EXPECT_TRUE(Logged("Removed " + folder + "attwelcomerouting.wav file - Success.\n"));
    }
    fs::current_path(home);
    const std::string system = Get("system/voicemaildb");
    Put("00/voicemaildb", "mail_box_portion=7\n");
    shell = [&](const std::string& command) {
        EXPECT_EQ(command, "cp -Rf " + site.Live("00/* ") + site.Live("system.mend-tmp 2> ") +
                               site.appliance.lastError);
        site.Write(site.appliance.lastError, "cp: no space");
        return 256;
    };
    Run("3.0.99", &ConfigUpgrader::UpdateSystemExtension);
    EXPECT_EQ(log,
              "Starting update System extension.\n"
              "Copy 00 to System done - Failed: cp: no space.\n");
    EXPECT_EQ(Get("system/voicemaildb"), system);
    EXPECT_FALSE(site.Exists(site.appliance.lastError));
}

TEST_F(Updates, RestrictionRemovesAttendantsAndNothingElse) {
    const std::string before = File(
        "attendant: att_0=01|att_1=00|att_2=|att_3=.|att_4=..|att_5=../x|"
        "att_6=02/sub|att_0=03|att_1=04|att_1=00|att_9=dialplan.cfg",
        "extension: ext_21=21");
    for (const char* name : {"00/k", "01/k", "02/sub/k", "03/deep/k", "04/k", "../x/k"})
        Put(name, "");
    Put("extensiondb", before);
    for (const char* code : {"BR", "br ", "brx", ""}) {
        site.Write(site.appliance.eeprom, std::string("restriction=") + code + "\n");
        Run("9.9.9", &ConfigUpgrader::RestrictAttendants);
        EXPECT_EQ(log + Get("extensiondb"), before) << code;
    }
    site.Write(site.appliance.eeprom, "restriction=br\n");
    auto upgrader = Run("9.9.9", &ConfigUpgrader::RestrictAttendants);
    const std::string after = File("attendant: att_1=00|att_1=00");
    EXPECT_EQ(Get("extensiondb"), after + File("extension: ext_21=21"));
    for (const char* name : {"01", "03", "04"})
        EXPECT_FALSE(Has(name)) << name;
    for (const char* name : {"00/k", "02/sub/k", "../x/k"})
        EXPECT_TRUE(Has(name)) << name;
    EXPECT_TRUE(Has("dialplan.cfg")) << "a file is no attendant's directory";
    std::string lines =
        "Starting update attendant for restriction.\nOpen File: " + site.Live("extensiondb") +
        ".\n";
    for (const char* name : {"01", "", ".", "..", "../x", "02/sub", "03", "04", "dialplan.cfg"})
        lines += std::string("\tRemove Attendant: ") + name + "\n";
    EXPECT_EQ(log, lines + "Done.\n");

    Put("21/servicesdb", "call_park_on=1\n");
    upgrader->liveVersion = "3.1.24";
    upgrader->UpdateCallPark();
    EXPECT_EQ(Get("extensiondb"), after + File("extension: ", "callpark: ext_21=21"));

    Put("extensiondb", File("extension: "));
    Run("9.9.9", &ConfigUpgrader::RestrictAttendants);
    EXPECT_TRUE(log.ends_with(".\nThere is no \"attendant\" section!\n"));
}

TEST_F(Updates, FxoPrefixLeavesTheNumbers) {
    extensions = {"30", "31", "32"};
    Put("31/speedcalldb",
        File("call_type=PSTN|user_name=00123|fxo_prefix=9", "call_type=PSTN|user_name=0",
             "call_type=PSTN|user_name=123", "call_type=SIP|user_name=0123"));
    Put("31/servicesdb", "auto_call_type=PSTN\nauto_dest=0\n");
    Put("32/servicesdb", "auto_call_type=PBX\nauto_dest=021\n");
    Put("31/addresspatterndb", File("section_id=4", "section_id=1"));
    Put("default/addresspatterndb", File("section_id=0"));
    const std::string targets = File(
        "fbusy: callto=PSTN-0555|callto=PSTN-555|callto=PSTNx0|callto=PSTN-|"
        "callto=PSTN0055|callto=SIP-00|other=PSTN-0555",
        "funcond: callto=PSTN-00", "fother: callto=PSTN-0555");
    const std::string changed = File(
        "fbusy: callto=PSTN-555|callto=PSTN-555|callto=PSTN-|callto=PSTN-|"
        "callto=PSTN-55|callto=SIP-00|other=PSTN-0555",
        "funcond: callto=PSTN-0", "fother: callto=PSTN-0555");
    for (const char* name : {"31/supservices_0", "31/supservices_1", "32/supservices_0"})
        Put(name, targets);
    Run("3.0.99", &ConfigUpgrader::UpdateFxoPrefix);
    EXPECT_EQ(
        Get("31/speedcalldb"),
        File("call_type=PSTN|user_name=0123|fxo_prefix=0", "call_type=PSTN|user_name=|fxo_prefix=0",
             "call_type=PSTN|user_name=123", "call_type=SIP|user_name=0123"));
    EXPECT_EQ(Get("31/servicesdb"), "auto_call_type=PSTN\nauto_dest=\nauto_fxo_prefix=0\n");
    EXPECT_EQ(Get("32/servicesdb"), "auto_call_type=PBX\nauto_dest=021\n");
    EXPECT_EQ(Get("31/supservices_0"), targets) << "not one of its own callers";
    EXPECT_EQ(Get("31/supservices_1"), changed);
    EXPECT_EQ(Get("32/supservices_0"), changed) << "by the shared patterns";
    const std::string wrong = "MINOR ERROR in UpdateFxoPrefix: Invalid file: ";
    for (const char* name : {"30/speedcalldb", "30/servicesdb", "30/supservices_0",
                             "31/supservices_4", "32/speedcalldb"})
        EXPECT_TRUE(Logged(wrong + site.Live(name) + "\n")) << name;
    site.Remove(site.Live("default/addresspatterndb"));
    Run("3.0.99", &ConfigUpgrader::UpdateFxoPrefix);
    EXPECT_TRUE(log.ends_with(wrong + site.Live("default/addresspatterndb") + ".\nDone.\n")) << log;
}

TEST_F(Updates, CallParkExtensionsMove) {
    extensions = {"31", "32", "33", "34"};
    Put("31/servicesdb", "call_park_on=1\n");
    Put("32/servicesdb", "call_park_on=0\n");
    Put("34/servicesdb", "call_park_on=1\n");
    const std::string park = File("callpark: ext_31=31");
    Put("extensiondb", park + File("extension: ext_31=31|ext_32=32|ext_33=33|ext_34=34"));
    Run("3.1.24", &ConfigUpgrader::UpdateCallPark);
    EXPECT_EQ(Get("extensiondb"),
              File("callpark: ext_31=31|ext_31=31|ext_34=34", "extension: ext_32=32|ext_33=33"));
    // The line names the value of the switch.
    const std::string moved =
        "Ext 1 is callpark extension, moved from \"extension\" section to "
        "\"callpark\" section.\n";
    EXPECT_TRUE(Logged("Ext: 31\nOpen File: " + site.Live("31/servicesdb") + ".\n" + moved));
    Put("extensiondb", park);
    Run("3.1.24", &ConfigUpgrader::UpdateCallPark);
    EXPECT_EQ(Get("extensiondb"), park);
    EXPECT_FALSE(Logged(moved));
}

TEST_F(Updates, ExtensionLengthIsMarkedAsDefined) {
    const std::string opening = "Set 'is_ext_length_defined=true' \n";
    Put("linedb", File("general: a=1|is_ext_length_defined=0"));
    auto upgrader = Run("4.1.6", &ConfigUpgrader::UpdateExtensionLength);
    EXPECT_EQ(Get("linedb"), File("general: a=1|is_ext_length_defined=1"));
    EXPECT_EQ(log, opening + "Done.\n");
    upgrader->lineDb->DeleteSection("general");
    upgrader->UpdateExtensionLength();
    upgrader->lineDb.reset();
    upgrader->UpdateExtensionLength();
    EXPECT_TRUE(site.TakeLog(*upgrader).ends_with(opening + "section 'general' doesn't exist.\n" +
                                                  opening + "linedb doesn't exist.\n"));
}
