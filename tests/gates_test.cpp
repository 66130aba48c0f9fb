// Every version gate, driven from a label just below it and from the gate itself.

#include <gtest/gtest.h>
#include <regex>
#include <set>

#include "platform/thread.h"
#include "store/tree_mirror.h"
#include "tests/support/site.h"

namespace fs = std::filesystem;

namespace {

/// A gate: the source file it stands in, and what a run below it leaves that a run from it does
/// not, in the log or in a file of the telephony directory.
struct Gate {
    const char* source;
    const char* version;
    const char* file;  // null: the log
    const char* text;
};

const Gate gates[] = {
    {"app/run.cpp", "2.4.9", nullptr, "=== voicemaildb check ==="},
    {"app/run.cpp", "2.4.11", "linedb", "section fxo_1\n{\nextension=07\n"},
    {"steps/databases/caller_databases.cpp", "2.3.1", nullptr, "=== services check for "},
    {"steps/databases/caller_databases.cpp", "2.3.6", nullptr,
     "sections id 1 to file LIVE/patterndb"},
    {"steps/databases/caller_databases.cpp", "3.1.0", nullptr,
     "sections id 1 to file LIVE/autologindb"},
    {"steps/databases/file_set_check.cpp", "2.2.7", nullptr, "file gaincontrol.cfg is copied"},
    {"steps/databases/file_set_check.cpp", "2.3.9", "sip.cfg", "# the end\n\n"},
    {"steps/databases/file_set_check.cpp", "2.4.25", nullptr,
     "sections id 1 to file LIVE/dialplan.cfg"},
    {"steps/databases/file_set_check.cpp", "3.0.1", nullptr, "Removing file LIVE/codecgaindb"},
    {"steps/databases/line_database_check.cpp", "2.3.11", "linedb", "active_interface=eth0,ppp0\n"},
    {"steps/databases/line_database_check.cpp", "2.4.11", "linedb",
     "routing_on=0\n}\nsection after"},
    {"steps/databases/line_database_check.cpp", "3.0.1", "linedb", "is_sip_to_routing_on=1\n"},
    {"steps/databases/line_database_check.cpp", "3.0.7", "linedb", "routing_prefix=R\n"},
    {"steps/databases/line_database_check.cpp", "3.0.11", nullptr, "Set sysmessages_folder = "},
    {"steps/databases/line_database_check.cpp", "3.1.22", nullptr, "\"sms_text\" field has been"},
    {"steps/databases/line_sections_check.cpp", "3.1.0", nullptr,
     "\"v_activity_detect_on\" changed"},
    {"steps/databases/line_sections_check.cpp", "3.1.25", nullptr, "changed to \"48\" in section"},
    {"steps/services/config_file_checks.cpp", "2.3.1", nullptr, "- CNG for codec - PCMU is"},
    {"steps/services/config_file_checks.cpp", "2.3.29", nullptr, "from minutes to seconds"},
    {"steps/services/config_file_checks.cpp", "2.4.11", nullptr, "correcting fwd type (Busy)"},
    {"steps/services/config_file_checks.cpp", "2.4.16", nullptr, "=== Changing nat.cfg... ==="},
    {"steps/services/config_file_checks.cpp", "2.4.51", "dialplan.seen",
     "# kept\nsection\n{\npattern=1\n"},
    {"steps/services/config_file_checks.cpp", "2.5.1", "gatewaydb",
     "section a\n{\ntype=MGC\nsubtype=onboard\n"},
    {"steps/services/config_file_checks.cpp", "3.0.1", "localrouttabledb",
     "dialing_template=112\n"},
    {"steps/services/config_file_checks.cpp", "3.0.21", "rtp.cfg",
     "dscp=9\npackets_recover_count=0\n"},
    {"steps/services/config_file_checks.cpp", "3.1.0", nullptr, "Update fax parameters"},
    {"steps/services/config_file_checks.cpp", "3.1.3", "oldservicecodedb", "CallPark=f5,*5\n"},
    {"steps/services/config_file_checks.cpp", "3.1.7", nullptr, "Set zero_out=0."},
    {"steps/services/voicemail_migration.cpp", "2.4.4", "23/voicemaildb", "mail_box_portion=25\n"},
    {"steps/sipnat/sip_settings.cpp", "2.3.9", nullptr, "registration failure timeout is set ->"},
    {"steps/sipnat/sip_settings.cpp", "3.0.9", nullptr, "Set \"header short form\""},
    {"steps/sipnat/sip_settings.cpp", "5.1.0", "sip.cfg", "tls port=\n"},
    {"steps/sipnat/stun_and_rtp.cpp", "3.1.2", nullptr, "Starting update stun.cfg file"},
    {"steps/sipnat/stun_and_rtp.cpp", "3.1.25", nullptr, "Starting update RTP port ranges"},
    {"steps/updates/call_park_and_length.cpp", "3.1.25", nullptr, "Starting update Call Park"},
    {"steps/updates/call_park_and_length.cpp", "4.1.7", nullptr,
     "Set 'is_ext_length_defined=true'"},
    {"steps/updates/fxo_prefix.cpp", "3.1.0", nullptr, "Starting update Fxo prefix."},
    {"steps/updates/routing_and_groups.cpp", "3.0.0", nullptr, "Check extensions for update local"},
    {"steps/updates/routing_and_groups.cpp", "3.0.7", nullptr, "Starting update dialplan.cfg."},
    {"steps/updates/routing_and_groups.cpp", "3.1.0", nullptr, "Starting update grouplistdb."},
    {"steps/updates/supplementary_services.cpp", "3.0.1", nullptr, "Starting update Supplementary"},
    {"steps/updates/system_extension.cpp", "3.1.0", nullptr, "Starting update System extension."},
    {"steps/updates/trunk_files.cpp", "3.0.32", nullptr, "Starting update e1t1 & isdn cfg files"},
    {"steps/updates/trunk_files.cpp", "4.1.0", nullptr, "Mapping isdn config files"},
};

/// The newest version of as many fields that is older.
std::string Below(const std::string& version) {
    int fields[3] = {};
    std::sscanf(version.c_str(), "%d.%d.%d", &fields[0], &fields[1], &fields[2]);
    int last = 2;
    while (fields[last] == 0)
        fields[last--] = 99;
    --fields[last];
    return std::to_string(fields[0]) + "." + std::to_string(fields[1]) + "." +
           std::to_string(fields[2]);
}

/// A unit on which every gate has something to do.
class Gates : public testing::Test {
protected:
    Gates() {
        site.Upgrade();
        site.Write(site.appliance.factoryLabel, "99.0.0\n");  // above every gate
        // The dial plan as it is before a later step takes the factory's.
        site.appliance.runShell = [this](const std::string& command) {
            if (command.find("dialplan.cfg") != std::string::npos)
                Write("dialplan.seen", site.Read(site.Live("dialplan.cfg")));
            return std::system(command.c_str());
        };
        site.appliance.voiceStorageSize = [](const std::string&) { return 400; };
        Write("linedb",
              "section general\n{\nactive_interface=eth0\nis_sip_to_routing_on=0\n"
              "routing_prefix=X\nsms_text=old\nextension_length=2\n}\n"
              "section attendant\n{\nextension=07\n}\n"
              "section line_0\n{\ndsp_echo_cancel_tail=6\n}\n"
              "section fxo_0\n{\nextension=00\n}\nsection before\n{\nrouting_on=0\n}\n"
              "section nonactive_extension_list\n{\n}\nsection after\n{\n}\n");
        Write("extensiondb",
              "section attendant\n{\natt_0=00\n}\nsection extension\n{\next_23=23\n}\n");
        Write("codecgaindb", "");
        site.Write(site.Factory("codecgaindb"), "");
        Write("sip.cfg",
              "section sip-common\n{\n}\nsection features\n{\n}\n"
              "section network\n{\ntls port=5061\n}\n# the end\n");
        Write("rtp.cfg", "section PCMU\n{\ncng=9\ndscp=9\npackets_recover_count=3\n}\n");
        Write("dialplan.cfg", "# kept\nsection\n{\npattern=00\n}\nsection\n{\npattern=1\n}\n");
        Write("gatewaydb", "section a\n{\ntype=MGC\nsubtype=\n}\n");
        Write("localrouttabledb", "");
        Write("oldservicecodedb", "CallPark=1\n");
        site.Write(site.Factory("oldservicecodedb"), "");
        Write("voicemaildb", "section 23\n{\nmail_box_size=100\n}\n");
        Write("23/servicesdb", "call_forwarding_type=Busy\nfax_mail_service_on=0\n");
        Write("23/voicemaildb", "zero_out=1\n");
        fs::copy(site.Live(""), site.Path("prepared"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    void Write(const std::string& name, const std::string& text) {
        site.Write(site.Live(name), text);
    }
    /// Upgrades the prepared unit from a label; the versions whose gates it went through.
    void RunFrom(const std::string& label) {
        ASSERT_EQ(Configuration::MirrorTree(site.Path("prepared"), site.Live(""),
                                            Configuration::By::Copying),
                  "");
        site.SetLiveVersion(label);
        log = site.Upgrade();
        ASSERT_NE(log.find(" is set in linedb\n"), std::string::npos) << label;
    }
    bool HasOpened(const Gate& gate) const {
        std::string text = gate.text;
        if (const std::size_t at = text.find("LIVE/"); at != std::string::npos)
            text.replace(at, 5, site.Live(""));
        const std::string& where = gate.file != nullptr ? site.Read(site.Live(gate.file)) : log;
        return where.find(text) != std::string::npos;
    }

    Site site;
    std::string log;
};

}  // namespace

TEST_F(Gates, OpenBelowTheirVersionOnly) {
    std::set<std::string> versions;
    for (const Gate& gate : gates)
        versions.insert(gate.version);
    for (const std::string& version : versions)
        for (const bool isBelow : {true, false}) {
            const std::string label = isBelow ? Below(version) : version;
            RunFrom(label);
            for (const Gate& gate : gates) {
                if (gate.version != version)
                    continue;
                EXPECT_EQ(HasOpened(gate), isBelow)
                    << gate.source << " " << version << " from " << label << ": " << gate.text;
            }
        }
}

TEST_F(Gates, AllOpenForTheOldestLabel) {
    RunFrom("2.2.0");
    for (const Gate& gate : gates) {
        if (gate.version == std::string("5.1.0"))
            continue;  // a sip.cfg from before 2.3.9 is converted by another way
        EXPECT_TRUE(HasOpened(gate)) << gate.source << " " << gate.version << ": " << gate.text;
    }
}

TEST(GateTable, HasEveryVersionInTheSources) {
    std::set<std::pair<std::string, std::string>> listed;
    for (const Gate& gate : gates)
        listed.emplace(gate.source, gate.version);
    std::set<std::pair<std::string, std::string>> found;
    const std::string root = SOURCES;
    for (const char* part : {"/app", "/steps"})
        for (const auto& entry : fs::recursive_directory_iterator(root + part)) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string text = Site().Read(entry.path());
            const std::regex version("\"([0-9]+\\.[0-9]+\\.[0-9]+)\"");
            for (std::sregex_iterator match(text.begin(), text.end(), version), end; match != end;
                 ++match)
                found.emplace(entry.path().string().substr(root.size() + 1), (*match)[1]);
        }
    EXPECT_EQ(found, listed);
}
