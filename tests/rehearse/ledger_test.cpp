#include "rehearse/ledger/ledger.h"

#include <gtest/gtest.h>

#include "app/run.h"
#include "state.h"

using rehearse::Ledger;
using rehearse::RowsOf;
using rehearse::RunContext;

namespace {

const std::string root = "tree/";

RunContext Context(const std::string& version) {
    RunContext context;
    context.root = root;
    context.liveVersion = version;
    context.targetVersion = "5.1.0";
    context.isDue = true;
    context.linesDir = "04-lines/";
    context.extensions = {"21"};
    context.attendant = "00";
    context.attendants = {"00"};
    return context;
}

using Files = std::map<std::string, std::string>;

rehearse::SharedTree Shared(const Files& files, unsigned mode = 0644) {
    return std::make_shared<const rehearse::TreeState>(State(files, mode));
}

void Enter(Ledger& ledger, const std::string& step, const Files& before, const Files& after,
           const RunContext& context) {
    ledger.Enter(step, Compare(State(before), State(after)), Shared(after), context);
}

/// What a step that made `after` of `before` is blamed for: "21/servicesdb routing_on changed".
Names Blames(const std::string& step, const std::string& version, const Files& before,
             const Files& after) {
    Ledger ledger(Shared(before), root, "stun.cfg");
    Enter(ledger, step, before, after, Context(version));
    Names blames;
    for (const rehearse::Unaccounted& one : ledger.Open())
        blames.push_back(one.place.file.substr(root.size()) + " " + one.place.key + " " +
                         one.text.substr(0, one.text.find(" (")));
    return blames;
}

}  // namespace

TEST(Ledger, EveryStepSaysWhatItDoesOnPurpose) {
    for (const VersionedStep& step : VersionedSteps()) {
        const auto* rows = RowsOf(step.name);
        ASSERT_NE(rows, nullptr) << step.name << ": the ledger's table has no rows for it";
        EXPECT_FALSE(rows->empty()) << step.name;
        for (const rehearse::Row& row : *rows) {
            EXPECT_NE(*row.reason, '\0') << step.name << ": " << row.key;
            EXPECT_EQ(static_cast<bool>(row.holds), row.effect == rehearse::Effect::Becomes);
            EXPECT_EQ(static_cast<bool>(row.targets), row.effect == rehearse::Effect::Moves);
        }
    }
    EXPECT_EQ(RowsOf("no such step"), nullptr);
}

// A row that is about more than its step does would pass over a loss.
TEST(Ledger, NoStepMayChangeWhatNobodyKnows) {
    for (const VersionedStep& step : VersionedSteps())
        for (const std::string file : {"linedb", "rtp.cfg", "21/servicesdb", "21/personaldatadb"})
            for (const auto& [after, what] : {std::pair("", " dropped"), {"own=2|", " changed"}})
                EXPECT_EQ(Blames(step.name, "2.0.0", {{"tree/" + file, "[general|own=1|]"}},
                                 {{"tree/" + file, std::string("[general|") + after + "]"}}),
                          Names{file + " own" + what})
                    << step.name;
}

TEST(Ledger, WhatStandsInNoRowIsBlamed) {
    const std::string factory = "etc/default-conf/telephony/";
    const struct {
        const char* step;
        const char* version;
        Files before;
        Files after;
        Names blames;
    } cases[] = {
        // A row's value, another one, a closed gate, and nothing where something is due.
        {"line database",
         "3.0.6",
         {{"tree/linedb", "[general|routing_prefix=0|]"}},
         {{"tree/linedb", "[general|routing_prefix=R|]"}},
         {}},
        {"line database",
         "3.0.6",
         {{"tree/linedb", "[general|routing_prefix=0|]"}},
         {{"tree/linedb", "[general|routing_prefix=9|]"}},
         {"linedb routing_prefix changed"}},
        {"line database",
         "3.0.7",
         {{"tree/linedb", "[general|routing_prefix=0|]"}},
         {{"tree/linedb", "[general|routing_prefix=R|]"}},
         {"linedb routing_prefix changed"}},
        {"line database",
         "3.0.6",
         {{"tree/linedb", "[general|routing_prefix=0|]"}},
         {{"tree/linedb", "[general|routing_prefix=0|]"}},
         {"linedb routing_prefix left as it was"}},
        // A step without such a row; an unnamed section that went; an empty setting that did.
        {"group lists",
         "3.0.6",
         {{"tree/linedb", "[general|a=1|b=2|c=|]"}},
         {{"tree/linedb", "[general|a=|]"}},
         {"linedb a emptied", "linedb b dropped"}},
        {"file merge",
         "3.0.0",
         {{"tree/dialplan.cfg", "[|pattern=1|][|pattern=2|]"}},
         {{"tree/dialplan.cfg", "[|pattern=2|]"}},
         {"dialplan.cfg pattern dropped"}},
        {"group lists",
         "3.0.6",
         {{"tree/linedb", std::string("[general|a=\0|b=2|]", 18)}},
         {{"tree/linedb", std::string("[general|a=\0|]", 14)}},
         {"linedb b dropped"}},
        // New ones: the factory's, a step's, nobody's.
        {"file merge",
         "3.0.0",
         {{"tree/fax.cfg", "[T38|x=1|]"}, {factory + "fax.cfg", "[T38|y=2|]"}},
         {{"tree/fax.cfg", "[T38|x=1|y=2|]"}, {factory + "fax.cfg", "[T38|y=2|]"}},
         {}},
        {"file merge",
         "3.0.0",
         {{"tree/fax.cfg", "[T38|x=1|]"}, {factory + "fax.cfg", "[T38|y=2|]"}},
         {{"tree/fax.cfg", "[T38|x=1|y=3|]"}, {factory + "fax.cfg", "[T38|y=2|]"}},
         {"fax.cfg y came from nowhere"}},
        // A move, one with another value, and one that forgets a key.
        {"extension split",
         "2.2.0",
         {{"tree/extensiondb", "[21|password=1|fn_number=21|]"}},
         {{"tree/extensiondb", ""}, {"tree/21/personaldatadb", "password=1|fn_number=21|"}},
         {}},
        {"extension split",
         "2.2.0",
         {{"tree/extensiondb", "[21|password=1|fn_number=21|]"}},
         {{"tree/extensiondb", ""}, {"tree/21/personaldatadb", "password=2|"}},
         {"extensiondb password dropped", "extensiondb fn_number dropped",
          "21/personaldatadb password came from nowhere"}},
        // A number that became an address pattern, and the services file that it points to.
        {"supplementary services",
         "3.0.0",
         {{"tree/21/huntdb", "[|caller_type=PSTN|caller=0123|extensions_list=22|]"},
          {"tree/21/servicesdb", "hunt_service_on=1|"}},
         {{"tree/21/addresspatterndb",
           "[|section_id=0|type=PSTN|address=0123|permission=user|type=PSTN|]"},
          {"tree/21/supservices_0", "[huntring|service_on=1|extensions_list=22|]"},
          {"tree/21/servicesdb", "hunt_service_on=1|"}},
         {}},
        {"supplementary services",
         "3.0.0",
         {{"tree/21/huntdb", "[|caller_type=PSTN|caller=0123|extensions_list=22|]"},
          {"tree/21/servicesdb", "hunt_service_on=1|"}},
         {{"tree/21/addresspatterndb",
           "[|section_id=0|type=PSTN|address=0123|permission=user|type=PSTN|]"},
          {"tree/21/supservices_0", "[manyext|service_on=1|extensions_list=22|]"},
          {"tree/21/servicesdb", "hunt_service_on=1|"}},
         {"21/huntdb extensions_list dropped", "21/supservices_0 service_on came from nowhere",
          "21/supservices_0 extensions_list came from nowhere"}},
        // A conversion done twice, and a file left out of one.
        {"echo delay",
         "3.0.31",
         {{"tree/isdn/trunk0.cfg", "[trunk|echoDelay=160|]"}},
         {{"tree/isdn/trunk0.cfg", "[trunk|echoDelay=0|]"}},
         {"isdn/trunk0.cfg echoDelay changed"}},
        {"FXO prefix",
         "3.0.0",
         {{"tree/21/speedcalldb", "[|call_type=PSTN|user_name=012|]"}},
         {{"tree/21/speedcalldb", "[|call_type=PSTN|user_name=012|]"}},
         {"21/speedcalldb user_name left as it was"}},
    };
    for (const auto& one : cases)
        EXPECT_EQ(Blames(one.step, one.version, one.before, one.after), one.blames)
            << one.step << " below " << one.version;
}

TEST(Ledger, AWayGoesThroughAllSteps) {
    const Files first = {{"tree/extensiondb", "[21|call_forwarding_type=Busy|fn_number=7|]"}};
    const Files split = {{"tree/extensiondb", ""},
                         {"tree/21/servicesdb", "call_forwarding_type=Busy|fax=0|"},
                         {"tree/21/personaldatadb", "fn_number=7|"},
                         {"etc/default-conf/telephony/default/servicesdb", "fax=0|"}};
    Files merged = split;
    merged["tree/21/servicesdb"] = "call_forwarding_mode=Busy|call_forwarding_enabled=1|fax=0|";
    Files begun = first;
    begun["etc/default-conf/telephony/default/servicesdb"] = "fax=0|";
    Ledger ledger(Shared(begun), root, "stun.cfg");
    Enter(ledger, "extension split", begun, split, Context("2.2.0"));
    Enter(ledger, "file merge", split, merged, Context("2.2.0"));
    EXPECT_TRUE(ledger.Open().empty());
    EXPECT_EQ(ledger.Settings(), 2U);
    EXPECT_EQ(ledger.Carried(), 0U);
    Names ways;
    ledger.ForEachWay([&](const rehearse::Way& way) {
        const char* fate = rehearse::fateNames[static_cast<std::size_t>(way.fate)];
        ways.push_back(fate + (" " + way.from.key) + ">" + way.to.file + " " + way.to.key + "=" +
                       way.after);
        if (way.from.key == "call_forwarding_type") {
            EXPECT_EQ(way.steps, (Names{"extension split", "file merge"}));
        }
    });
    std::sort(ways.begin(), ways.end());
    EXPECT_EQ(ways,
              (Names{"computed >tree/21/servicesdb call_forwarding_enabled=1",
                     "factory >tree/21/servicesdb fax=0",
                     "moved call_forwarding_type>tree/21/servicesdb call_forwarding_mode=Busy",
                     "moved fn_number>tree/21/personaldatadb fn_number=7"}));
}

TEST(Ledger, ConversionsOfAStampedVersionAreDoneAgain) {
    const Files before = {{"tree/e1t1/trunk0.cfg", "[trunk_e1|echoDelay=80|]"}};
    const Files after = {{"tree/e1t1/trunk0.cfg", "[trunk_e1|echoDelay=0|]"}};
    for (const auto& [stamp, count] : {std::pair("3.0.32", 1U), {"3.0.31", 0U}, {"", 0U}}) {
        RunContext context = Context("3.0.0");
        context.stamp = stamp;
        Ledger ledger(Shared(before), root, "stun.cfg");
        Enter(ledger, "echo delay", before, after, context);
        EXPECT_EQ(ledger.Again().size(), count) << "stamp " << stamp;
    }
}

TEST(Ledger, PasswordsThatMoreUsersCanReadAreTold) {
    const Files before = {{"tree/extensiondb", "[21|password=1|]"}};
    const Files after = {{"tree/extensiondb", ""}, {"tree/21/personaldatadb", "password=1|"}};
    for (const auto& [mode, count] : {std::pair(0600U, 0U), {0640U, 1U}}) {
        Ledger ledger(Shared(before, 0600), root, "stun.cfg");
        ledger.Enter("extension split", Compare(State(before, 0600), State(after, mode)),
                     Shared(after, mode), Context("2.2.0"));
        EXPECT_EQ(ledger.Exposed(State(after, mode)).size(), count) << mode;
    }
    // The same mode for another group.
    const Files file = {{"tree/21/personaldatadb", "password=1|"}};
    for (const auto& [mode, count] : {std::pair(0600U, 0U), {0640U, 1U}}) {
        const Ledger ledger(Shared(file, mode), root, "stun.cfg");
        rehearse::FileState other = *State(file, mode).begin()->second;
        other.info.st_gid = 1;
        const rehearse::TreeState given = {
            {file.begin()->first, std::make_shared<const rehearse::FileState>(other)}};
        EXPECT_EQ(ledger.Exposed(given).size(), count) << mode;
    }
}
