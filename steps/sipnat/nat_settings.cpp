// Moves the settings of an old nat.cfg into a section for each transport and one for the media.

#include "app/config_upgrader.h"
#include "steps/sipnat/sections.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Writes a port as both ends of the current section's own range.
void SetSelfPort(ConfigUpgrader& upgrader, MultiSectionFile& live, const std::string& port) {
    live.SetSectionEntry("self_port_range_start", port);
    live.SetSectionEntry("self_port_range_end", port);
    upgrader.report += "\t\tSelf port range start and end is set: " + port + "\n";
}

void SetMappedHost(ConfigUpgrader& upgrader, MultiSectionFile& live, const std::string& host) {
    live.SetSectionEntry("mapped_host", host);
    upgrader.report += "\t\tmapped_host (prev. NAT IP) is set -> " + host + "\n";
}

void SetUseStun(ConfigUpgrader& upgrader, MultiSectionFile& live) {
    live.SetSectionEntry("use_stun", upgrader.sipNatAgentIsTwo ? "1" : "0");
    upgrader.report +=
        std::string("\t\tstun is ") + (upgrader.sipNatAgentIsTwo ? "enabled\n" : "disabled\n");
}

/// The ports and the NAT agent come from the checks of rtp.cfg and sip.cfg, which stand first in
/// the merge list. What these did not find is written empty.
void FillNatSections(ConfigUpgrader& upgrader, MultiSectionFile& live) {
    if (EnterSection(upgrader, live, "exclusiontable")) {
        for (const auto& [key, value] : live.Entries()) {
            if (key.find("addr_") == std::string::npos)
                continue;
            live.DeleteEntry(key);
            live.SetSectionEntry(key, value);
            upgrader.report +=
                "\t\tfile entry: " + key + "=" + value + " moved to section exclusiontable.\n";
        }
    }
    std::string host;  // without sip_udp it is neither read nor deleted, and empty elsewhere
    if (EnterSection(upgrader, live, "sip_udp")) {
        host = TakeTopLevelEntry(live, "NAT IP");
        SetMappedHost(upgrader, live, host);
        SetUseStun(upgrader, live);
        SetSelfPort(upgrader, live, upgrader.sipUdpPort);
        const std::string mapped = TakeTopLevelEntry(live, "Mapped UDP port for SIP");
        live.SetSectionEntry("mapped_port_range_start", mapped);
        live.SetSectionEntry("mapped_port_range_end", mapped);
        upgrader.report +=
            "\t\tMapped port range start and end (prev \"Mapped UDP port for SIP\") is set: " +
            mapped + "\n";
    }
    if (EnterSection(upgrader, live, "sip_tcp")) {  // no STUN, which is for UDP
        SetMappedHost(upgrader, live, host);
        SetSelfPort(upgrader, live, upgrader.sipTcpPort);
    }
    if (EnterSection(upgrader, live, "sip_tls"))
        SetSelfPort(upgrader, live, upgrader.sipTlsPort);  // no mapped host for TLS
    if (EnterSection(upgrader, live, "dynamic")) {
        SetMappedHost(upgrader, live, host);
        SetUseStun(upgrader, live);
        const auto set = [&](const char* key, const char* what, const std::string& value) {
            live.SetSectionEntry(key, value);
            upgrader.report += std::string("\t\t") + what + " is set: " + value + "\n";
        };
        set("self_port_range_start", "Self port range start", upgrader.rtpMinPort);
        set("self_port_range_end", "Self port range end", upgrader.rtpMaxPort);
        set("mapped_port_range_start", "Mapped port range start",
            TakeTopLevelEntry(live, "min_rtp_port"));
        set("mapped_port_range_end", "Mapped port range end",
            TakeTopLevelEntry(live, "max_rtp_port"));
    }
}

}  // namespace

void ConfigUpgrader::ConvertNatSettings() {
    ReportStep("Changing nat.cfg...");
    const std::string path = configRoot + "nat.cfg";
    try {
        MultiSectionFile live(path, true);
        FillNatSections(*this, live);
        Save(live);
        ReportDone();
    } catch (const FileError& error) {
        TraceInvalidFile(path, error);
    }
}
