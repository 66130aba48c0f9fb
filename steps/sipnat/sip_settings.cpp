// Moves the settings of an old sip.cfg into its sections, and records ports, timer profile and NAT
// agent for the steps that follow.

#include <cstdint>
#include <cstdlib>

#include "app/config_upgrader.h"
#include "steps/sipnat/sections.h"
#include "util/numbers.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Top-level entries that have no place in the new layout. "TCP" has been read by then.
constexpr const char* droppedEntries[] = {"TCP",
                                          "Register",
                                          "Initial Retransmit Interval",
                                          "Maximal Retransmit Interval",
                                          "Invite Message Retransmit Count",
                                          "Response Retransmit Count",
                                          "Non-Invite Request Retransmit Count",
                                          "Retransmission Scheme"};

/// The next higher port, reckoned in 32 bits so that it wraps alike on all machines.
std::string NextPort(const std::string& port) {
    const auto number = static_cast<std::uint32_t>(std::strtol(port.c_str(), nullptr, 10));
    return NumberToString(static_cast<std::int32_t>(number + 1));
}

/// Works on the current section, which is "sip-common".
void SwitchOffSipHeaderForms(ConfigUpgrader& upgrader, MultiSectionFile& live) {
    upgrader.report += "\t\tSet \"header short form\", \"multi headers\" entries value to 0.\n";
    live.SetSectionEntry("header short form", "0");
    live.SetSectionEntry("multi headers", "0");
}

void ConvertOldSipSettings(ConfigUpgrader& upgrader, MultiSectionFile& live) {
    if (EnterSection(upgrader, live, "sip-common")) {
        const std::string timeout = TakeTopLevelEntry(live, "Registration Timeout");
        live.SetSectionEntry("registration timeout", timeout);
        upgrader.report += "\t\tregistration timeout is set -> " + timeout + "\n";
        const std::string failure = TakeTopLevelEntry(live, "Registration Failure Timeout");
        live.SetSectionEntry("registration failure timeout", failure);
        upgrader.report += "\t\tregistration failure timeout is set -> " + failure + "\n";
        if (upgrader.IsVersionBelow("3.0.9"))
            SwitchOffSipHeaderForms(upgrader, live);
    }
    if (EnterSection(upgrader, live, "features")) {
        const std::string nat = TakeTopLevelEntry(live, "NAT Enabled");
        // A "2", which is STUN, becomes a "1" too: from here on nat.cfg says use_stun.
        const std::string agent = nat == "0" ? "0" : "1";
        live.SetSectionEntry("nat agent", agent);
        upgrader.report += "\t\tnat agent is set -> " + agent + "\n";
        upgrader.sipNatAgentIsTwo = nat == "2";
    }
    if (EnterSection(upgrader, live, "network")) {
        upgrader.sipUdpPort = TakeTopLevelEntry(live, "Port");
        live.SetSectionEntry("udp port", upgrader.sipUdpPort);
        upgrader.report += "\t\tudp port is set -> " + upgrader.sipUdpPort + "\n";
        const bool tcpOn = live.GetEntry("TCP") == "1";
        upgrader.sipTcpPort = tcpOn ? upgrader.sipUdpPort : "";
        live.SetSectionEntry("tcp port", upgrader.sipTcpPort);
        if (tcpOn)
            upgrader.report += "\t\ttcp port is set -> " + upgrader.sipTcpPort + "\n";
        else
            upgrader.report +=
                "\t\ttcp port is set empty, TCP was switched off in restored sip.cfg\n";
        // TLS listens on TCP as well, so it cannot have the port that TCP may have now. Below 5.1.0
        // the current layout loses its TLS port; the old one keeps it. That difference is meant.
        const auto tls = live.GetSectionEntry("tls port");
        upgrader.sipTlsPort = tls.value_or("");
        if (tls && !tls->empty() && *tls == upgrader.sipUdpPort) {
            upgrader.sipTlsPort = NextPort(upgrader.sipUdpPort);
            live.SetSectionEntry("tls port", upgrader.sipTlsPort);
            upgrader.report += "\t\ttls port has same value as tcp and udp, changed to -> " +
                               upgrader.sipTlsPort + "\n";
        }
    }
    for (const char* key : droppedEntries)
        live.DeleteEntry(key);
    upgrader.Save(live);
    upgrader.ReportDone();
}

void UpdateSipSettings(ConfigUpgrader& upgrader, MultiSectionFile& live, bool changed) {
    if (GotoSectionOrReport(upgrader, live, "sip-common")) {
        if (const auto profile = live.GetSectionEntry("timer_profile")) {
            upgrader.sipTimerProfile = *profile;  // it lives in timerprofile.cfg now
            live.DeleteSectionEntry("timer_profile");
            changed = true;
        }
        if (upgrader.IsVersionBelow("3.0.9")) {
            SwitchOffSipHeaderForms(upgrader, live);
            changed = true;
        }
    }
    if (GotoSectionOrReport(upgrader, live, "features"))
        upgrader.sipNatAgentIsTwo = live.GetSectionEntry("nat agent") == "2";
    if (GotoSectionOrReport(upgrader, live, "network")) {
        upgrader.sipUdpPort = live.GetSectionEntry("udp port").value_or("");
        upgrader.sipTcpPort = live.GetSectionEntry("tcp port").value_or("");
        if (upgrader.IsVersionBelow("5.1.0")) {
            live.SetSectionEntry("tls port", "");
            upgrader.sipTlsPort.clear();
            changed = true;
        } else {
            upgrader.sipTlsPort = live.GetSectionEntry("tls port").value_or("");
        }
    }
    if (!changed) {
        upgrader.report += "\tnothing changed, version should be OK!\n";
        upgrader.ReportDone();
        return;
    }
    upgrader.Save(live);
    // The line follows every save, whatever the change was, and no "Done..." follows it.
    upgrader.report += "\t\tcopied \"log level\" entry value from default conf\n";
}

}  // namespace

void ConfigUpgrader::ConvertSipSettings() {
    ReportStep("Changing sip.cfg...");
    const std::string livePath = configRoot + "sip.cfg";
    const std::string factoryPath = appliance.factoryTelephony + "sip.cfg";
    const std::string* opening = &livePath;
    try {
        MultiSectionFile live(livePath, true);
        opening = &factoryPath;
        MultiSectionFile factory(factoryPath, true, true);
        const auto logLevel = factory.GetEntry("log level");
        const bool logLevelChanged = logLevel && live.GetEntry("log level") != logLevel;
        if (logLevelChanged)
            live.SetEntry("log level", *logLevel);
        if (IsVersionBelow("2.3.9"))
            ConvertOldSipSettings(*this, live);
        else
            UpdateSipSettings(*this, live, logLevelChanged);
    } catch (const FileError& error) {
        TraceInvalidFile(*opening, error);
    }
}
