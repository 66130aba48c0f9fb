// Moves the settings of an old sip.cfg into its sections, and records ports, timer profile and NAT
// agent for the steps that follow.

#include <cstdint>
#include <cstdlib>

#include "app/config_upgrader.h"
#include "util/numbers.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Top-level entries that have no place in the new layout.
constexpr const char* droppedEntries[] = {"TCP",
                                          "Register",
                                          "Initial Retransmit Interval",
                                          "Maximal Retransmit Interval",
                                          "Invite Message Retransmit Count",
                                          "Response Retransmit Count",
                                          "Non-Invite Request Retransmit Count",
                                          "Retransmission Scheme"};

/// The port behind another, in 32 bits.
std::string NextPort(const std::string& port) {
    const auto number = static_cast<std::uint32_t>(std::strtol(port.c_str(), nullptr, 10));
    return NumberToString(static_cast<std::int32_t>(number + 1));
}

}  // namespace

std::string ConfigUpgrader::TakeTopLevelEntry(MultiSectionFile& file, const std::string& key) {
    const std::string value = file.GetEntry(key).value_or("");
    file.DeleteEntry(key);
    return value;
}

bool ConfigUpgrader::GotoSectionOrReport(MultiSectionFile& file, const std::string& section) {
    if (file.GotoSection(section))
        return true;
    report += "\tNo section \"" + section + "\" found, nothing done there\n";
    return false;
}

bool ConfigUpgrader::EnterSection(MultiSectionFile& file, const std::string& section) {
    if (!GotoSectionOrReport(file, section))
        return false;
    report += "\tin section \"" + section + "\"...\n";
    return true;
}

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
            ConvertOldSipSettings(live);
        else
            UpdateSipSettings(live, logLevelChanged);
    } catch (const FileError&) {
        TraceInvalidFile(*opening);
    }
}

/// Works on the current section, which is "sip-common".
void ConfigUpgrader::SwitchOffSipHeaderForms(MultiSectionFile& live) {
    report += "\t\tSet \"header short form\", \"multi headers\" entries value to 0.\n";
    live.SetSectionEntry("header short form", "0");
    live.SetSectionEntry("multi headers", "0");
}

void ConfigUpgrader::ConvertOldSipSettings(MultiSectionFile& live) {
    if (EnterSection(live, "sip-common")) {
        const std::string timeout = TakeTopLevelEntry(live, "Registration Timeout");
        live.SetSectionEntry("registration timeout", timeout);
        report += "\t\tregistration timeout is set -> " + timeout + "\n";
        const std::string failure = TakeTopLevelEntry(live, "Registration Failure Timeout");
        live.SetSectionEntry("registration failure timeout", failure);
        report += "\t\tregistration failure timeout is set -> " + failure + "\n";
        if (IsVersionBelow("3.0.9"))
            SwitchOffSipHeaderForms(live);
    }
    if (EnterSection(live, "features")) {
        const std::string nat = TakeTopLevelEntry(live, "NAT Enabled");
        const std::string agent = nat == "0" ? "0" : "1";
        live.SetSectionEntry("nat agent", agent);
        report += "\t\tnat agent is set -> " + agent + "\n";
        sipNatAgentIsTwo = nat == "2";
    }
    if (EnterSection(live, "network")) {
        sipUdpPort = TakeTopLevelEntry(live, "Port");
        live.SetSectionEntry("udp port", sipUdpPort);
        report += "\t\tudp port is set -> " + sipUdpPort + "\n";
        const bool tcpOn = live.GetEntry("TCP") == "1";
        sipTcpPort = tcpOn ? sipUdpPort : "";
        live.SetSectionEntry("tcp port", sipTcpPort);
        if (tcpOn)
            report += "\t\ttcp port is set -> " + sipTcpPort + "\n";
        else
            report += "\t\ttcp port is set empty, TCP was switched off in restored sip.cfg\n";
        const auto tls = live.GetSectionEntry("tls port");
        sipTlsPort = tls.value_or("");
        if (tls && !tls->empty() && *tls == sipUdpPort) {
            sipTlsPort = NextPort(sipUdpPort);
            live.SetSectionEntry("tls port", sipTlsPort);
            report +=
                "\t\ttls port has same value as tcp and udp, changed to -> " + sipTlsPort + "\n";
        }
    }
    for (const char* key : droppedEntries)
        live.DeleteEntry(key);
    Save(live);
    ReportDone();
}

void ConfigUpgrader::UpdateSipSettings(MultiSectionFile& live, bool changed) {
    if (GotoSectionOrReport(live, "sip-common")) {
        if (const auto profile = live.GetSectionEntry("timer_profile")) {
            sipTimerProfile = *profile;  // it lives in timerprofile.cfg now
            live.DeleteSectionEntry("timer_profile");
            changed = true;
        }
        if (IsVersionBelow("3.0.9")) {
            SwitchOffSipHeaderForms(live);
            changed = true;
        }
    }
    if (GotoSectionOrReport(live, "features"))
        sipNatAgentIsTwo = live.GetSectionEntry("nat agent") == "2";
    if (GotoSectionOrReport(live, "network")) {
        sipUdpPort = live.GetSectionEntry("udp port").value_or("");
        sipTcpPort = live.GetSectionEntry("tcp port").value_or("");
        if (IsVersionBelow("5.1.0")) {
            live.SetSectionEntry("tls port", "");
            sipTlsPort.clear();
            changed = true;
        } else {
            sipTlsPort = live.GetSectionEntry("tls port").value_or("");
        }
    }
    if (!changed) {
        report += "\tnothing changed, version should be OK!\n";
        ReportDone();
        return;
    }
    Save(live);
    // The line follows every save, whatever the change was.
    report += "\t\tcopied \"log level\" entry value from default conf\n";
}
