// stun.cfg and the port ranges, as far as they are no ordinary cases (tests/cases).

#include <cstdlib>

#include "steps/sipnat/port_ranges.h"
#include "tests/support/steps.h"

namespace {

class SipNat : public Steps {};

}  // namespace

TEST_F(SipNat, StunFileIsWhereTheEnvironmentSays) {
    const std::string prefix = site.Path("pre-");  // nothing is put between it and the name
    const std::string named = prefix + "stun.cfg";
    const std::string usual = site.appliance.liveConf + "stun.cfg";
    for (const bool isNamed : {true, false}) {
        for (const std::string& path : {named, usual})
            site.Write(path, Text("[server|Port=8|]"));
        isNamed ? setenv("ORIX_PATH", prefix.c_str(), 1) : unsetenv("ORIX_PATH");
        Run("3.1.1", &ConfigUpgrader::UpdateStunFile);
        EXPECT_EQ(site.Read(isNamed ? named : usual), "Port=8\n");
        EXPECT_EQ(site.Read(isNamed ? usual : named), Text("[server|Port=8|]"));
    }
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
