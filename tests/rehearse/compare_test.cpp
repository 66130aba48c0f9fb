#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>

#include "directory.h"
#include "rehearse/compare/compare_sites.h"
#include "rehearse/compare/difference_table.h"
#include "rehearse/keep/keep_tree.h"
#include "state.h"

namespace {

using rehearse::KeptResult;
using rehearse::SiteComparison;

constexpr const char* root = "etc/orix-conf/telephony/";

using Files = std::map<std::string, std::string>;

rehearse::TreeState Tree(const Files& files, unsigned mode = 0644) {
    Files below;
    for (const auto& [name, text] : files)
        below[root + name] = text;
    return State(below, mode);
}

KeptResult Result(const Files& files, const std::string& verdict = "upgraded",
                  const std::string& key = "key") {
    KeptResult result;
    result.summary.backup = key;
    result.summary.verdict.result = verdict;
    result.summary.verdict.summary = verdict;
    result.summary.verdict.to = "5.1.0";
    const auto tree = std::make_shared<const rehearse::TreeState>(Tree(files));
    result.packedTree = PackedTree(KeepTree({}, *tree, rehearse::Ledger(tree, root, ""), key));
    return result;
}

void AddProblem(KeptResult& result, const std::string& rule, const std::string& file,
                const std::string& text) {
    result.summary.problems.push_back(
        {rule, "title", "means", "do", {{text, file, 0, "", "", {}}}});
}

/// "KIND CHANGE FILE [SECTION] KEY BEFORE>AFTER", a line each.
std::string Told(const SiteComparison& comparison) {
    std::string told = comparison.comparedClass;
    for (const rehearse::SiteDifference& one : comparison.differences)
        told += "|" + one.kind + " " + one.change + " " +
                one.file.substr(std::min(one.file.size(), std::string(root).size())) + " [" +
                one.section + "] " + one.key + " " + one.before + ">" + one.after;
    return told;
}

}  // namespace

TEST(Compare, TreesBySetting) {
    const struct {
        Files before, after;
        const char* told;
    } cases[] = {
        {{{"21/servicesdb", "[fax|rate=14400|]"}},
         {{"21/servicesdb", "[fax|rate=9600|]"}},
         "changed|setting changed 21/servicesdb [fax] rate 14400>9600"},
        {{{"a", "x=1|y=2|"}},
         {{"a", "y=|z=3|"}},
         "changed|setting went a [] x 1>|setting emptied a [] y 2>|setting came a [] z >3"},
        {{{"a", "x=1|"}}, {{"a", "# said|x=1|"}}, "changed|text changed a []  >"},
        {{{"a", "[s|w=1|x=1|y=1|z=1|]"}},
         {{"a", "[s|w=1|y=1|z=1|x=1|]"}},
         "changed|text changed a [s] x >"},
        {{{"a", "[s|w=1|x=1|y=1|z=1|]"}},
         {{"a", "[s|z=1|w=1|x=1|y=1|]"}},
         "changed|text changed a [s] z >"},
        {{{"a", "w=1|x=1|y=1|z=1|"}}, {{"a", "z=1|y=1|x=1|w=1|"}}, "changed|text changed a []  >"},
        {{{"a", "x=1|"}, {"b", "y=1|"}},
         {{"a", "x=1|"}, {"c", "y=1|"}},
         "changed|file went b []  >|file came c []  >"},
        // Records without a name are found again by what they hold.
        {{{"p", "[|pattern=1|v=1|][|pattern=2|v=2|]"}},
         {{"p", "[|pattern=2|v=2|]"}},
         "changed|setting went p [pattern=1] pattern 1>|setting went p [pattern=1] v 1>"},
        // Secrets are compared, and not told.
        {{{"m", "password=4711|"}},
         {{"m", "password=0000|"}},
         "changed|setting changed m [] password hidden, 4 characters>hidden, 4 characters (another)"},
        {{{"m", "password=4711|"}}, {{"m", "password=4711|"}}, "unchanged"},
    };
    for (const auto& one : cases)
        EXPECT_EQ(Told(CompareSites("s", Result(one.before), Result(one.after), {})), one.told);
    KeptResult closed = Result({{"a", "x=1|"}});
    rehearse::KeptTree tree = rehearse::UnpackedTree(closed.packedTree).value();
    tree.files[0].mode = "mode 600";
    closed.packedTree = PackedTree(tree);
    EXPECT_EQ(Told(CompareSites("s", closed, Result({{"a", "x=1|"}}), {})),
              "changed|mode changed a []  mode 600>mode 644, owner 0:0");
}

// What the firmware brings is no result, and its version no difference.
TEST(Compare, ANewVersionAloneIsNoDifference) {
    KeptResult before = Result({{"linedb", "[general|current_version=5.1.0|]"}});
    KeptResult after = Result({{"linedb", "[general|current_version=5.2.0|]"}});
    EXPECT_EQ(CompareSites("s", before, after, {}).comparedClass, "changed");
    after.summary.verdict.to = "5.2.0";
    EXPECT_EQ(Told(CompareSites("s", before, after, {})), "unchanged");
    const rehearse::TreeState firmwares = State({{"etc/default-conf/x", ""}, {"bin/rtsync", ""}});
    const auto none = std::make_shared<const rehearse::TreeState>();
    EXPECT_TRUE(KeepTree({}, firmwares, rehearse::Ledger(none, root, ""), "k").files.empty());
}

TEST(Compare, ASecretIsKeptByTheBackupsContent) {
    const Files files = {{"m", "password=4711|"}};
    const auto value = [&](const char* key) {
        const KeptResult result = Result(files, "upgraded", key);
        return rehearse::UnpackedTree(result.packedTree)->files[0].sections[0].settings[0].value;
    };
    EXPECT_EQ(value("one"), value("one"));
    EXPECT_NE(value("one"), value("two"));
    EXPECT_EQ(value("one").find("4711"), std::string::npos);
    EXPECT_EQ(rehearse::Readable(value("one")), "hidden, 4 characters");
    EXPECT_EQ(rehearse::Readable("hidden, but no # secret"), "hidden, but no # secret");
}

TEST(Compare, ClassesOfSites) {
    const Files files = {{"a", "x=1|"}, {"b", "x=1|"}};
    const Files others = {{"a", "x=2|"}, {"b", "x=1|"}};
    const std::string a = std::string(root) + "a";
    const auto classOf = [](const KeptResult& before, const KeptResult& after) {
        return CompareSites("s", before, after, {}).comparedClass;
    };
    const KeptResult sound = Result(files);
    KeptResult ill = Result(others);
    AddProblem(ill, "unaccounted", a, "x changed: \"1\" -> \"2\"");
    EXPECT_EQ(Told(CompareSites("s", sound, ill, {})), "regressed|setting changed a [] x 1>2");
    EXPECT_EQ(CompareSites("s", sound, ill, {}).differences[0].rule, "unaccounted");
    EXPECT_EQ(classOf(ill, sound), "fixed");
    // A problem with another value is the same one; its tree is another.
    KeptResult otherwise = Result(files);
    AddProblem(otherwise, "unaccounted", a, "x changed: \"1\" -> \"3\"");
    EXPECT_EQ(classOf(ill, otherwise), "changed");
    // What was fixed does not cover a change elsewhere.
    EXPECT_EQ(classOf(ill, Result({{"a", "x=1|"}, {"b", "x=9|"}})), "changed");
    EXPECT_EQ(classOf(sound, Result(files, "partly-upgraded")), "regressed");
    EXPECT_EQ(classOf(Result(files, "crashed"), sound), "fixed");
    EXPECT_EQ(classOf(Result(files, "not-held"), sound), "unknown");
    EXPECT_EQ(classOf(Result(files, "not-held"), Result(files, "not-held")), "unknown");
    // Nor another setting of the file; a tree that is upgraded where it was up to date is another.
    EXPECT_EQ(classOf(ill, Result({{"a", "x=1|y=1|"}, {"b", "x=1|"}})), "changed");
    EXPECT_EQ(classOf(Result(files, "up-to-date"), Result(others)), "changed");
    KeptResult dead = Result(files, "crashed");
    dead.packedTree.clear();
    EXPECT_EQ(classOf(sound, dead), "regressed");
    const Directory directory;
    std::ofstream(directory.path + "/waivers")
        << "[[waiver]]\nrule='crashed'\nowner='o'\nreason='r'\nuntil=2099-01-01\n";
    const rehearse::Waivers waivers(directory.path + "/waivers", "2027-01-01");
    EXPECT_EQ(Told(CompareSites("s", sound, dead, waivers)), "unchanged");
    EXPECT_EQ(classOf(sound, Result(files, "upgraded", "another backup")), "unknown");
    EXPECT_TRUE(AreAlike(ill, ill));
    EXPECT_FALSE(AreAlike(ill, otherwise));
}

// Extensions, numbers and values are folded; the gravest and then the most widespread comes first.
TEST(Compare, ADifferenceIsToldOnce) {
    rehearse::DifferenceTable table;
    const auto compare = [&](std::size_t site, const Files& before, const Files& after) {
        KeptResult result = Result(after);
        result.summary.extensions = {"21", "22"};
        table.Add(site, CompareSites("s", Result(before), result, {}).differences, result.summary);
    };
    for (std::size_t site = 0; site < 3; ++site)
        compare(
            site, {{"21/db", "[s|x=14400|]"}, {"22/db", "[s|x=14400|]"}, {"c", "w=1|"}},
            {{"21/db", "[s|x=9600|]"}, {"22/db", "[s|x=9600|]"}, {"c", site == 1 ? "" : "w=1|"}});
    compare(3, {{"db", "[line_0|x=1|][line_1|x=2|]"}}, {{"db", "[line_0|x=3|][line_1|x=3|]"}});
    rehearse::SiteDifference problem;
    problem.kind = "problem";
    problem.rule = "other";
    table.Add(3, {problem}, {});
    std::vector<rehearse::FleetDifference> told = table.Take();
    ASSERT_EQ(told.size(), 4U);
    EXPECT_EQ(told[0].rule, "other") << "before what is lost";
    told.erase(told.begin());
    EXPECT_EQ(told[0].text, std::string(root) + "c: w is gone (\"1\")");
    EXPECT_EQ(told[0].sites, std::vector<std::size_t>{1});
    EXPECT_EQ(told[1].text, std::string(root) + "*/db: [s] x \"14400\" becomes \"9600\"");
    EXPECT_EQ(told[1].sites, (std::vector<std::size_t>{0, 1, 2}));
    EXPECT_EQ(told[1].count, 6U);
    EXPECT_EQ(told[2].section, "line_*");
    EXPECT_EQ(told[2].values.size(), 2U);
}

TEST(Compare, WhatIsKeptIsReadAgainWholeOrNotAtAll) {
    const Directory directory;
    const std::string path = directory.path + "/kept";
    KeptResult result = Result({{"a", "x=\xff|"}});
    AddProblem(result, "order", "f", "\xc3");
    const rehearse::TreeState before = Tree({{"extensiondb", "[21|fn_number=7|]"}});
    const rehearse::TreeState after =
        Tree({{"21/personaldatadb", "fn_number=7|"}, {"a", "x=\xff|"}});
    rehearse::Ledger ledger(std::make_shared<const rehearse::TreeState>(before), root, "");
    rehearse::RunContext run;
    run.root = root;
    run.extensions = {"21"};
    ledger.Enter("extension split", Compare(before, after),
                 std::make_shared<const rehearse::TreeState>(after), run);
    result.packedTree = PackedTree(KeepTree(before, after, ledger, "key"));
    WriteKept(path, result.summary, result.packedTree);
    const auto read = rehearse::ReadKeptResult(path);
    ASSERT_TRUE(read);
    EXPECT_TRUE(AreAlike(result, *read));
    const auto tree = rehearse::UnpackedTree(read->packedTree);
    ASSERT_TRUE(tree);
    const rehearse::KeptSetting& moved = tree->files[0].sections[0].settings[0];
    EXPECT_EQ(tree->steps.at(static_cast<std::size_t>(moved.made)), "extension split");
    EXPECT_EQ(tree->files[1].sections[0].settings[0].value, "\xff");
    // What was cut is rehearsed again; what has no tree is not like what has one.
    WriteKept(path, result.summary, "");
    EXPECT_FALSE(AreAlike(result, rehearse::ReadKeptResult(path).value()));
    WriteKept(path, result.summary, result.packedTree);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
    EXPECT_FALSE(rehearse::ReadKept(path) || rehearse::ReadKeptResult(path));
}
