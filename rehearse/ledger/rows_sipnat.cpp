// What the conversions of sip.cfg, nat.cfg, stun.cfg and of port ranges do on purpose.

#include <algorithm>
#include <cstdlib>

#include "app/version.h"
#include "rehearse/ledger/row.h"

namespace rehearse {
namespace {

using Targets = std::function<std::vector<Target>(const Spot&)>;

std::string TopValue(const Spot& spot, const std::string& key) {
    return spot.step.before.Value(spot.file, "", key).value_or("");
}

Targets ToSection(const char* section, const char* key) {
    return [=](const Spot& spot) {
        return std::vector<Target>{{spot.file, section, key, spot.Was()}};
    };
}

std::vector<Target> ToNatAgent(const Spot& spot) {
    return {{spot.file, "features", "nat agent", spot.Was() == "0" ? "0" : "1"}};
}

/// TCP has the port's number, or none when it was off.
std::vector<Target> ToTcpPort(const Spot& spot) {
    return {{spot.file, "network", "tcp port", spot.Was() == "1" ? TopValue(spot, "Port") : ""}};
}

bool IsNewLayout(const Spot& spot) {
    return !IsOlderVersion(spot.step.run.liveVersion, "2.3.9");
}

std::string PortBehind(const Spot& spot) {
    return std::to_string(std::strtol(TopValue(spot, "Port").c_str(), nullptr, 10) + 1);
}

std::string PortOf(const Spot& spot) {
    const std::string section = spot.Section();
    if (section == "dynamic")
        return spot.step.after
            .Value("rtp.cfg", "common",
                   spot.key == "self_port_range_start" ? "min_rtp_port" : "max_rtp_port")
            .value_or("");
    return spot.step.after.Value("sip.cfg", "network", section.substr(4) + " port").value_or("");
}

std::vector<Target> ToMappedHost(const Spot& spot) {
    std::vector<Target> targets;
    for (const char* section : {"sip_udp", "sip_tcp", "dynamic"})
        targets.push_back({spot.file, section, "mapped_host", spot.Was()});
    return targets;
}

/// The numbers that one end of a merged range can have: an end of either range or, where the public
/// range is the shorter one, where that ends.
bool IsEndOfRange(const Spot& spot) {
    const auto number = [&](const std::string& section, const std::string& key) {
        return std::strtoul(spot.step.before.Value("nat.cfg", section, key).value_or("").c_str(),
                            nullptr, 10);
    };
    std::vector<unsigned long> ends = {number("dynamic", spot.key), number("um_dynamic", spot.key)};
    if (spot.key == "self_port_range_end") {
        const auto now = [&](const char* key) {
            return std::strtoul(
                spot.step.after.Value("nat.cfg", "dynamic", key).value_or("").c_str(), nullptr, 10);
        };
        const unsigned long length =
            now("mapped_port_range_end") - now("mapped_port_range_start") + 1;
        ends.push_back(now("self_port_range_start") + length - 1);
    }
    if (spot.Is().empty())
        return spot.key.starts_with("mapped") &&
               spot.step.after.Value("nat.cfg", "dynamic", "mapped_port_range_start") == "";
    return std::find(ends.begin(), ends.end(), std::strtoul(spot.Is().c_str(), nullptr, 10)) !=
           ends.end();
}

constexpr const char* sipSections = "the settings have sections from 2.3.9 on";
constexpr const char* natSections = "the settings have a section a transport from 2.4.16 on";
constexpr const char* noRetransmission =
    "registration and retransmission are not set in this file any more";
constexpr const char* ranges = "the media unit's port range is folded into the unit's";

}  // namespace

std::vector<Row> SipNatMergeRows() {
    return {
        On("sip.cfg", "", "log level")
            .Becomes(Factory(), "follows the firmware on every upgrade")
            .If([](const Spot& spot) { return FactoryValue(spot).has_value(); })
            .Due(),
        On("sip.cfg", "", "Registration Timeout")
            .Moves(ToSection("sip-common", "registration timeout"), sipSections)
            .Below("2.3.9"),
        On("sip.cfg", "", "Registration Failure Timeout")
            .Moves(ToSection("sip-common", "registration failure timeout"), sipSections)
            .Below("2.3.9"),
        On("sip.cfg", "", "NAT Enabled").Moves(ToNatAgent, sipSections).Below("2.3.9"),
        On("sip.cfg", "", "Port")
            .Moves(ToSection("network", "udp port"), sipSections)
            .Below("2.3.9"),
        On("sip.cfg", "", "TCP").Moves(ToTcpPort, "TCP has a port of its own").Below("2.3.9"),
        On("sip.cfg", "",
           "@(Register|Initial Retransmit Interval|Maximal Retransmit Interval|Invite Message "
           "Retransmit Count|Response Retransmit Count|Non-Invite Request Retransmit "
           "Count|Retransmission Scheme)")
            .Goes(noRetransmission)
            .Below("2.3.9")
            .Due(),
        On("sip.cfg", "features", "nat agent")
            .Becomes(Is("1"), "without a setting NAT is on")
            .If([](const Spot& spot) { return spot.Before() == nullptr; })
            .Below("2.3.9"),
        On("sip.cfg", "sip-common", "@(header short form|multi headers)")
            .Becomes(Is("0"), "long headers are the rule from 3.0.9 on")
            .Below("3.0.9")
            .Due(),
        On("sip.cfg", "network", "tls port")
            .Becomes(Equals(PortBehind), "TLS must not share the port of UDP")
            .Below("2.3.9"),
        On("sip.cfg", "network", "tls port")
            .Becomes(Is(""), "TLS is off until it is set up anew")
            .If(IsNewLayout)
            .Below("5.1.0")
            .Due(),
        On("sip.cfg", "sip-common", "timer_profile")
            .Moves(To({"timerprofile.cfg"}), "the timer profile has a file of its own")
            .If(IsNewLayout),
        On("nat.cfg", "", "*addr_*")
            .Moves(To({"nat.cfg"}, "exclusiontable"), natSections)
            .Below("2.4.16"),
        On("nat.cfg", "", "NAT IP").Moves(ToMappedHost, natSections).Below("2.4.16"),
        On("nat.cfg", "", "Mapped UDP port for SIP")
            .Moves(ToSection("sip_udp", "mapped_port_range_start"), natSections)
            .Below("2.4.16"),
        On("nat.cfg", "", "min_rtp_port")
            .Moves(ToSection("dynamic", "mapped_port_range_start"), natSections)
            .Below("2.4.16"),
        On("nat.cfg", "", "max_rtp_port")
            .Moves(ToSection("dynamic", "mapped_port_range_end"), natSections)
            .Below("2.4.16"),
        On("nat.cfg", "@(sip_udp|sip_tcp|dynamic)", "mapped_host")
            .Becomes(
                [](const Spot& spot) {
                    return !spot.Is().empty() && spot.Is() == TopValue(spot, "NAT IP");
                },
                natSections)
            .Below("2.4.16"),
        On("nat.cfg", "sip_udp", "mapped_port_range_end")
            .Becomes(
                [](const Spot& spot) {
                    return !spot.Is().empty() &&
                           spot.Is() == TopValue(spot, "Mapped UDP port for SIP");
                },
                natSections)
            .Below("2.4.16"),
        On("nat.cfg", "@(sip_udp|dynamic)", "use_stun")
            .Becomes(IsOneOf({"0", "1"}), "STUN is on where the NAT agent was set to it")
            .Below("2.4.16"),
        On("nat.cfg", "@(sip_udp|sip_tcp|sip_tls|dynamic)", "self_port_range_@(start|end)")
            .Becomes(Equals(PortOf), "the ports are those of sip.cfg and rtp.cfg")
            .Below("2.4.16"),
    };
}

const std::vector<StepRows>& SipNatRows() {
    static const std::vector<StepRows> table = {
        {"STUN file",
         {
             On("../stun.cfg", "?*", "*")
                 .Moves(To({"../stun.cfg"}), "stun.cfg has no sections from 3.1.2 on")
                 .Below("3.1.2"),
         }},
        {"RTP port ranges",
         {
             On("nat.cfg", "dynamic", "@(self|mapped)_port_range_@(start|end)")
                 .Becomes(IsEndOfRange, ranges)
                 .Below("3.1.25"),
             On("rtp.cfg", "common", "min_rtp_port")
                 .Becomes(Equals([](const Spot& spot) {
                              return spot.step.after
                                  .Value("nat.cfg", "dynamic", "self_port_range_start")
                                  .value_or("");
                          }),
                          ranges)
                 .Below("3.1.25"),
             On("rtp.cfg", "common", "max_rtp_port")
                 .Becomes(Equals([](const Spot& spot) {
                              return spot.step.after
                                  .Value("nat.cfg", "dynamic", "self_port_range_end")
                                  .value_or("");
                          }),
                          ranges)
                 .Below("3.1.25"),
         }},
    };
    return table;
}

}  // namespace rehearse
