#include <filesystem>
#include <gtest/gtest.h>

#include "platform/string_utils.h"
#include "tests/support/site.h"

namespace fs = std::filesystem;

namespace {

/// A section's text; its entries stand one behind the other with "|" between them.
std::string Section(const std::string& name, const std::string& entries) {
    std::string text = "section" + (name.empty() ? "" : " " + name) + "\n{\n";
    for (const std::string& entry : StringUtils::ParseCommaLine(entries, '|'))
        text += entry + "\n";
    return text + "}\n";
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
std::string Services(const std::vector<std::pair<std::string, std::string>>& changed) {
    std::string text;
    for (const char* name : {"clir", "blockin", "blockout", "distring", "huntring", "manyext",
                             "funcond", "fnoanswer", "fbusy"}) {
        const std::string section(name);
        std::string entries = "service_on=";
        entries += section == "distring" || section == "fnoanswer" ? "1" : "0";
        for (const auto& [changedName, changedEntries] : changed)
            if (changedName == section)
                entries = changedEntries;
        text += Section(section, entries);
    }
    return text;
}

}  // namespace

TEST_F(Updates, RunBelowTheirVersionOnly) {
    const struct {
        Step step;
        const char* below;
        const char* gate;
        const char* opening;
    } cases[] = {
        {&ConfigUpgrader::UpdateEchoDelay, "3.0.31", "3.0.32",
         "Starting update e1t1 & isdn cfg files\n"},
        {&ConfigUpgrader::MergeSupplementaryServices, "3.0.0", "3.0.1",
         "Starting update Supplementary Services.\n"},
        {&ConfigUpgrader::UpdateLocalRouteDB, "2.9.9", "3.0.0",
         "Check extensions for update localrouttabledb.\n"},
        {&ConfigUpgrader::UpdateDialPlan, "3.0.6", "3.0.7", "Starting update dialplan.cfg.\n"},
        {&ConfigUpgrader::UpdateGroupListDB, "3.0.99", "3.1.0", "Starting update grouplistdb.\n"},
        {&ConfigUpgrader::UpdateSystemExtension, "3.0.99", "3.1.0",
         "Starting update System extension.\n"},
        {&ConfigUpgrader::UpdateFxoPrefix, "3.0.99", "3.1.0", "Starting update Fxo prefix.\n"},
        {&ConfigUpgrader::UpdateCallPark, "3.1.24", "3.1.25",
         "Starting update Call Park Extensions\n"},
        {&ConfigUpgrader::MapIsdnFiles, "4.0.99", "4.1.0", "Mapping isdn config files\n"},
        {&ConfigUpgrader::UpdateExtensionLength, "4.1.6", "4.1.7",
         "Set 'is_ext_length_defined=true' \n"},
    };
    const std::vector<std::string> before = site.Snapshot();
    for (const auto& test : cases) {
        Run(test.gate, test.step);
        EXPECT_EQ(log, "") << test.opening;
    }
    EXPECT_EQ(site.Snapshot(), before);
    for (const auto& test : cases) {
        Run(test.below, test.step);
        EXPECT_EQ(log.rfind(test.opening, 0), 0u) << test.opening << log;
    }
}

TEST_F(Updates, MergeGivesEveryCallerOneSectionAndOneServicesFile) {
    site.Remove(site.Live("21"));
    Put("21/servicesdb",
        "dist_ring_srv=1\nhunt_service_on=0\nmany_extension_ringing_service=yes\n"
        "call_forwarding_enabled=1\ncall_forwarding_mode=Noanswer\n");
    const std::string known = Section("", "section_id=6|type=SIP|address=amy@host.example:5061") +
                              Section("", "section_id=2|address=PSTN_555");
    Put("21/addresspatterndb", known);
    Put("21/supservices_6", Section("blockin", "service_on=0") +
                                Section("distring", "service_on=0|ring_pattern=9") +
                                Section("fnoanswer", "service_on=0"));
    const std::string amy =
        "|user_name=amy|user_display_name=Amy|user_host_address=host.example|user_host_port=5061";
    Put("21/anonymousdb", Section("", "call_type=PBX|user_name=any|user_host_address=") +
                              Section("",
                                      "call_type=H323|user_name=bob|H323_alias_address=bob-alias|"
                                      "user_host_address=10.0.0.9") +
                              Section("", "call_type=SIP" + amy) +
                              Section("", "call_type=PSTN|user_name="));
    Put("21/blockedinnumsdb",
        Section("", "caller_type=SIP|send_message_to_calling_party=1|hide_rec=1" + amy) +
            Section("", "caller_type=H323|user_name=bob|H323_alias_address=another|hide_rec=0") +
            Section("", "caller_type=PSTN|user_name=555|hide_rec=1"));
    Put("21/blockedoutnumsdb", Section("",
                                       "caller_type=|user_name=any|hide_rec=1|"
                                       "send_message_to_calling_party=1"));
    Put("21/distringdb", Section("", "caller_type=SIP|nick_name=Amy D|ring_pattern=4" + amy) +
                             Section("",
                                     "caller_type=IP|user_name=carl|user_host_address=10.0.0.3|"
                                     "nick_name=Carl|ring_pattern=2") +
                             Section("", "caller_type=PBX|user_name=24"));
    Put("21/huntdb",
        Section("", "caller_type=H323|caller=bob|caller_desc=Bob B|extensions_list=21,22") +
            Section("", "caller=any|extensions_list=23"));
    Put("21/manyextringdb", Section("", "caller=900|extensions_list=25"));
    Put("21/forwardlistdb",
        Section("", "caller=any|call_type=PSTN|user_name=0555") +
            Section("", "caller=any|call_type=PBX|user_name=23") +
            Section("",
                    "caller_type=PSTN|caller=777|caller_desc=Joe|call_type=SIP|user_name=joe|"
                    "user_host_address=sip.example") +
            Section("",
                    "caller_type=IP|caller=carl@10.0.0.3|call_type=H323|"
                    "call_H323_alias_address=x") +
            Section("",
                    "caller_type=H323|caller=dan|caller_H323_alias_address=dan-alias|"
                    "H323_alias_address=wrong|call_type=PSTN|user_name=31") +
            Section("", "caller=any|call_type=IP|user_host_address=10.0.0.4|user_host_port=99"));
    Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);

    EXPECT_EQ(
        Get("21/addresspatterndb"),
        known + Section("", "section_id=7|type=|address=any|description=|permission=system") +
            Section("",
                    "section_id=8|type=H323|address=bob|description=|permission=user|"
                    "H232_alias=bob-alias") +
            Section("",
                    "section_id=9|type=IP|address=carl@10.0.0.3|description=Carl|"
                    "permission=user") +
            Section("", "section_id=10|type=PBX|address=24|description=|permission=user") +
            Section("", "section_id=11|type=|address=900|description=|permission=user") +
            Section("", "section_id=12|type=PSTN|address=777|description=Joe|permission=user") +
            Section("",
                    "section_id=13|type=H323|address=dan|description=|permission=user|"
                    "H232_alias=dan-alias") +
            Section("", "section_id=14|type=|address=any|description=|permission=user"));

    const std::pair<std::string, std::string> blocked = {
        "blockout", "service_on=1|send_message_to_calling_party=1|permission=admin"};
    const std::pair<std::string, std::string> hunted = {"huntring",
                                                        "service_on=0|extensions_list=23"};
    // Copied entry by entry: of two targets the second one stays.
    const std::pair<std::string, std::string> forwarded = {"fnoanswer",
                                                           "service_on=1|callto=PBX-23"};
    EXPECT_EQ(Get("21/supservices_6"),
              Section("blockin", "service_on=1|send_message_to_calling_party=1|permission=admin") +
                  Section("distring", "service_on=0|ring_pattern=4|nick_name=Amy D") +
                  Section("fnoanswer", "service_on=1|callto=PBX-23"));
    EXPECT_EQ(Get("21/supservices_7"),
              Services({{"clir", "service_on=1"},
                        blocked,
                        hunted,
                        {"fnoanswer", "service_on=1|callto=PSTN-0555|callto=PBX-23"}}));
    EXPECT_EQ(Get("21/supservices_8"),
              Services({{"clir", "service_on=1"},
                        {"blockin", "service_on=1|send_message_to_calling_party=|permission=user"},
                        blocked,
                        {"huntring", "service_on=0|extensions_list=21,22"},
                        forwarded}));
    EXPECT_EQ(Get("21/supservices_9"),
              Services({blocked,
                        {"distring", "service_on=1|ring_pattern=2|nick_name=Carl"},
                        hunted,
                        forwarded}));
    EXPECT_EQ(
        Get("21/supservices_10"),
        Services(
            {blocked, {"distring", "service_on=1|ring_pattern=|nick_name="}, hunted, forwarded}));
    EXPECT_EQ(
        Get("21/supservices_11"),
        Services({blocked, hunted, {"manyext", "service_on=0|extensions_list=25"}, forwarded}));
    const std::pair<int, const char*> targets[] = {
        {12, "SIP-joe@sip.example"}, {13, "PSTN-31"}, {14, "IP-10.0.0.4:99"}};
    for (const auto& [id, target] : targets)
        EXPECT_EQ(
            Get("21/supservices_" + std::to_string(id)),
            Services(
                {blocked, hunted, {"fnoanswer", std::string("service_on=1|callto=") + target}}));
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
    const std::pair<const char*, const char*> cases[] = {
        {"Unconditional", "funcond"}, {"Noanswer", "fnoanswer"}, {"Busy", "fbusy"}};
    for (const auto& [mode, section] : cases) {
        site.Remove(site.Live("21"));
        Put("21/servicesdb",
            "hunt_service_on=1\nmany_extension_ringing_service=1\n"
            "call_forwarding_mode=" +
                std::string(mode) + "\n");
        Put("21/forwardlistdb", Section("", "caller_type=PBX|caller=22|call_type=PBX|user_name=9"));
        Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);
        EXPECT_EQ(Get("21/supservices_0"), Services({{"distring", "service_on=0"},
                                                     {"huntring", "service_on=1"},
                                                     {"manyext", "service_on=1"},
                                                     {"fnoanswer", "service_on=0"},
                                                     {section, "service_on=0|callto=PBX-9"}}));
    }
}

TEST_F(Updates, MergeKeepsTheOldDatabasesOfAnExtensionItCouldNotConvert) {
    const std::string services = "call_forwarding_enabled=1\n";
    const std::string caller = Section("", "call_type=PBX|user_name=22");
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
    Put("e1t1/trunk0.cfg", Section("trunk_t1", "echoDelay=40") +
                               Section("trunk_e1", "echoDelay=x") +
                               Section("trunk", "echoDelay=500"));
    Put("isdn/trunk0.cfg", Section("trunk", "echoTail=64|echoDelay=160ms"));
    site.Remove(site.Live("isdn/trunk1.cfg"));
    Put("isdn/trunk2.cfg", Section("trunk_e1", "echoDelay=160") + Section("trunk", "echoTail=1"));
    const std::string trunk2 = Get("isdn/trunk2.cfg");
    Run("3.0.31", &ConfigUpgrader::UpdateEchoDelay);
    EXPECT_EQ(Get("e1t1/trunk0.cfg"), Section("trunk_t1", "echoDelay=-40") +
                                          Section("trunk_e1", "echoDelay=-80") +
                                          Section("trunk", "echoDelay=500"));
    EXPECT_EQ(Get("isdn/trunk0.cfg"), Section("trunk", "echoTail=64|echoDelay=80"));
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
    Put("isdn/trunk0.cfg",
        Section("trunk",
                "encoding_type=a|line_code=b|frame_mode=c|tx_lbo=d|sync_clock=e|"
                "loopbackmode=f|echoTail=g|echoDelay=h|nlp_diff=i|nlp_shift=j|"
                "transmitEnergy=k|receiveEnergy=l|processSaturation=m|patternCount=n|"
                "echoAdvancedSettings=o|networkside=p|passive_mode=r") +
            Section("isdn_user",
                    "D_channel_timeslot_tx=1|D_channel_timeslot_rx=2|Isdn_L2_timer_T200=3|"
                    "Isdn_L2_timer_T203=4|auto_switch=5|tei_number=6|tei_power_up=7|B1_channel=a|"
                    "B2_channel=b|B_channel_order=c|B_channel_select_type=d|Isdn_L3_timer_T302=e|"
                    "Isdn_L3_timer_T306=f|Isdn_L3_timer_T309=g|Isdn_L3_timer_T310=h|"
                    "route_call=DestNumber|switch_type=i|progress_ind_type=j|"
                    "generate_progress_tone=k|generate_progress_tone_pbx=l|clirService=m|"
                    "called_type_number=n|calling_type_number=o|called_numbering_plan=p|"
                    "calling_numbering_plan=q|enhanced_disconnect_mode=r|incoming_dnis_size=s|"
                    "passive_mode=t|use_default_msn=\t1 |enable_msn= 2|incoming_msn=3\t|"
                    "route_msn_call= 12 , DestNumber,34|calling_ext=DestNumber |"
                    "outgoing_msn=1,,\tDestNumbers,|calling_board_number= DestNumber |"
                    "alert_guard_timeout= 9|ddi_service=\tYes ") +
            Section("isdn_net", "route_call= DestNumber|tei_number=64|ddi_service=yes"));
    site.Remove(site.Live("isdn/trunk1.cfg"));
    const std::string trunk2 = Get("isdn/trunk2.cfg");
    Put("isdn/trunk0/trunk.cfg", Section("trunk", "line_code=new|call_control_signaling_type=new"));
    Put("isdn/trunk0/bri_user.cfg", Section("level_2", "tei_number=127") + Section("level_3", ""));
    Put("isdn/trunk0/bri_net.cfg",
        Section("level_3", "switch_type=new") + Section("level_2", "auto_switch=new"));
    Put("isdn.cfg", Section("trunk_2", "file_name=c|enabled=1") +
                        Section("trunk_0", "file_name=a") + Section("trunk_3", "file_name=d"));
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);

    EXPECT_EQ(Get("isdn.cfg"), Section("trunk_2", "enabled=1") + Section("trunk_0", "") +
                                   Section("trunk_3", "file_name=d"));
    EXPECT_EQ(Get("isdn/trunk0/trunk.cfg"),
              Section("trunk",
                      "line_code=new|call_control_signaling_type=|encoding_type=a|"
                      "loopbackmode=f|echoTail=g|echoDelay=h|nlp_diff=i|nlp_shift=j|"
                      "transmitEnergy=k|receiveEnergy=l|processSaturation=m|"
                      "patternCount=n|echoAdvancedSettings=o|interface_type=p|"
                      "passive_mode=r"));
    EXPECT_EQ(Get("isdn/trunk0/bri_user.cfg"),
              Section("level_2",
                      "tei_number=0|Isdn_L2_timer_T200=3|Isdn_L2_timer_T203=4|auto_switch=5|"
                      "tei_power_up=7") +
                  Section("level_3",
                          "B1_channel=a|B2_channel=b|B_channel_order=c|B_channel_select_type=d|"
                          "Isdn_L3_timer_T302=e|Isdn_L3_timer_T306=f|Isdn_L3_timer_T309=g|"
                          "Isdn_L3_timer_T310=h|route_call=RouteInbNmb|switch_type=i|"
                          "progress_ind_type=j|generate_progress_tone_ip=k|"
                          "generate_progress_tone_pbx=l|clirService=m|called_type_number=n|"
                          "calling_type_number=o|called_numbering_plan=p|calling_numbering_plan=q|"
                          "enhanced_disconnect_mode=r|incoming_dnis_size=s|use_default_msn=1|"
                          "enable_msn=2|incoming_msn=3|route_msn_call=12,RouteInbNmb,34|"
                          "calling_ext=RouteInbNmb|outgoing_msn=1,,DestNumbers,|"
                          "calling_board_number=DestNumber|alert_guard_timeout=9|ddi_service=Yes"));
    EXPECT_EQ(Get("isdn/trunk0/bri_net.cfg"),
              Section("level_3", "switch_type=new|route_call= DestNumber|ddi_service=yes") +
                  Section("level_2", "auto_switch=new|tei_number=64"));
    EXPECT_FALSE(Has("isdn/trunk0.cfg"));
    EXPECT_EQ(Get("isdn/trunk2.cfg"), trunk2) << "behind the missing one";
    EXPECT_TRUE(
        Logged("MINOR ERROR: Invalid file: " + site.Live("isdn/trunk1.cfg") + "\nUpdated.\n"));
}

TEST_F(Updates, IsdnMappingEndsAtAnEmptyCommaList) {
    for (const char* key : {"route_msn_call", "calling_ext", "outgoing_msn"}) {
        const std::string old = Section("trunk", "echoTail=7") +
                                Section("isdn_user", "tei_number=6|" + std::string(key) + "=");
        Put("isdn/trunk0.cfg", old);
        Put("isdn/trunk1.cfg", old);
        Put("isdn/trunk0/trunk.cfg", Section("trunk", "echoTail=1"));
        const std::string side = Section("level_2", "tei_number=1") + Section("level_3", "");
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
    const std::string kept = Section("", "id=1|emergancy=0|access_code=0") + Section("", "id=2");
    const std::string routes = Section("", "id=3|emergancy=1") + kept +
                               Section("", "id=4|emergancy=0|access_code=1") +
                               Section("", "id=5|emergancy=1|access_code=1");
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
