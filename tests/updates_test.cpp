// The version updates, each step on its own.

#include <filesystem>

#include "platform/string_utils.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Updates : public Steps {
protected:
    Updates() { extensions = {"21"}; }

    bool Logged(const std::string& text) const { return Holds(log, text); }
    const std::string& MergeServices() {
        return Run("3.0.0", &ConfigUpgrader::MergeSupplementaryServices);
    }
};

const char* const oldDatabases[] = {"anonymousdb",  "blockedinnumsdb", "blockedoutnumsdb",
                                    "distringdb",   "huntdb",          "manyextringdb",
                                    "forwardlistdb"};

/// A caller's services file as it is made, with the given sections changed.
std::string Services(const std::string& changed) {
    std::string text;
    for (const char* name : {"clir", "blockin", "blockout", "distring", "huntring", "manyext",
                             "funcond", "fnoanswer", "fbusy"}) {
        const std::string start = std::string("[") + name + "|";
        const bool on = start == "[distring|" || start == "[fnoanswer|";
        const std::size_t at = changed.find(start);
        text += at == std::string::npos ? start + (on ? "service_on=1|]" : "service_on=0|]")
                                        : changed.substr(at, changed.find(']', at) + 1 - at);
    }
    return text;
}

}  // namespace

TEST_F(Updates, MergeGivesEveryCallerOneSectionAndOneServicesFile) {
    Remove("21");
    Put("21/servicesdb",
        "dist_ring_srv=1|hunt_service_on=0|many_extension_ringing_service=yes|"
        "call_forwarding_enabled=1|call_forwarding_mode=Noanswer|");
    const std::string known =
        "[|section_id=6|type=SIP|address=amy@host.example:5061|][|section_id=2|address=PSTN_555|]";
    Put("21/addresspatterndb", known);
    Put("21/supservices_6",
        "[blockin|service_on=0|][distring|service_on=0|ring_pattern=9|][fnoanswer|service_on=0|]");
    const std::string amy =
        "|user_name=amy|user_display_name=Amy|user_host_address=host.example|user_host_port=5061|]";
    Put("21/anonymousdb",
        "[|call_type=PBX|user_name=any|user_host_address=|][|call_type=PSTN|user_name=|]"
        "[|call_type=H323|user_name=bob|H323_alias_address=bob-alias|]");
    Put("21/blockedinnumsdb", "[|caller_type=SIP|send_message_to_calling_party=1|hide_rec=1" + amy +
                                  "[|caller_type=PSTN|user_name=555|hide_rec=1|]");
    Put("21/distringdb", "[|caller_type=SIP|nick_name=Amy D|ring_pattern=4" + amy);
    Put("21/huntdb", "[|caller=any|extensions_list=23|]");
    Put("21/manyextringdb", "[|caller=900|extensions_list=25|]");
    Put("21/forwardlistdb",
        "[|caller=any|call_type=PSTN|user_name=0555|][|caller=any|call_type=PBX|user_name=23|]"
        "[|caller_type=H323|caller=dan|caller_H323_alias_address=dan-alias|"
        "H323_alias_address=wrong|call_type=PSTN|user_name=31|]"
        "[|caller=any|call_type=IP|user_host_address=10.0.0.4|user_host_port=99|]");
    MergeServices();

    const std::string user = "|description=|permission=user|";
    EXPECT_EQ(Get("21/addresspatterndb"),
              known + "[|section_id=7|type=|address=any|description=|permission=system|]" +
                  "[|section_id=8|type=H323|address=bob" + user + "H232_alias=bob-alias|]" +
                  "[|section_id=9|type=|address=900" + user + "]" +
                  "[|section_id=10|type=H323|address=dan" + user + "H232_alias=dan-alias|]" +
                  "[|section_id=11|type=|address=any" + user + "]");
    EXPECT_EQ(Get("21/supservices_6"),
              "[blockin|service_on=1|send_message_to_calling_party=1|permission=admin|]"
              "[distring|service_on=0|ring_pattern=4|nick_name=Amy D|]"
              "[fnoanswer|service_on=1|callto=PBX-23|]");
    const std::string hunted = "[huntring|service_on=0|extensions_list=23|]";
    const auto to = [](const char* target) {
        return "[fnoanswer|service_on=1|callto=" + std::string(target) + "|]";
    };
    const std::string callers[] = {
        hunted + "[clir|service_on=1|]" + to("PSTN-0555|callto=PBX-23"),
        hunted + "[clir|service_on=1|]" + to("PBX-23"),
        // Copied entry by entry: of two targets the second one stays.
        hunted + to("PBX-23") + "[manyext|service_on=0|extensions_list=25|]",
        hunted + to("PSTN-31"),
        hunted + to("IP-10.0.0.4:99"),
    };
    for (std::size_t i = 0; i < std::size(callers); ++i)
        EXPECT_EQ(Get("21/supservices_" + std::to_string(7 + i)), Services(callers[i])) << 7 + i;
    EXPECT_FALSE(Has("21/supservices_2"));
    EXPECT_FALSE(Has("21/supservices_12"));
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
    for (const auto& [mode, section] :
         {std::pair("Unconditional", "[funcond|"), std::pair("Busy", "[fbusy|")}) {
        Remove("21");
        Put("21/servicesdb",
            std::string(
                "hunt_service_on=1|many_extension_ringing_service=1|call_forwarding_mode=") +
                mode + "|");
        Put("21/forwardlistdb", "[|caller_type=PBX|caller=22|call_type=PBX|user_name=9|]");
        MergeServices();
        EXPECT_EQ(Get("21/supservices_0"),
                  Services(std::string("[distring|service_on=0|][huntring|service_on=1|]"
                                       "[manyext|service_on=1|][fnoanswer|service_on=0|]") +
                           section + "service_on=0|callto=PBX-9|]"));
    }
}

TEST_F(Updates, MergeKeepsTheOldDatabasesOfAnExtensionItCouldNotConvert) {
    const std::string caller = "[|call_type=PBX|user_name=22|]";
    const std::pair<const char*, const char*> cases[] = {
        {"addresspatterndb", "MINOR ERROR: Can't save file: PATH ("},
        {"supservices_0", "MINOR ERROR: Can't save file: PATH ("},
        {"servicesdb", "MINOR ERROR: Invalid file: PATH\n"},
        {"huntdb", "MINOR ERROR: Invalid file: PATH\n"},
    };
    extensions = {"31", "32"};
    for (const auto& [name, message] : cases) {
        for (const std::string& extension : extensions) {
            Remove(extension);
            Put(extension + "/servicesdb", "call_forwarding_enabled=1|");
            for (const char* database : oldDatabases)
                Put(extension + "/" + database, "");
            Put(extension + "/anonymousdb", caller);
        }
        const std::string file = std::string("31/") + name;
        if (name == std::string("huntdb"))
            Put(file, malformed);
        else
            Unmakeable(file);
        MergeServices();
        EXPECT_TRUE(Logged(StringUtils::ReplaceString(message, "PATH", site.Live(file), 0))) << log;
        for (const char* database : oldDatabases) {
            EXPECT_TRUE(Has(std::string("31/") + database)) << name << ": " << database;
            EXPECT_FALSE(Has(std::string("32/") + database)) << name << ": " << database;
        }
        EXPECT_EQ(Get("31/anonymousdb"), caller);
        EXPECT_TRUE(Holds(Get("32/addresspatterndb"), "address=22|"));
    }
}

TEST_F(Updates, EchoDelayIsLoweredWhereItStands) {
    Put("e1t1/trunk0.cfg", "[trunk_t1|echoDelay=40|][trunk_e1|echoDelay=x|][trunk|echoDelay=500|]");
    Put("isdn/trunk0.cfg", "[trunk|echoTail=64|echoDelay=160ms|]");
    Remove("isdn/trunk1.cfg");
    Put("isdn/trunk2.cfg", "[trunk_e1|echoDelay=160|][trunk|echoTail=1|]");
    Run("3.0.31", &ConfigUpgrader::UpdateEchoDelay);
    EXPECT_EQ(Get("e1t1/trunk0.cfg") + Get("isdn/trunk0.cfg") + Get("isdn/trunk2.cfg"),
              "[trunk_t1|echoDelay=-40|][trunk_e1|echoDelay=-80|][trunk|echoDelay=500|]"
              "[trunk|echoTail=64|echoDelay=80|][trunk_e1|echoDelay=160|][trunk|echoTail=1|]");
    EXPECT_TRUE(
        Logged(".\nSet echoDelay from x to -80.\nSet echoDelay from 40 to -40.\nUpdated.\n"));
    EXPECT_TRUE(Logged("MINOR ERROR: Invalid file: " + site.Live("isdn/trunk1.cfg") + "\nOpen "));
}

TEST_F(Updates, IsdnMappingRenamesTrimsAndStopsAtAMissingTrunk) {
    Put("isdn/trunk0.cfg",
        "[trunk|line_code=b|networkside=p|passive_mode=r|]"
        "[isdn_user|D_channel_timeslot_tx=1|Isdn_L2_timer_T200=3|route_call=DestNumber|switch_type=i|"
        "incoming_dnis_size=s|passive_mode=t|use_default_msn=\t1 |route_msn_call= 12 , DestNumber|"
        "calling_ext=DestNumber |outgoing_msn=1,,\tDestNumbers,|calling_board_number= DestNumber |"
        "ddi_service=\tYes |][isdn_net|route_call= DestNumber|tei_number=64|ddi_service=yes|]");
    Remove("isdn/trunk1.cfg");
    const std::string trunk2 = Get("isdn/trunk2.cfg");
    Put("isdn/trunk0/trunk.cfg", "[trunk|line_code=new|call_control_signaling_type=new|]");
    Put("isdn/trunk0/bri_user.cfg", "[level_2|tei_number=127|][level_3|]");
    Put("isdn/trunk0/bri_net.cfg", "[level_3|switch_type=new|][level_2|auto_switch=new|]");
    Put("isdn.cfg", "[trunk_2|file_name=c|enabled=1|][trunk_0|file_name=a|][trunk_3|file_name=d|]");
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
    EXPECT_EQ(Get("isdn.cfg"), "[trunk_2|enabled=1|][trunk_0|][trunk_3|file_name=d|]");
    EXPECT_TRUE(Holds(Get("isdn/trunk0/trunk.cfg"),
                      "[trunk|line_code=new|call_control_signaling_type=|encoding_type=|"));
    EXPECT_TRUE(Holds(Get("isdn/trunk0/trunk.cfg"), "|interface_type=p|passive_mode=r|]"));
    EXPECT_EQ(
        Get("isdn/trunk0/bri_user.cfg"),
        "[level_2|tei_number=0|Isdn_L2_timer_T200=3|]"
        "[level_3|route_call=RouteInbNmb|switch_type=i|incoming_dnis_size=s|use_default_msn=1|"
        "route_msn_call=12,RouteInbNmb|calling_ext=RouteInbNmb|outgoing_msn=1,,DestNumbers,|"
        "calling_board_number=DestNumber|ddi_service=Yes|]");
    EXPECT_EQ(Get("isdn/trunk0/bri_net.cfg"),
              "[level_3|switch_type=new|route_call= DestNumber|ddi_service=yes|]"
              "[level_2|auto_switch=new|tei_number=64|]");
    EXPECT_FALSE(Has("isdn/trunk0.cfg"));
    EXPECT_EQ(Get("isdn/trunk2.cfg"), trunk2) << "behind the missing one";
    EXPECT_TRUE(log.ends_with("MINOR ERROR: Invalid file: " + site.Live("isdn/trunk1.cfg") +
                              "\nUpdated.\n"));
}

TEST_F(Updates, IsdnMappingEndsAtAnEmptyCommaListAndKeepsWhatItCannotSave) {
    const std::string side = "[level_2|tei_number=1|][level_3|]";
    for (const char* key : {"route_msn_call", "calling_ext", "outgoing_msn"}) {
        const std::string old =
            std::string("[trunk|echoTail=7|][isdn_user|tei_number=6|") + key + "=|]";
        Put("isdn/trunk0.cfg", old);
        Put("isdn/trunk1.cfg", old);
        Put("isdn/trunk0/trunk.cfg", "[trunk|echoTail=1|]");
        Put("isdn/trunk0/bri_user.cfg", side);
        Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
        EXPECT_TRUE(log.ends_with("bri_user.cfg.\nbasic_string::_M_check")) << log;
        EXPECT_TRUE(Holds(Get("isdn/trunk0/trunk.cfg"), "echoTail=7|"));
        EXPECT_EQ(Get("isdn/trunk0/bri_user.cfg"), side);
        EXPECT_EQ(Get("isdn/trunk0.cfg"), old);
        EXPECT_EQ(Get("isdn/trunk1.cfg"), old);
    }
    const std::string sound = "[trunk|echoTail=7|][isdn_user|tei_number=6|]";
    Put("isdn/trunk0.cfg", sound);
    Put("isdn/trunk1.cfg", sound);
    Unmakeable("isdn/trunk0/bri_user.cfg");
    Remove("isdn/trunk1");
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
    EXPECT_EQ(Get("isdn/trunk0.cfg"), sound);
    EXPECT_FALSE(Has("isdn/trunk1.cfg")) << "a trunk that is not fitted";
    Remove("isdn/trunk0/bri_user.cfg");
    Put("isdn/trunk0/bri_user.cfg", malformed);
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
    EXPECT_EQ(Get("isdn/trunk0.cfg"), sound) << "its settings stand nowhere else";
    Remove("isdn.cfg");
    Run("4.0.99", &ConfigUpgrader::MapIsdnFiles);
    EXPECT_EQ(log, "Mapping isdn config files\nMINOR ERROR: Invalid file: " +
                       site.Live("isdn.cfg") + "\n");
}

TEST_F(Updates, LocalRoutesAreDroppedWithPermissionOnly) {
    const std::string kept = "[|id=1|emergancy=0|access_code=0|][|id=2|]";
    const std::string routes = "[|id=3|emergancy=1|]" + kept +
                               "[|id=4|emergancy=0|access_code=1|]"
                               "[|id=5|emergancy=1|access_code=1|]";
    int calls = 0;
    int result = 0;
    site.appliance.runShell = [&](const std::string& command) {
        ++calls;
        EXPECT_EQ(command, site.appliance.routeTool + " 2> " + site.appliance.lastError);
        EXPECT_FALSE(site.Exists(site.appliance.lastError)) << "whatever stood there";
        site.Write(site.appliance.lastError, "table locked");
        return result;
    };
    extensions = {"31", "32", "33", "34"};
    const auto run = [&](const std::vector<std::string>& inRouting) {
        routing = inRouting;
        calls = 0;
        Put("31/servicesdb", "routing_on=no|");
        Put("32/servicesdb", "other=1|");
        Remove("33");
        Put("34/servicesdb", "routing_on=1|");
        Put("localrouttabledb", routes);
        site.Write(site.appliance.lastError, "old");
        Run("2.9.9", &ConfigUpgrader::UpdateLocalRouteDB);
        EXPECT_EQ(Get("31/servicesdb") + Get("32/servicesdb"), "routing_on=1|other=1|");
        EXPECT_EQ(site.Exists(site.appliance.lastError), calls == 0);
    };
    const std::string opening =
        "Check extensions for update localrouttabledb.\n"
        "MINOR ERROR in UpdateLocalRouteDB: Invalid file: " +
        site.Live("33/servicesdb") + "\n";
    run({"31", "32", "33"});  // none of them was in routing mode
    EXPECT_EQ(Get("localrouttabledb"), kept);
    EXPECT_EQ(log, opening + "Starting update localrouttabledb.\nUpdate done - Success.\nDone.\n");
    run({"34"});
    EXPECT_EQ(Get("localrouttabledb"), routes);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(log, opening + "Extension 34 is in routing mode, Update canceled.\nDone.\n");
    result = 256;
    run({});
    EXPECT_EQ(Get("localrouttabledb"), kept);
    EXPECT_TRUE(Logged("Update done - Failed: table locked.\nDone.\n"));
}

TEST_F(Updates, DialPlanCarriesTheTimeoutOver) {
    const std::string factory = "[|pattern=R*|timeout=4|][|pattern=R*|]";
    const std::string old = "[|pattern=0*|timeout=7|][|pattern=0*|timeout=8|]";
    const struct {
        std::string live, factory, after, reported;
        int result;  // of the copy, which is made when it is 0
    } cases[] = {
        {old, factory, "[|pattern=R*|timeout=7|][|pattern=R*|]", "Success.\nSet timeout = 7 for ",
         0},
        {"[|pattern=0|timeout=7|]", factory, factory, "Success.\n", 0},
        {old, "[|pattern=R|]", "[|pattern=R|]", "Success.\n", 0},
        {"[|pattern=R*|]" + old, factory, "[|pattern=R*|timeout=7|]" + old, "Failed.\nSet ", 127},
    };
    for (const auto& test : cases) {
        Put("dialplan.cfg", test.live);
        PutFactory("dialplan.cfg", test.factory);
        const std::string copy =
            "cp -p -r " + site.Factory("dialplan.cfg") + " " + site.Live("dialplan.cfg");
        site.appliance.runShell = [&](const std::string& command) {
            EXPECT_EQ(command, copy + ".mend-tmp") << "a cut copy never stands in its place";
            return test.result == 0 ? std::system(command.c_str()) : test.result;
        };
        Run("3.0.6", &ConfigUpgrader::UpdateDialPlan);
        EXPECT_EQ(Get("dialplan.cfg"), test.after);
        EXPECT_TRUE(Logged(" is copied from default-conf .\n" + copy + " - " + test.reported));
    }
    Remove("dialplan.cfg");
    Run("3.0.6", &ConfigUpgrader::UpdateDialPlan);
    EXPECT_TRUE(Logged("Invalid file: " + site.Live("dialplan.cfg") + "\n"));
    EXPECT_FALSE(Has("dialplan.cfg"));
}

TEST_F(Updates, GroupListsGetOneEntryPerAddress) {
    const std::string useless = "[|address_list=1002,,1003|]";
    extensions = {"31", "32", "33", "34"};
    Put("31/grouplistdb",
        "[|group=a|address_list=1001/host/x,1002, SIP/b|note=n|][|group=b|addr=kept|]" + useless);
    Put("32/grouplistdb", useless);
    Put("33/grouplistdb", malformed);
    Run("3.0.99", &ConfigUpgrader::UpdateGroupListDB);
    EXPECT_EQ(Get("31/grouplistdb"),
              "[|group=a|note=n|addr=1001-host/x|addr= SIP-b|][|group=b|addr=kept|][|]");
    EXPECT_EQ(Get("32/grouplistdb"), useless) << "no address added, so not saved";
    EXPECT_FALSE(Has("34/grouplistdb"));
    EXPECT_TRUE(
        log.ends_with("Update for extension 33.\nMINOR ERROR in UpdateGroupListDB: Invalid file: " +
                      site.Live("33/grouplistdb") + "\nUpdate for extension 34.\nDone.\n"));
}

TEST_F(Updates, SystemExtensionTakesWhatTheMailboxesLeave) {
    extensions = {"31", "32", "33"};
    attendants = {"00"};
    // A relative folder: the test's own directory may have a 00 in its name, too.
    const fs::path home = fs::current_path();
    fs::current_path(site.Path(""));
    const std::string folder = "mnt/bbram/voice/00/";
    for (const std::string share : {"48", "49"}) {
        Put("00/voicemaildb", "voice_data_folder=" + folder + "|mail_box_portion=20|");
        Put("00/personaldatadb", "scenario=office|name=x|");
        Put("31/voicemaildb", "mail_box_portion=30|");
        Put("32/voicemaildb", "mail_box_portion=" + share + "|");
        fs::create_directories(site.Live("system"));
        site.Write(site.Path(folder + "attwelcomerouting.wav"), "");
        Run("3.0.99", &ConfigUpgrader::UpdateSystemExtension);
        EXPECT_EQ(Get("system/voicemaildb"),
                  "voice_data_folder=mnt/bbram/voice/system/|mail_box_portion=" +
                      std::string(share == "48" ? "1|" : "0|"));
        EXPECT_EQ(Get("system/personaldatadb"), "scenario=|name=x|is_default=1|");
        EXPECT_FALSE(fs::exists(folder + "attwelcomerouting.wav"));
        EXPECT_TRUE(Logged("Removed " + folder + "attwelcomerouting.wav file - Success.\n"));
    }
    fs::current_path(home);
    const std::string system = Get("system/voicemaildb");
    Put("00/voicemaildb", "mail_box_portion=7|");
    site.appliance.runShell = [&](const std::string& command) {
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
}

TEST_F(Updates, RestrictionRemovesAttendantsAndNothingElse) {
    const std::string before =
        "[attendant|att_0=01|att_1=00|att_2=|att_3=.|att_4=..|att_5=../x|att_6=02/sub|att_0=03|"
        "att_1=04|att_1=00|att_9=dialplan.cfg|att_8=21|att_8=system|][extension|ext_21=21|]";
    for (const char* name :
         {"00/k", "01/k", "02/sub/k", "03/deep/k", "04/k", "../x/k", "21/k", "system/k"})
        Put(name, "");
    Put("extensiondb", before);
    for (const char* code : {"BR", "br ", "brx", ""}) {
        site.Write(site.appliance.eeprom, std::string("restriction=") + code + "\n");
        EXPECT_EQ(Run("9.9.9", &ConfigUpgrader::RestrictAttendants), "") << code;
    }
    EXPECT_EQ(Get("extensiondb"), before);
    site.Write(site.appliance.eeprom, "restriction=br\n");
    Run("9.9.9", &ConfigUpgrader::RestrictAttendants);
    const std::string after = "[attendant|att_1=00|att_1=00|]";
    EXPECT_EQ(Get("extensiondb"), after + "[extension|ext_21=21|]");
    for (const char* name : {"01", "03", "04"})
        EXPECT_FALSE(Has(name)) << name;
    for (const char* name : {"00/k", "02/sub/k", "../x/k", "21/k", "system/k"})
        EXPECT_TRUE(Has(name)) << name;
    EXPECT_TRUE(Has("dialplan.cfg")) << "a file is no attendant's directory";
    std::string lines =
        "Starting update attendant for restriction.\nOpen File: " + site.Live("extensiondb") +
        ".\n";
    for (const char* name :
         {"01", "", ".", "..", "../x", "02/sub", "03", "04", "dialplan.cfg", "21", "system"})
        lines += std::string("\tRemove Attendant: ") + name + "\n";
    EXPECT_EQ(log, lines + "Done.\n");

    Put("21/servicesdb", "call_park_on=1|");  // a later step must not bring them back
    upgrader->liveVersion = "3.1.24";
    upgrader->UpdateCallPark();
    EXPECT_EQ(Get("extensiondb"), after + "[extension|][callpark|ext_21=21|]");

    Put("extensiondb", "[extension|]");
    Run("9.9.9", &ConfigUpgrader::RestrictAttendants);
    EXPECT_TRUE(log.ends_with(".\nThere is no \"attendant\" section!\n"));
}

TEST_F(Updates, FxoPrefixLeavesTheNumbers) {
    extensions = {"30", "31", "32"};
    Put("31/speedcalldb",
        "[|call_type=PSTN|user_name=00123|fxo_prefix=9|][|call_type=PSTN|user_name=0|]"
        "[|call_type=PSTN|user_name=123|][|call_type=SIP|user_name=0123|]");
    Put("31/servicesdb", "auto_call_type=PSTN|auto_dest=0|");
    Put("32/servicesdb", "auto_call_type=PBX|auto_dest=021|");
    Put("31/addresspatterndb", "[|section_id=4|][|section_id=1|]");
    Put("default/addresspatterndb", "[|section_id=0|]");
    const std::string targets =
        "[fbusy|callto=PSTN-0555|callto=PSTN-555|callto=PSTNx0|callto=PSTN-|callto=PSTN0055|"
        "callto=SIP-00|other=PSTN-0555|][funcond|callto=PSTN-00|][fother|callto=PSTN-0555|]";
    const std::string changed =
        "[fbusy|callto=PSTN-555|callto=PSTN-555|callto=PSTN-|callto=PSTN-|callto=PSTN-55|"
        "callto=SIP-00|other=PSTN-0555|][funcond|callto=PSTN-0|][fother|callto=PSTN-0555|]";
    for (const char* name : {"31/supservices_0", "31/supservices_1", "32/supservices_0"})
        Put(name, targets);
    Run("3.0.99", &ConfigUpgrader::UpdateFxoPrefix);
    EXPECT_EQ(Get("31/speedcalldb"),
              "[|call_type=PSTN|user_name=0123|fxo_prefix=0|]"
              "[|call_type=PSTN|user_name=|fxo_prefix=0|]"
              "[|call_type=PSTN|user_name=123|][|call_type=SIP|user_name=0123|]");
    EXPECT_EQ(Get("31/servicesdb"), "auto_call_type=PSTN|auto_dest=|auto_fxo_prefix=0|");
    EXPECT_EQ(Get("32/servicesdb"), "auto_call_type=PBX|auto_dest=021|");
    EXPECT_EQ(Get("31/supservices_0"), targets) << "not one of its own callers";
    EXPECT_EQ(Get("31/supservices_1"), changed);
    EXPECT_EQ(Get("32/supservices_0"), changed) << "by the shared patterns";
    const std::string wrong = "MINOR ERROR in UpdateFxoPrefix: Invalid file: ";
    for (const char* name : {"30/speedcalldb", "30/servicesdb", "30/supservices_0",
                             "31/supservices_4", "32/speedcalldb"})
        EXPECT_TRUE(Logged(wrong + site.Live(name) + "\n")) << name;
    Remove("default/addresspatterndb");
    Run("3.0.99", &ConfigUpgrader::UpdateFxoPrefix);
    EXPECT_TRUE(log.ends_with(wrong + site.Live("default/addresspatterndb") + ".\nDone.\n")) << log;
}

TEST_F(Updates, CallParkExtensionsMoveAndTheExtensionLengthIsMarked) {
    extensions = {"31", "32", "33", "34"};
    Put("31/servicesdb", "call_park_on=1|");
    Put("32/servicesdb", "call_park_on=0|");
    Put("34/servicesdb", "call_park_on=1|");
    Put("extensiondb", "[callpark|ext_31=31|][extension|ext_31=31|ext_32=32|ext_33=33|ext_34=34|]");
    Run("3.1.24", &ConfigUpgrader::UpdateCallPark);
    EXPECT_EQ(Get("extensiondb"),
              "[callpark|ext_31=31|ext_31=31|ext_34=34|][extension|ext_32=32|ext_33=33|]");
    // The line names the value of the switch.
    EXPECT_TRUE(
        Logged("Ext: 31\nOpen File: " + site.Live("31/servicesdb") +
               ".\nExt 1 is callpark extension, moved from \"extension\" section to \"callpark\" "
               "section.\n"));
    Put("extensiondb", "[callpark|]");
    Run("3.1.24", &ConfigUpgrader::UpdateCallPark);
    EXPECT_EQ(Get("extensiondb"), "[callpark|]");

    const std::string opening = "Set 'is_ext_length_defined=true' \n";
    Put("linedb", "[general|a=1|is_ext_length_defined=0|]");
    EXPECT_EQ(Run("4.1.6", &ConfigUpgrader::UpdateExtensionLength), opening + "Done.\n");
    EXPECT_EQ(Get("linedb"), "[general|a=1|is_ext_length_defined=1|]");
    upgrader->lineDb->DeleteSection("general");
    upgrader->UpdateExtensionLength();
    upgrader->lineDb.reset();
    upgrader->UpdateExtensionLength();
    EXPECT_EQ(TakeLog(),
              opening + "section 'general' doesn't exist.\n" + opening + "linedb doesn't exist.\n");
}
