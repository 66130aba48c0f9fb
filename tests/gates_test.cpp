// Every version gate, driven from a label just below it and from the gate itself.

#include <regex>
#include <set>

#include "platform/thread.h"
#include "store/tree_mirror.h"
#include "tests/support/steps.h"

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
    {"run", "2.4.9", nullptr, "=== voicemaildb check ==="},
    {"run", "2.4.11", "linedb", "[fxo_1|extension=07|"},
    {"caller_databases", "2.3.1", nullptr, "=== services check for "},
    {"caller_databases", "2.3.6", nullptr, "sections id 1 to file LIVE/patterndb"},
    {"caller_databases", "3.1.0", nullptr, "sections id 1 to file LIVE/autologindb"},
    {"file_set_check", "2.2.7", nullptr, "file gaincontrol.cfg is copied"},
    {"file_set_check", "2.3.9", "sip.cfg", "# the end||"},
    {"file_set_check", "2.4.25", nullptr, "sections id 1 to file LIVE/dialplan.cfg"},
    {"file_set_check", "3.0.1", nullptr, "Removing file LIVE/codecgaindb"},
    {"line_database_check", "2.3.11", "linedb", "active_interface=eth0,ppp0|"},
    {"line_database_check", "2.4.11", "linedb", "routing_on=0|][after|"},
    {"line_database_check", "3.0.1", "linedb", "is_sip_to_routing_on=1|"},
    {"line_database_check", "3.0.7", "linedb", "routing_prefix=R|"},
    {"line_database_check", "3.0.11", nullptr, "Set sysmessages_folder = "},
    {"line_database_check", "3.1.22", nullptr, "\"sms_text\" field has been"},
    {"line_sections_check", "3.1.0", nullptr, "\"v_activity_detect_on\" changed"},
    {"line_sections_check", "3.1.25", nullptr, "changed to \"48\" in section"},
    {"config_file_checks", "2.3.1", nullptr, "- CNG for codec - PCMU is"},
    {"config_file_checks", "2.3.29", nullptr, "from minutes to seconds"},
    {"config_file_checks", "2.4.11", nullptr, "correcting fwd type (Busy)"},
    {"config_file_checks", "2.4.16", nullptr, "=== Changing nat.cfg... ==="},
    {"config_file_checks", "2.4.51", "dialplan.seen", "# kept|[|pattern=1|"},
    {"config_file_checks", "2.5.1", "gatewaydb", "[a|type=MGC|subtype=onboard|"},
    {"config_file_checks", "3.0.1", "localrouttabledb", "dialing_template=112|"},
    {"config_file_checks", "3.0.21", "rtp.cfg", "dscp=9|packets_recover_count=0|"},
    {"config_file_checks", "3.1.0", nullptr, "Update fax parameters"},
    {"config_file_checks", "3.1.3", "oldservicecodedb", "CallPark=f5,*5|"},
    {"config_file_checks", "3.1.7", nullptr, "Set zero_out=0."},
    {"voicemail_migration", "2.4.4", "23/voicemaildb", "mail_box_portion=25|"},
    {"sip_settings", "2.3.9", nullptr, "registration failure timeout is set ->"},
    {"sip_settings", "3.0.9", nullptr, "Set \"header short form\""},
    {"sip_settings", "5.1.0", "sip.cfg", "tls port=|"},
    {"stun_and_rtp", "3.1.2", nullptr, "Starting update stun.cfg file"},
    {"stun_and_rtp", "3.1.25", nullptr, "Starting update RTP port ranges"},
    {"call_park_and_length", "3.1.25", nullptr, "Starting update Call Park"},
    {"call_park_and_length", "4.1.7", nullptr, "Set 'is_ext_length_defined=true'"},
    {"fxo_prefix", "3.1.0", nullptr, "Starting update Fxo prefix."},
    {"routing_and_groups", "3.0.0", nullptr, "Check extensions for update local"},
    {"routing_and_groups", "3.0.7", nullptr, "Starting update dialplan.cfg."},
    {"routing_and_groups", "3.1.0", nullptr, "Starting update grouplistdb."},
    {"supplementary_services", "3.0.1", nullptr, "Starting update Supplementary"},
    {"system_extension", "3.1.0", nullptr, "Starting update System extension."},
    {"trunk_files", "3.0.32", nullptr, "Starting update e1t1 & isdn cfg files"},
    {"trunk_files", "4.1.0", nullptr, "Mapping isdn config files"},
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
class Gates : public Steps {
protected:
    Gates() {
        site.Upgrade();
        site.Write(site.appliance.factoryLabel, "99.0.0\n");  // above every gate
        // The dial plan as it is before a later step takes the factory's.
        site.appliance.runShell = [this](const std::string& command) {
            if (command.find("dialplan.cfg") != std::string::npos)
                Put("dialplan.seen", Get("dialplan.cfg"));
            return std::system(command.c_str());
        };
        site.appliance.voiceStorageSize = [](const std::string&) { return 400; };
        Put("linedb",
            "[general|active_interface=eth0|is_sip_to_routing_on=0|routing_prefix=X|sms_text=old|"
            "extension_length=2|][attendant|extension=07|][line_0|dsp_echo_cancel_tail=6|]"
            "[fxo_0|extension=00|][before|routing_on=0|][nonactive_extension_list|][after|]");
        Put("extensiondb", "[attendant|att_0=00|][extension|ext_23=23|]");
        Put("codecgaindb", "");
        PutFactory("codecgaindb", "");
        Put("sip.cfg", "[sip-common|][features|][network|tls port=5061|]# the end|");
        Put("rtp.cfg", "[PCMU|cng=9|dscp=9|packets_recover_count=3|]");
        Put("dialplan.cfg", "# kept|[|pattern=00|][|pattern=1|]");
        Put("gatewaydb", "[a|type=MGC|subtype=|]");
        Put("localrouttabledb", "");
        Put("oldservicecodedb", "CallPark=1|");
        PutFactory("oldservicecodedb", "");
        Put("voicemaildb", "[23|mail_box_size=100|]");
        Put("23/servicesdb", "call_forwarding_type=Busy|fax_mail_service_on=0|");
        Put("23/voicemaildb", "zero_out=1|");
        fs::copy(site.Live(""), site.Path("prepared"),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    }
    /// Upgrades the prepared unit from a label; the versions whose gates it went through.
    void RunFrom(const std::string& label) {
        ASSERT_EQ(Configuration::MirrorTree(site.Path("prepared"), site.Live(""),
                                            Configuration::By::Copying),
                  "");
        site.SetLiveVersion(label);
        log = site.Upgrade();
        ASSERT_TRUE(Holds(log, " is set in linedb\n")) << label;
    }
    bool HasOpened(const Gate& gate) const {
        std::string text = gate.text;
        if (const std::size_t at = text.find("LIVE/"); at != std::string::npos)
            text.replace(at, 5, site.Live(""));
        return Holds(gate.file != nullptr ? Get(gate.file) : log, text);
    }
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

TEST(GateTable, HasEveryVersionInTheSources) {
    std::set<std::pair<std::string, std::string>> listed;
    for (const Gate& gate : gates)
        listed.emplace(gate.source, gate.version);
    std::set<std::pair<std::string, std::string>> found;
    const Site site(Site::Content::Nothing);
    const std::string root = SOURCES;
    for (const char* part : {"/app", "/steps"})
        for (const auto& entry : fs::recursive_directory_iterator(root + part)) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string text = site.Read(entry.path());
            const std::regex version("\"([0-9]+\\.[0-9]+\\.[0-9]+)\"");
            for (std::sregex_iterator match(text.begin(), text.end(), version), end; match != end;
                 ++match)
                found.emplace(entry.path().stem(), (*match)[1]);
        }
    EXPECT_EQ(found, listed);
}
