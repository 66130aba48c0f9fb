#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "rehearse/base/text_file.h"
#include "rehearse/ledger/secrets.h"
#include "rehearse/verdict/outcome.h"
#include "rehearse/verdict/problems.h"
#include "state.h"

using rehearse::KeptFact;
using rehearse::Problems;

TEST(Verdict, SaysWhatBecameOfTheSite) {
    const struct {
        bool isDue, hasEndedEarly, isStamped, hasConverted;
        const char* crash;
        std::size_t problems;
        const char* result;
        int exitStatus;
    } cases[] = {
        {false, false, false, false, "", 0, "up-to-date", 0},
        {false, false, false, true, "", 1, "up-to-date", 1},
        {true, false, true, true, "", 0, "upgraded", 0},
        {true, false, true, true, "", 2, "upgraded-with-problems", 1},
        {true, true, true, true, "", 1, "partly-upgraded", 2},
        {true, false, false, true, "", 1, "partly-upgraded", 2},
        {true, true, true, false, "", 1, "not-upgraded", 2},
        {true, false, true, true, "killed", 0, "crashed", 3},
    };
    for (const auto& one : cases) {
        std::vector<rehearse::Problem> problems;
        if (one.problems != 0)
            problems.push_back({"other", "t", "m", "a", {one.problems, rehearse::ProblemItem{}}});
        const rehearse::Verdict verdict = Decide({"2.2.0", "5.1.0", one.isDue, one.hasEndedEarly,
                                                  one.isStamped, one.hasConverted, one.crash},
                                                 problems, {});
        EXPECT_EQ(verdict.result, one.result);
        EXPECT_EQ(verdict.exitStatus, one.exitStatus) << one.result;
        EXPECT_EQ(rehearse::KindOf(verdict.result).id, one.result);
    }
}

// A file that the unit never had is no problem, but for the directory in which something could not
// be read: there it was not made because of that.
TEST(Verdict, FactsBecomeProblems) {
    using enum Fact::Kind;
    const rehearse::TreeState unit = State({{"t/21/huntdb", ""}, {"t/22/servicesdb", ""}});
    const struct {
        std::vector<KeptFact> facts;
        const char* rule;  // of the last one; empty for harmless
    } cases[] = {
        {{{Unreadable, "t/22/speedcalldb", "", 0, true, ""}}, ""},
        {{{Unreadable, "t/22/servicesdb", "end of file", 3, false, ""}}, "malformed"},
        {{{Unreadable, "t/21/huntdb", "end of file", 3, false, ""},
          {Unreadable, "t/21/addresspatterndb", "", 0, true, ""}},
         "absent"},
        {{{Unreadable, "etc/default-conf/telephony/sip.cfg", "", 0, true, ""}}, "absent"},
        {{{Unsaved, "t/12/codecsdb", "can't open the directory", 0, false, ""}}, ""},
        {{{Unsaved, "t/22/servicesdb", "No space left on device", 0, false, ""}}, "unsaved"},
        {{{Refused, "", "Can't read: /x", 0, false, ""}}, "refused"},
        {{{EndedEarly, "t/linedb", "x", 0, false, ""}}, "ended-early"},
        {{{Canceled, "t/localrouttabledb", "21", 0, false, ""}}, "canceled"},
        {{{Restored, "t/linedb", "", 0, false, ""}}, "database-lost"},
        {{{Absent, "t/22/servicesdb", "", 0, false, ""}}, "absent"},
        {{{CommandFailed, "rtsync", "no route", 0, false, ""}}, "command"},
        {{{Incomplete, "t/22/servicesdb", "3", 0, false, ""}}, "incomplete"},
    };
    for (const auto& one : cases) {
        Problems problems(unit, unit);
        problems.AddFacts(one.facts);
        const std::string rule = one.rule;
        EXPECT_EQ(problems.Harmless(), rule.empty() ? 1U : 0U) << one.facts.back().path;
        EXPECT_EQ(problems.Sorted().empty(), rule.empty()) << one.facts.back().path;
        EXPECT_TRUE(rule.empty() || problems.Has(rule))
            << one.facts.back().path << " is no " << rule;
    }
}

TEST(Verdict, TheGravestComesFirst) {
    const rehearse::TreeState none;
    Problems problems(none, none);
    const Names worstFirst = {"unaccounted", "exposed",         "ended-early", "database-lost",
                              "no-label",    "converted-again", "label-end",   "label-form",
                              "downgrade",   "order",           "refused",     "unsaved",
                              "malformed",   "canceled",        "command",     "incomplete",
                              "absent",      "next-start",      "other"};
    for (auto rule = worstFirst.rbegin(); rule != worstFirst.rend(); ++rule)
        problems.Add(*rule, {});
    Names rules;
    for (const rehearse::Problem& problem : problems.Sorted())
        rules.push_back(problem.rule);
    EXPECT_EQ(rules, worstFirst);
}

TEST(Verdict, AReportOfAnotherProgramIsRead) {
    const rehearse::TreeState unit = State({{"t/21/huntdb", ""}});
    Problems problems(unit, unit);
    problems.ReadReport(
        "MINOR ERROR: Invalid file: /t/21/huntdb\n\t/t/21/huntdb, line 7: end of file\n"
        "MINOR ERROR: Invalid file: /t/21/huntdb\nMINOR ERROR: Invalid file: /t/12/speedcalldb\n"
        "\tstd::bad_alloc\n\nexiting setupmend... may the Lord help us!\n");
    const auto sorted = problems.Sorted();
    ASSERT_EQ(sorted.size(), 2U);
    EXPECT_EQ(sorted[0].items.at(0).text, "std::bad_alloc");
    ASSERT_EQ(sorted[1].items.size(), 1U);
    EXPECT_EQ(ItemText(sorted[1].items[0]), "t/21/huntdb, line 7: end of file");
    EXPECT_EQ(problems.Harmless(), 1U);
}

// A text that no line of the product prints finds nothing for ever.
TEST(Verdict, EachTextThatIsLookedForIsPrinted) {
    std::string sources;
    for (const char* folder : {"app", "files", "recovery", "steps", "store", "util"})
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::string(SOURCES) + "/" + folder)) {
            std::stringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            sources += text.str();
        }
    sources = Replaced(Replaced(sources, "\\\"", "\""), "\\t", "\t");
    for (const std::string& text : rehearse::ReportTexts())
        EXPECT_TRUE(Holds(sources, text)) << text;
}

TEST(Secrets, AreHiddenByKeyAndByValue) {
    for (const char* key : {"password", "SIP_password", "Admin PIN", "md5_secret", "private key"})
        EXPECT_TRUE(rehearse::IsSecretKey(key)) << key;
    for (const char* key : {"password_protected_for_incoming_calls", "pinned", "hunt_service_on",
                            "extended_menu_btn", "password_length"})
        EXPECT_FALSE(rehearse::IsSecretKey(key)) << key;

    rehearse::Secrets secrets(false);
    secrets.Learn(
        rehearse::ReadSettings(State({{"f", "password=oak-ash|[a|pin=4711|]"}})["f"].get()));
    const std::string oak = "hidden, 7 characters (no. 1)";
    const std::string pin = "hidden, 4 characters (no. 2)";
    EXPECT_EQ(secrets.Value("note", "oak-ash"), oak) << "learned, before its key is met";
    EXPECT_EQ(secrets.Value("SIP_password", "oak-ash"), oak);
    EXPECT_EQ(secrets.Value("extension", "4711"), "4711") << "a short number may be anything";
    for (const auto& [line, hidden] :
         {std::pair<std::string, std::string>{"+password=oak-ash", "+password=" + oak},
          {"\t\tCopy Entry: pin=4711", "\t\tCopy Entry: pin=" + pin},
          {"\t- added entry \"pin\" with value \"4711\" to section \"a\"",
           "\t- added entry \"pin\" with value \"" + pin + "\" to section \"a\""},
          {"\tpassword\t\t\toak-ash", "\tpassword\t\t\t" + oak},
          {"rtsync: bad (oak-ash)", "rtsync: bad (" + oak + ")"},
          {"x=" + std::string(300, '-') + "oak-ash", "x=" + std::string(300, '-') + oak},
          {"soak-ashes=1", "soak-ashes=1"}})
        EXPECT_EQ(secrets.Line(line), hidden);
    EXPECT_EQ(rehearse::Secrets(true).Value("password", "x"), "x");
}

TEST(Terminal, GetsNoControlCharacters) {
    for (const auto& [text, printable] :
         {std::pair<std::string, std::string>{"a\x1b[2J", "a\\u001b[2J"},
          {"Åse", "Åse"},
          {"x\xe2\x80\xaey", "x\\u202ey"},
          {"\xff\xc3", "??"},
          {"\xc2\x9bm", "\\u009bm"}})
        EXPECT_EQ(rehearse::Printable(text), printable);
    rehearse::SiteResult site;
    site.site.name = "a\nb";
    EXPECT_TRUE(Holds(VerdictText(site), "a\\u000ab:")) << "a line of its own could say anything";
}
