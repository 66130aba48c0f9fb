// sip.cfg, nat.cfg, stun.cfg and the port ranges, each step on its own.

#include <cstdlib>
#include <regex>

#include "steps/sipnat/port_ranges.h"
#include "tests/support/steps.h"

namespace {

/// The short form with "self=1-2|" or "mapped=1-2|" for such a port range.
std::string Ports(const std::string& shortForm) {
    return std::regex_replace(shortForm, std::regex("(self|mapped)=(\\w*)-(\\w*)\\|"),
                              "$1_port_range_start=$2|$1_port_range_end=$3|");
}

class SipNat : public Steps {};

}  // namespace

TEST_F(SipNat, SipSettingsAreConvertedOrUpdatedByVersion) {
    const std::string dropped =
        "TCP=1|Register=1|Initial Retransmit Interval=5|Maximal Retransmit Interval=4|"
        "Invite Message Retransmit Count=6|Response Retransmit Count=6|"
        "Non-Invite Request Retransmit Count=1|Retransmission Scheme=x|";
    const std::string noSections = "Port=50|NAT Enabled=0|Registration Timeout=60|";
    const std::string now = "][features|nat agent=2|][network|udp port=7|tcp port=8|tls port=";
    const std::string same = "log level=2|[sip-common|";
    // The version, sip.cfg before and after, what is learnt (ports, timer profile, whether the NAT
    // agent is "2") and reported.
    const std::string cases[][5] = {
        {"2.3.8",
         "# 5060|log level=3|Port=5061|NAT Enabled=2|Registration Timeout=1800|" + dropped +
             "Registration Failure Timeout=45|Registrar=x|[sip-common|header short form=1|"
             "registration timeout=3600|][features|a=1|][network|udp port=1|tls port=5061|]",
         "# 5060|log level=2|Registrar=x|[sip-common|header short form=0|"
         "registration timeout=1800|registration failure timeout=45|multi headers=0|]"
         "[features|a=1|nat agent=1|][network|udp port=5061|tls port=5062|tcp port=5061|]",
         "5061,5061,5062,,1",
         "\tin section \"sip-common\"...|\t\tregistration timeout is set -> 1800|"
         "\t\tregistration failure timeout is set -> 45|"
         "\t\tSet \"header short form\", \"multi headers\" entries value to 0.|"
         "\tin section \"features\"...|\t\tnat agent is set -> 1|"
         "\tin section \"network\"...|\t\tudp port is set -> 5061|\t\ttcp port is set -> 5061|"
         "\t\ttls port has same value as tcp and udp, changed to -> 5062|| Done...|"},
        {"2.2.0", "Port=50|TCP=0|NAT Enabled=0|[features|][network|tls port=51|]",
         "log level=2|[features|nat agent=0|][network|tls port=51|udp port=50|tcp port=|]",
         "50,,51,,0", "\t\ttcp port is set empty, TCP was switched off in restored sip.cfg|"},
        {"2.3.8", noSections + dropped, noSections + "log level=2|", ",,,,1",
         "\tNo section \"sip-common\" found, nothing done there|"
         "\tNo section \"features\" found, nothing done there|"
         "\tNo section \"network\" found, nothing done there|| Done...|"},
        {"2.3.9", "log level=2|Port=50|[sip-common|timer_profile=a|multi headers=1|" + now + "9|]",
         "log level=2|Port=50|[sip-common|multi headers=0|header short form=0|" + now + "|]",
         "7,8,,a,1",
         "\t\tSet \"header short form\", \"multi headers\" entries value to 0.|"
         "\t\tcopied \"log level\" entry value from default conf|"},
        {"5.1.0", same + "timer_profile=a|" + now + "9|]", same + now + "9|]", "7,8,9,a,1",
         "=|\t\tcopied"},
        {"5.1.0", "log level=7|Port=1|TCP=1|[features|nat agent=1|]",
         "log level=2|Port=1|TCP=1|[features|nat agent=1|]", ",,,,0",
         "\tNo section \"network\" found, nothing done there|\t\tcopied \"log level\" entry"},
        {"5.1.0", same + now + "9|]", same + now + "9|]", "7,8,9,,1",
         "=|\tnothing changed, version should be OK!|| Done...|"},
    };
    PutFactory("sip.cfg", "log level=2|");
    for (const auto& [version, before, after, learnt, reported] : cases) {
        Put("sip.cfg", before);
        ConfigUpgrader& u = Open(version);
        u.sipNatAgentIsTwo = learnt.back() == (Holds(before, "[features") ? '0' : '1');
        u.sipTlsPort = Holds(before, "[network") ? "x" : "";
        u.ConvertSipSettings();
        EXPECT_EQ(Get("sip.cfg"), after) << version;
        EXPECT_EQ(u.sipUdpPort + "," + u.sipTcpPort + "," + u.sipTlsPort + "," + u.sipTimerProfile +
                      "," + (u.sipNatAgentIsTwo ? "1" : "0"),
                  learnt)
            << before;
        EXPECT_EQ(u.report.find("\n=== Changing sip.cfg... ===\n"), 0U);
        EXPECT_TRUE(Holds(u.report, Text(reported))) << u.report;
    }
    PutFactory("sip.cfg", "");
    Remove("sip.cfg");
    Run("5.1.0", &ConfigUpgrader::ConvertSipSettings);
    EXPECT_FALSE(Has("sip.cfg")) << "nothing to save, so none is made";
}

TEST_F(SipNat, MalformedFilesStayByteForByte) {
    const std::string broken = "Port=5060\r\nsection network\n{\ntls port=5060";
    const std::string sound = "Port=5060\nTCP=1\nNAT IP=192.0.2.1\nsection network\n{\n}\n";
    const auto check = [&](const std::string& name, Step step, bool isLive) {
        site.Write(site.Live(name), isLive ? broken : sound);
        site.Write(site.Factory(name), isLive ? sound : broken);
        EXPECT_EQ(Run("2.2.0", step),
                  "MINOR ERROR: Invalid file: " + (isLive ? site.Live(name) : site.Factory(name)) +
                      "\n\n=== Changing " + name + "... ===\n");
        EXPECT_EQ(site.Read(site.Live(name)), isLive ? broken : sound);
    };
    check("sip.cfg", &ConfigUpgrader::ConvertSipSettings, true);
    check("sip.cfg", &ConfigUpgrader::ConvertSipSettings, false);
    check("nat.cfg", &ConfigUpgrader::ConvertNatSettings, true);
}

TEST_F(SipNat, NatSettingsMoveIntoTheirSections) {
    const auto convert = [&](const std::string& before, bool stun) {
        Put("nat.cfg", before);
        Open("2.4.15").sipNatAgentIsTwo = stun;
        upgrader->sipUdpPort = "61";
        upgrader->sipTcpPort = "62";
        upgrader->sipTlsPort = "63";
        upgrader->rtpMinPort = "100";
        upgrader->rtpMaxPort = "199";
        upgrader->ConvertNatSettings();
        return upgrader->report;
    };
    const std::string kept = "addr_0=192.0.2.0/24|NAT Refresh=30|my_addr_1=h=1|";
    const std::string host = "NAT IP=203.0.113.5|Mapped UDP port for SIP=15061|";
    const std::string old = kept + host + "min_rtp_port=200|max_rtp_port=249|";
    const std::string sections = "[sip_tcp|][sip_tls|][dynamic|use_stun=x|]";
    const std::string report = convert(old + "[exclusiontable|][sip_udp|]" + sections, true);
    for (
        const char* part :
        {"|=== Changing nat.cfg... ===|\tin section \"exclusiontable\"...|"
         "\t\tfile entry: addr_0=192.0.2.0/24 moved to section exclusiontable.|",
         "\tin section \"sip_udp\"...|\t\tmapped_host (prev. NAT IP) is set -> 203.0.113.5|"
         "\t\tstun is enabled|\t\tSelf port range start and end is set: 61|"
         "\t\tMapped port range start and end (prev \"Mapped UDP port for SIP\") is set: 15061|",
         "\t\tSelf port range start is set: 100|\t\tSelf port range end is set: 199|"
         "\t\tMapped port range start is set: 200|\t\tMapped port range end is set: 249|| Done...|"})
        EXPECT_TRUE(Holds(report, Text(part))) << report;
    EXPECT_EQ(Get("nat.cfg"),
              Ports("NAT Refresh=30|[exclusiontable|addr_0=192.0.2.0/24|my_addr_1=h=1|]"
                    "[sip_udp|mapped_host=203.0.113.5|use_stun=1|self=61-61|mapped=15061-15061|]"
                    "[sip_tcp|mapped_host=203.0.113.5|self=62-62|][sip_tls|self=63-63|]"
                    "[dynamic|use_stun=1|mapped_host=203.0.113.5|self=100-199|mapped=200-249|]"));
    // Without sip_udp the host is not taken at all, so the others get none.
    convert(old + sections, false);
    EXPECT_EQ(Get("nat.cfg"),
              Ports(kept + host +
                    "[sip_tcp|mapped_host=|self=62-62|][sip_tls|self=63-63|]"
                    "[dynamic|use_stun=0|mapped_host=|self=100-199|mapped=200-249|]"));
    std::string missing = "|=== Changing nat.cfg... ===|";
    for (const char* name : {"exclusiontable", "sip_udp", "sip_tcp", "sip_tls", "dynamic"})
        missing += std::string("\tNo section \"") + name + "\" found, nothing done there|";
    EXPECT_EQ(convert(old, false), Text(missing + "| Done...|"));
    EXPECT_EQ(Get("nat.cfg"), old);
}

TEST_F(SipNat, StunFileIsFlattenedWhereTheEnvironmentSays) {
    // A key that cannot stand at the top level keeps its section.
    const std::string odd = "[odd|section x=1|]";
    const std::string old = "Count=3|[server|Host=h|Count=5|][|kept=1|]" + odd + "[server|Port=8|]";
    const std::string flat = "Count=5|Host=h|Port=8|[|kept=1|]" + odd;
    const std::string prefix = site.Path("pre-");  // nothing is put between it and the name
    const std::string named = prefix + "stun.cfg";
    const std::string usual = site.appliance.liveConf + "stun.cfg";
    const auto check = [&](const std::string& namedAfter, const std::string& usualAfter) {
        site.Write(named, Text(old));
        site.Write(usual, Text(old));
        Run("3.1.1", &ConfigUpgrader::UpdateStunFile);
        EXPECT_EQ(ShortForm(site.Read(named)), namedAfter);
        EXPECT_EQ(ShortForm(site.Read(usual)), usualAfter);
    };
    setenv("ORIX_PATH", prefix.c_str(), 1);
    check(flat, old);
    EXPECT_EQ(
        log,
        Text("Starting update stun.cfg file|Open File: " + named + ".|Open File: " + named +
             ".|\tSection: server|\t\tCopy Entry: Host=h|\t\tCopy Entry: Count=5|"
             "\tDelete section: server.|\tSection: odd|\t\tCopy Entry: section x=1|"
             "MINOR ERROR: Invalid file: " +
             named + "|\tSection: server|\t\tCopy Entry: Port=8|\tDelete section: server.|Done.|"));
    unsetenv("ORIX_PATH");
    check(old, flat);
    site.Write(usual, Text(malformed));
    const std::string failed = "MINOR ERROR: Invalid file: " + usual + "\n";
    EXPECT_EQ(Run("3.1.1", &ConfigUpgrader::UpdateStunFile),
              "Starting update stun.cfg file\n" + failed + failed);
}

TEST_F(SipNat, PortRangesJoinKeepOrCut) {
    constexpr std::uint32_t t = 4294967295U;
    const struct {
        PortRange own, unit;
        std::uint32_t most;
        PortRange nat, rtp;
    } cases[] = {
        {{100, 199}, {200, 299}, 0, {100, 299}, {100, 299}},  // right behind
        {{100, 199}, {200, 299}, 199, {100, 299}, {100, 298}},
        {{200, 299}, {100, 199}, 50, {100, 299}, {100, 149}},  // right before
        {{100, 199}, {201, 299}, 50, {100, 199}, {100, 199}},  // a port between
        {{100, 199}, {120, 150}, 10, {100, 199}, {100, 109}},  // inside
        {{199, 250}, {100, 199}, 0, {100, 250}, {100, 250}},
        {{100, 199}, {500, 699}, 10, {500, 699}, {500, 699}},  // apart: never cut
        {{500, 699}, {100, 199}, 10, {500, 699}, {500, 699}},
        {{500, 599}, {100, 199}, 10, {500, 599}, {500, 599}},  // apart and equal
        {{500, 0}, {100, 101}, 10, {100, 101}, {100, 101}},
        {{t - 4, t}, {t - 9, t - 5}, 7, {t - 9, t}, {t - 9, t - 3}},
        {{t - 9, t}, {0, 5}, 3, {t - 9, t}, {t - 9, t}},  // the top has nothing behind it
    };
    const auto text = [](const PortRange& range) {
        return std::to_string(range.start) + "-" + std::to_string(range.end);
    };
    for (const auto& test : cases) {
        const std::string what = text(test.own) + " and " + text(test.unit);
        EXPECT_EQ(text(MergeNatRange(test.own, test.unit)), text(test.nat)) << what;
        EXPECT_EQ(text(MergeRtpRange(test.own, test.unit, test.most)), text(test.rtp)) << what;
    }
}

TEST_F(SipNat, PortRangesReachBothFilesAndTheLog) {
    const std::string unit = "[um_dynamic|use_stun=1|self=200-299|mapped=550-699|]";
    const std::string on = "[features|nat agent=1|]";
    const std::string kept = "mapped=500-549|]";
    // sip.cfg (empty: no such file), nat.cfg before and after, the end of the ports in rtp.cfg,
    // which were 1 to 2, and what is logged.
    const std::string cases[][5] = {
        {on, "[dynamic|self=100-199|" + kept + unit,
         "[dynamic|self=100-299|mapped=500-699|]" + unit, "299",
         "|isNatOn: 1, dynamic_IsNatTraversalOn: 1|Current port ranges|"
         "RtpStart: 100, \tRtpEnd: 199, \tRtpLen: 100|NatStart: 500, \tNatEnd: 549, \tNatLen: 50|"
         "umRtpStart: 200, \tumRtpEnd: 299, \tumRtpLen: 100|"
         "umNatStart: 550, \tumNatEnd: 699, \tumNatLen: 150|Updated port ranges|"
         "RtpStart: 100, \tRtpEnd: 299, \tRtpLen: 200|NatStart: 500, \tNatEnd: 699, \tNatLen: 200|"
         "Open File: "},
        {"[features|nat agent=2|]", "[dynamic|use_stun=0|self=100-199|mapped=-x|]" + unit,
         "[dynamic|use_stun=0|self=100-249|mapped=550-699|]" + unit, "249",
         ".|update rtp.cfg: RtpStart: 100, \tRtpEnd: 249, \tRtpLen: 150|Done.|"},
        {on, "[dynamic|use_stun=1|self=100-199|" + kept + unit,
         "[dynamic|use_stun=1|self=100-299|" + kept + unit, "299",
         "isNatOn: 1, dynamic_IsNatTraversalOn: 0|"},
        {"[features|nat agent=0|]", "[dynamic|self=100-199|" + kept + unit,
         "[dynamic|self=100-299|" + kept + unit, "299", "isNatOn: 0, dynamic_IsNatTraversalOn: 1|"},
        {"", "[dynamic|self=100-199|mapped=0-9|]" + unit, "[dynamic|self=100-299|mapped=-|]" + unit,
         "299", "|isNatOn: 0, "},
        {on, unit, unit, "2", ".|ERROR: \"dynamic\" section does not exists.|Done.|"},
        {on, "[dynamic|self=1-9|]", "[dynamic|self=1-9|]", "2",
         ".|ERROR: \"um_dynamic\" section does not exists.|Done.|"},
    };
    for (const auto& [sip, before, after, end, logged] : cases) {
        Remove("sip.cfg");
        if (!sip.empty())
            Put("sip.cfg", sip);
        Put("nat.cfg", Ports(before));
        Put("rtp.cfg", "[common|min_rtp_port=1|max_rtp_port=2|]");
        Run("3.1.24", &ConfigUpgrader::UpdateRtpPortRanges);
        EXPECT_TRUE(Holds(log, Text(logged))) << log;
        EXPECT_EQ(Get("nat.cfg"), Ports(after)) << log;
        const std::string start = end == "2" ? "1" : "100";
        EXPECT_EQ(Get("rtp.cfg"), "[common|min_rtp_port=" + start + "|max_rtp_port=" + end + "|]");
    }
    // Without rtp.cfg the other file is brought up to date all the same.
    Put("nat.cfg", Ports(cases[0][1]));
    Put("sip.cfg", on);
    Remove("rtp.cfg");
    EXPECT_TRUE(Run("3.1.24", &ConfigUpgrader::UpdateRtpPortRanges).ends_with("rtp.cfg\nDone.\n"));
    EXPECT_EQ(Get("nat.cfg"), Ports(cases[0][2]));
    EXPECT_FALSE(Has("rtp.cfg"));
}
