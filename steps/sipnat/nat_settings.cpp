// Moves the settings of an old nat.cfg into a section for each transport and one for the media.

#include "app/config_upgrader.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

void ConfigUpgrader::ConvertNatSettings() {
    ReportStep("Changing nat.cfg...");
    const std::string path = configRoot + "nat.cfg";
    try {
        MultiSectionFile live(path, true);
        FillNatSections(live);
        Save(live);
        ReportDone();
    } catch (const FileError&) {
        TraceInvalidFile(path);
    }
}

/// Writes a port as both ends of the current section's own range.
void ConfigUpgrader::SetSelfPort(MultiSectionFile& live, const std::string& port) {
    live.SetSectionEntry("self_port_range_start", port);
    live.SetSectionEntry("self_port_range_end", port);
    report += "\t\tSelf port range start and end is set: " + port + "\n";
}

void ConfigUpgrader::SetMappedHost(MultiSectionFile& live, const std::string& host) {
    live.SetSectionEntry("mapped_host", host);
    report += "\t\tmapped_host (prev. NAT IP) is set -> " + host + "\n";
}

void ConfigUpgrader::SetUseStun(MultiSectionFile& live) {
    live.SetSectionEntry("use_stun", sipNatAgentIsTwo ? "1" : "0");
    report += std::string("\t\tstun is ") + (sipNatAgentIsTwo ? "enabled\n" : "disabled\n");
}

void ConfigUpgrader::FillNatSections(MultiSectionFile& live) {
    if (EnterSection(live, "exclusiontable")) {
        for (const auto& [key, value] : live.Entries()) {
            if (key.find("addr_") == std::string::npos)
                continue;
            live.DeleteEntry(key);
            live.SetSectionEntry(key, value);
            report +=
                "\t\tfile entry: " + key + "=" + value + " moved to section exclusiontable.\n";
        }
    }
    std::string host;  // without sip_udp it is neither read nor deleted
    if (EnterSection(live, "sip_udp")) {
        host = TakeTopLevelEntry(live, "NAT IP");
        SetMappedHost(live, host);
        SetUseStun(live);
        SetSelfPort(live, sipUdpPort);
        const std::string mapped = TakeTopLevelEntry(live, "Mapped UDP port for SIP");
        live.SetSectionEntry("mapped_port_range_start", mapped);
        live.SetSectionEntry("mapped_port_range_end", mapped);
        report +=
            "\t\tMapped port range start and end (prev \"Mapped UDP port for SIP\") is set: " +
            mapped + "\n";
    }
    if (EnterSection(live, "sip_tcp")) {
        SetMappedHost(live, host);
        SetSelfPort(live, sipTcpPort);
    }
    if (EnterSection(live, "sip_tls"))
        SetSelfPort(live, sipTlsPort);  // no mapped host for TLS
    if (EnterSection(live, "dynamic")) {
        SetMappedHost(live, host);
        SetUseStun(live);
        const auto set = [&](const char* key, const char* what, const std::string& value) {
            live.SetSectionEntry(key, value);
            report += std::string("\t\t") + what + " is set: " + value + "\n";
        };
        set("self_port_range_start", "Self port range start", rtpMinPort);
        set("self_port_range_end", "Self port range end", rtpMaxPort);
        set("mapped_port_range_start", "Mapped port range start",
            TakeTopLevelEntry(live, "min_rtp_port"));
        set("mapped_port_range_end", "Mapped port range end",
            TakeTopLevelEntry(live, "max_rtp_port"));
    }
}
