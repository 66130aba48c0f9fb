#include <cstdlib>
#include <gtest/gtest.h>
#include <regex>

#include "steps/sipnat/port_ranges.h"
#include "tests/support/site.h"

namespace {

/// A file's text from a short form: "|" ends a line, "[name|" and "]" stand around a section, and
/// "self=1-2|" or "mapped=1-2|" is such a port range.
std::string Text(std::string shortForm) {
    const std::pair<const char*, const char*> forms[] = {
        {"(self|mapped)=(\\w*)-(\\w*)\\|", "$1_port_range_start=$2|$1_port_range_end=$3|"},
        {"\\[([^|]*)\\|", "section $1\n{\n"},
        {"\\]", "}\n"},
        {"\\|", "\n"}};
    for (const auto& [form, text] : forms)
        shortForm = std::regex_replace(shortForm, std::regex(form), text);
    return shortForm;
}

using Step = void (ConfigUpgrader::*)();

std::string LogOf(const Site& site, const std::string& version, Step step) {
    auto upgrader = site.Upgrader(version);
    (*upgrader.*step)();
    return site.TakeLog(*upgrader);
}

}  // namespace

TEST(SipSettings, AreConvertedOrUpdatedByVersion) {
    const std::string oldPorts = "[features|][network|";
    const std::string dropped =
        "TCP=1|Register=1|Initial Retransmit Interval=5|Maximal Retransmit Interval=4|"
        "Invite Message Retransmit Count=6|Response Retransmit Count=6|"
        "Non-Invite Request Retransmit Count=1|Retransmission Scheme=x|";
    const std::string noSections = "Port=50|NAT Enabled=0|Registration Timeout=60|";
    const std::string now = "][features|nat agent=2|][network|udp port=7|tcp port=8|tls port=";
    const std::string same = "log level=2|[sip-common|";
    const std::string forms = "header short form=0|multi headers=0|";
    struct Case {
        const char* version;
        std::string before;
        std::string after;
        const char* learnt;  // ports, timer profile, whether the NAT agent is "2"
        const char* reported;
    };
    const Case cases[] = {
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
        {"2.2.0", "Port=50|TCP=0|NAT Enabled=0|" + oldPorts + "tls port=51|]",
         "log level=2|[features|nat agent=0|][network|tls port=51|udp port=50|tcp port=|]",
         "50,,51,,0", "\t\ttcp port is set empty, TCP was switched off in restored sip.cfg|"},
        {"2.2.0", "Port=50|log level=2|" + oldPorts + "tls port=50|]",
         "log level=2|[features|nat agent=1|][network|tls port=51|udp port=50|tcp port=|]",
         "50,,51,,0", "\t\tudp port is set -> 50|\t\ttcp port is set empty, "},
        {"2.3.8", noSections + dropped, noSections + "log level=2|", ",,,,1",
         "\tNo section \"sip-common\" found, nothing done there|"
         "\tNo section \"features\" found, nothing done there|"
         "\tNo section \"network\" found, nothing done there|| Done...|"},
        {"2.3.9", "log level=2|Port=50|[sip-common|timer_profile=a|multi headers=1|" + now + "9|]",
         "log level=2|Port=50|[sip-common|multi headers=0|header short form=0|" + now + "|]",
         "7,8,,a,1",
         "\t\tSet \"header short form\", \"multi headers\" entries value to 0.|"
         "\t\tcopied \"log level\" entry value from default conf|"},
        {"3.0.8", same + now + "9|]", same + forms + now + "|]", "7,8,,,1", "=|\t\tSet \"header"},
        {"3.0.9", same + now + "9|]", same + now + "|]", "7,8,,,1", "=|\t\tcopied"},
        {"5.0.9", same + now + "9|]", same + now + "|]", "7,8,,,1", "=|\t\tcopied"},
        {"5.1.0", same + "timer_profile=a|" + now + "9|]", same + now + "9|]", "7,8,9,a,1",
         "=|\t\tcopied"},
        {"5.1.0", "log level=7|Port=1|TCP=1|[features|nat agent=1|]",
         "log level=2|Port=1|TCP=1|[features|nat agent=1|]", ",,,,0",
         "\tNo section \"network\" found, nothing done there|\t\tcopied \"log level\" entry"},
        {"5.1.0", same + now + "9|]", same + now + "9|]", "7,8,9,,1",
         "=|\tnothing changed, version should be OK!|| Done...|"},
    };
    Site site;
    site.Write(site.Factory("sip.cfg"), "log level=2\n");
    for (const Case& test : cases) {
        site.Write(site.Live("sip.cfg"), Text(test.before));
        auto upgrader = site.Upgrader(test.version);
        const bool isTwo = std::string(test.learnt).back() == '1';
        const bool stays = test.before.find("[features") == std::string::npos;
        upgrader->sipNatAgentIsTwo = isTwo == stays;
        upgrader->sipTlsPort = test.before.find("[network") == std::string::npos ? "" : "x";
        upgrader->ConvertSipSettings();
        EXPECT_EQ(site.Read(site.Live("sip.cfg")), Text(test.after)) << test.version;
        const ConfigUpgrader& u = *upgrader;
        EXPECT_EQ(u.sipUdpPort + "," + u.sipTcpPort + "," + u.sipTlsPort + "," + u.sipTimerProfile +
                      "," + (u.sipNatAgentIsTwo ? "1" : "0"),
                  test.learnt)
            << test.before;
        EXPECT_EQ(u.report.find("\n=== Changing sip.cfg... ===\n"), 0U);
        EXPECT_NE(u.report.find(Text(test.reported)), std::string::npos) << u.report;
    }
    site.Write(site.Factory("sip.cfg"), "");
    site.Remove(site.Live("sip.cfg"));
    LogOf(site, "5.1.0", &ConfigUpgrader::ConvertSipSettings);
    EXPECT_FALSE(site.Exists(site.Live("sip.cfg"))) << "nothing to save, so none is made";
}

TEST(SipSettings, MalformedFilesStayByteForByte) {
    const char* broken = "Port=5060\r\nsection network\n{\ntls port=5060";
    const char* sound = "Port=5060\nTCP=1\nNAT IP=192.0.2.1\nsection network\n{\n}\n";
    Site site;
    const auto check = [&](const std::string& name, Step step, bool isLive) {
        site.Write(site.Live(name), isLive ? broken : sound);
        site.Write(site.Factory(name), isLive ? sound : broken);
        const std::string log = LogOf(site, "2.2.0", step);
        const std::string path = isLive ? site.Live(name) : site.Factory(name);
        EXPECT_EQ(log,
                  "MINOR ERROR: Invalid file: " + path + "\n\n=== Changing " + name + "... ===\n");
        EXPECT_EQ(site.Read(site.Live(name)), isLive ? broken : sound);
    };
    check("sip.cfg", &ConfigUpgrader::ConvertSipSettings, true);
    check("sip.cfg", &ConfigUpgrader::ConvertSipSettings, false);
    check("nat.cfg", &ConfigUpgrader::ConvertNatSettings, true);
}

TEST(NatSettings, MoveIntoTheirSections) {
    Site site;
    const auto convert = [&](const std::string& before, bool stun) {
        site.Write(site.Live("nat.cfg"), Text(before));
        auto upgrader = site.Upgrader("2.4.15");
        upgrader->sipNatAgentIsTwo = stun;
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
    const std::string moved = "\t\tmapped_host (prev. NAT IP) is set -> 203.0.113.5|";
    EXPECT_EQ(
        convert(old + "[exclusiontable|][sip_udp|]" + sections, true),
        Text("|=== Changing nat.cfg... ===|\tin section \"exclusiontable\"...|"
             "\t\tfile entry: addr_0=192.0.2.0/24 moved to section exclusiontable.|"
             "\t\tfile entry: my_addr_1=h=1 moved to section exclusiontable.|"
             "\tin section \"sip_udp\"...|" +
             moved +
             "\t\tstun is enabled|\t\tSelf port range start and end is set: 61|"
             "\t\tMapped port range start and end (prev \"Mapped UDP port for SIP\") is set: 15061|"
             "\tin section \"sip_tcp\"...|" +
             moved +
             "\t\tSelf port range start and end is set: 62|\tin section \"sip_tls\"...|"
             "\t\tSelf port range start and end is set: 63|\tin section \"dynamic\"...|" +
             moved +
             "\t\tstun is enabled|\t\tSelf port range start is set: 100|"
             "\t\tSelf port range end is set: 199|\t\tMapped port range start is set: 200|"
             "\t\tMapped port range end is set: 249|| Done...|"));
    EXPECT_EQ(site.Read(site.Live("nat.cfg")),
              Text("NAT Refresh=30|[exclusiontable|addr_0=192.0.2.0/24|my_addr_1=h=1|]"
                   "[sip_udp|mapped_host=203.0.113.5|use_stun=1|self=61-61|mapped=15061-15061|]"
                   "[sip_tcp|mapped_host=203.0.113.5|self=62-62|][sip_tls|self=63-63|]"
                   "[dynamic|use_stun=1|mapped_host=203.0.113.5|self=100-199|mapped=200-249|]"));
    // Without sip_udp the host is not taken at all, so the others get none.
    convert(old + sections, false);
    EXPECT_EQ(site.Read(site.Live("nat.cfg")),
              Text(kept + host +
                   "[sip_tcp|mapped_host=|self=62-62|][sip_tls|self=63-63|]"
                   "[dynamic|use_stun=0|mapped_host=|self=100-199|mapped=200-249|]"));
    std::string missing = "|=== Changing nat.cfg... ===|";
    for (const char* name : {"exclusiontable", "sip_udp", "sip_tcp", "sip_tls", "dynamic"})
        missing += std::string("\tNo section \"") + name + "\" found, nothing done there|";
    EXPECT_EQ(convert(old, false), Text(missing + "| Done...|"));
    EXPECT_EQ(site.Read(site.Live("nat.cfg")), Text(old));
}

TEST(StunFile, IsFlattenedWhereTheEnvironmentSays) {
    Site site;
    const std::string old = Text("Count=3|[server|Host=h|Count=5|][|kept=1|][server|Port=8|]");
    const std::string flat = Text("Count=5|Host=h|Port=8|[|kept=1|]");
    const std::string prefix = site.Path("pre-");  // nothing is put between it and the name
    const std::string named = prefix + "stun.cfg";
    const std::string usual = site.appliance.liveConf + "stun.cfg";
    const std::string telephony = site.Read(site.Live("stun.cfg"));
    const auto check = [&](const char* version, const std::string& namedAfter,
                           const std::string& usualAfter) {
        site.Write(named, old);
        site.Write(usual, old);
        const std::string log = LogOf(site, version, &ConfigUpgrader::UpdateStunFile);
        EXPECT_EQ(site.Read(named), namedAfter) << version;
        EXPECT_EQ(site.Read(usual), usualAfter) << version;
        return log;
    };
    setenv("ORIX_PATH", prefix.c_str(), 1);
    EXPECT_EQ(check("3.1.1", flat, old),
              Text("Starting update stun.cfg file|Open File: " + named + ".|Open File: " + named +
                   ".|\tSection: server|\t\tCopy Entry: Host=h|\t\tCopy Entry: Count=5|"
                   "\tDelete section: server.|\tSection: server|\t\tCopy Entry: Port=8|"
                   "\tDelete section: server.|Done.|"));
    EXPECT_EQ(check("3.1.2", old, old), "");
    unsetenv("ORIX_PATH");
    check("3.1.1", old, flat);
    EXPECT_EQ(site.Read(site.Live("stun.cfg")), telephony);
    site.Write(usual, "section a\n{\n");
    const std::string failed = "MINOR ERROR: Invalid file: " + usual + "\n";
    EXPECT_EQ(LogOf(site, "3.1.1", &ConfigUpgrader::UpdateStunFile),
              "Starting update stun.cfg file\n" + failed + failed);
}

TEST(RtpPortRanges, JoinKeepOrCut) {
    constexpr std::uint32_t t = 4294967295U;
    struct Case {
        PortRange own;
        PortRange unit;
        std::uint32_t most;
        PortRange nat;
        PortRange rtp;
    };
    const Case cases[] = {
        {{100, 199}, {200, 299}, 0, {100, 299}, {100, 299}},  // right behind
        {{100, 199}, {200, 299}, 199, {100, 299}, {100, 298}},
        {{100, 199}, {200, 299}, 200, {100, 299}, {100, 299}},
        {{200, 299}, {100, 199}, 50, {100, 299}, {100, 149}},  // right before
        {{100, 199}, {201, 299}, 50, {100, 199}, {100, 199}},  // a port between
        {{201, 299}, {100, 199}, 50, {100, 199}, {100, 199}},
        {{100, 199}, {120, 150}, 10, {100, 199}, {100, 109}},  // inside
        {{199, 250}, {100, 199}, 0, {100, 250}, {100, 250}},
        {{100, 199}, {500, 699}, 10, {500, 699}, {500, 699}},  // apart: never cut
        {{500, 699}, {100, 199}, 10, {500, 699}, {500, 699}},
        {{500, 599}, {100, 199}, 10, {500, 599}, {500, 599}},  // apart and equal
        {{100, 199}, {0, 0}, 10, {100, 199}, {100, 199}},
        {{500, 0}, {100, 101}, 10, {100, 101}, {100, 101}},
        {{0, 99}, {100, 199}, 0, {0, 199}, {0, 199}},
        {{50, 99}, {0, 49}, 30, {0, 99}, {0, 29}},
        {{t - 9, t - 5}, {t - 4, t}, 0, {t - 9, t}, {t - 9, t}},
        {{t - 4, t}, {t - 9, t - 5}, 7, {t - 9, t}, {t - 9, t - 3}},
        {{t - 9, t}, {0, 5}, 3, {t - 9, t}, {t - 9, t}},  // the top has nothing behind it
        {{t - 99, t}, {t - 50, t - 40}, 9, {t - 99, t}, {t - 99, t - 91}},
    };
    const auto text = [](const PortRange& range) {
        return std::to_string(range.start) + "-" + std::to_string(range.end);
    };
    for (const Case& test : cases) {
        const std::string what = text(test.own) + " and " + text(test.unit);
        EXPECT_EQ(text(MergeNatRange(test.own, test.unit)), text(test.nat)) << what;
        EXPECT_EQ(text(MergeRtpRange(test.own, test.unit, test.most)), text(test.rtp)) << what;
    }
}

TEST(RtpPortRanges, ReachBothFilesAndTheLog) {
    const std::string unit = "[um_dynamic|use_stun=1|self=200-299|mapped=550-699|]";
    const std::string on = "[features|nat agent=1|]";
    const std::string kept = "mapped=500-549|]";
    struct Case {
        std::string sip;     // empty: no such file
        std::string before;  // nat.cfg
        std::string after;
        std::string end;  // of the ports in rtp.cfg; they were 1 to 2
        const char* logged;
    };
    const Case cases[] = {
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
        {"[features|nat agent=|]", "[dynamic|self=100-199|mapped=0-9|]" + unit,
         "[dynamic|self=100-299|mapped=-|]" + unit, "299", "|isNatOn: 0, "},
        {"", "[dynamic|self=100-199|" + kept + unit, "[dynamic|self=100-299|" + kept + unit, "299",
         "|isNatOn: 0, "},
        {on, unit, unit, "2", ".|ERROR: \"dynamic\" section does not exists.|Done.|"},
        {on, "[dynamic|self=1-9|]", "[dynamic|self=1-9|]", "2",
         ".|ERROR: \"um_dynamic\" section does not exists.|Done.|"},
    };
    Site site;
    const Step step = &ConfigUpgrader::UpdateRtpPortRanges;
    const std::string oldRtp = Text("[common|min_rtp_port=1|max_rtp_port=2|]");
    for (const Case& test : cases) {
        site.Remove(site.Live("sip.cfg"));
        if (!test.sip.empty())
            site.Write(site.Live("sip.cfg"), Text(test.sip));
        site.Write(site.Live("nat.cfg"), Text(test.before));
        site.Write(site.Live("rtp.cfg"), oldRtp);
        EXPECT_EQ(LogOf(site, "3.1.25", step), "");
        EXPECT_EQ(site.Read(site.Live("nat.cfg")), Text(test.before));
        const std::string log = LogOf(site, "3.1.24", step);
        EXPECT_EQ(log.find("Starting update RTP port ranges\n"), 0U);
        EXPECT_NE(log.find(Text(test.logged)), std::string::npos) << log;
        EXPECT_EQ(site.Read(site.Live("nat.cfg")), Text(test.after)) << log;
        const std::string start = test.end == "2" ? "1" : "100";
        EXPECT_EQ(site.Read(site.Live("rtp.cfg")),
                  Text("[common|min_rtp_port=" + start + "|max_rtp_port=" + test.end + "|]"));
    }
    // Without rtp.cfg the other file is brought up to date all the same.
    site.Write(site.Live("nat.cfg"), Text(cases[0].before));
    site.Write(site.Live("sip.cfg"), Text(on));
    site.Remove(site.Live("rtp.cfg"));
    EXPECT_NE(LogOf(site, "3.1.24", step).find("rtp.cfg\nDone.\n"), std::string::npos);
    EXPECT_EQ(site.Read(site.Live("nat.cfg")), Text(cases[0].after));
    EXPECT_FALSE(site.Exists(site.Live("rtp.cfg")));
}
