#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "directory.h"
#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/fleet/job_log.h"
#include "rehearse/ledger/settings.h"
#include "rehearse/sandbox/order.h"
#include "rehearse/watch/change_table.h"
#include "rehearse/watch/differences.h"
#include "rehearse/watch/git_difference.h"
#include "rehearse/watch/pattern.h"
#include "state.h"

namespace fs = std::filesystem;
using rehearse::Compare;
using rehearse::TreeState;

namespace {

Names Told(const std::vector<rehearse::FileChange>& changes) {
    Names paths;
    for (const rehearse::FileChange& change : changes)
        paths.push_back((change.before ? change.after ? "*" : "-" : "+") + change.path);
    return paths;
}

Names Changed(const TreeState& before, const TreeState& after) {
    return Told(Compare(before, after));
}

}  // namespace

TEST(TreeWatch, SeesWhatAStepTouched) {
    const Directory tree;
    tree.Write("same", "1");
    tree.Write("size", "1");
    tree.Write("mode", "1");
    tree.Write("gone", "1");
    fs::create_directory(tree.path + "/z");  // its files come behind "z-", by path
    tree.Write("z/y", "1");
    tree.Write("z-", "1");
    tree.Write("x.mend-tmp", "1");
    rehearse::TreeWatch watch(tree.path);
    const rehearse::SharedTree before = watch.State();
    tree.Write("size", "2");  // within a tick of the clock, and of the same size
    tree.Write("same", "1");
    tree.Write("y.mend-tmp", "2");
    fs::permissions(tree.path + "/mode", fs::perms::owner_read);
    fs::remove(tree.path + "/gone");
    fs::remove(tree.path + "/z/y");
    fs::create_symlink("size", tree.path + "/link");
    const Names changed = {"-gone", "+link", "*mode", "*size", "-z/y"};
    EXPECT_EQ(Told(watch.Look()), changed);
    EXPECT_EQ(Changed(*before, *watch.State()), changed);
    EXPECT_EQ(Changed(*rehearse::LookAt(tree.path, before), *watch.State()), Names());
    EXPECT_EQ(Told(watch.Look()), Names());
    EXPECT_EQ(rehearse::LookAt(tree.path, watch.State()), watch.State());
}

// What is too large to be looked into is the same in a copy that kept its time, though its inode is
// another: the tree that is upgraded in the other order is such a copy.
TEST(TreeWatch, ALargeRecordingIsTheSameInACopy) {
    const Directory tree;
    const Directory copy;
    tree.Write("recording", std::string(5 << 20, '\0'));
    const fs::path copied = copy.path + "/recording";
    fs::copy(tree.path + "/recording", copied);
    const auto time = fs::last_write_time(tree.path + "/recording");
    const auto changed = [&] {
        return Changed(*rehearse::TreeWatch(tree.path).State(),
                       *rehearse::TreeWatch(copy.path).State());
    };
    fs::last_write_time(copied, time);
    EXPECT_EQ(changed(), Names());
    fs::last_write_time(copied, time + std::chrono::seconds(1));
    EXPECT_EQ(changed(), (Names{"*recording"}));
}

TEST(Differences, TellEqualChangesOnce) {
    const TreeState before =
        State({{"t/21/f", "[s|a=1|b=2|]"}, {"t/22/f", "[s|a=1|b=2|]"}, {"t/x", "1|"}});
    const TreeState after =
        State({{"t/21/f", "[s|a=1|b=3|]"}, {"t/22/f", "[s|a=1|b=3|]"}, {"t/y", ""}});
    rehearse::ChangeTable table;
    table.Add("step", Compare(before, after), {"21", "22"});
    EXPECT_EQ(table.Files(), (Names{"t/21/f", "t/22/f", "t/x", "t/y"}));
    const auto groups = table.Groups();
    ASSERT_EQ(groups.size(), 3U);
    EXPECT_EQ(groups[0].pattern, "t/*/f");
    EXPECT_EQ(groups[0].where, "section s");
    EXPECT_EQ(groups[0].lines, (Names{"-b=2", "+b=3"}));
    EXPECT_EQ(groups[0].files, (std::vector<std::size_t>{0, 1}));
    EXPECT_EQ(groups[1].kind, "removed");
    EXPECT_EQ(groups[2].note, "empty");
    EXPECT_EQ(rehearse::FoldReport("Ext: 21\nx\nExt: 22\n", {"21", "22"}),
              "Ext: *  (2 times)\nx\n");
}

TEST(Differences, GitTakesThem) {
    const TreeState before = State({{"a b", "1|"}, {"mode", "x|"}, {"old", "1"}}, 0600);
    TreeState after = State({{"a b", "2|"}, {"mode", "x|"}, {"new\n\"", ""}}, 0644);
    std::ostringstream written;
    WriteGitDifference(Compare(before, after), written);
    const std::string text = written.str();
    for (const char* part :
         {"diff --git a/a b b/a b\nold mode 100600\nnew mode 100644\n--- a/a b\t\n+++ b/a b\t\n",
          "diff --git a/mode b/mode\nold mode 100600\nnew mode 100644\ndiff",
          "diff --git \"a/new\\012\\\"\" \"b/new\\012\\\"\"\nnew file mode 100644\n",
          "deleted file mode 100600\n--- a/old\n+++ /dev/null\n@@ -1,1 +0,0 @@\n-1\n\\ No newline"})
        EXPECT_TRUE(Holds(text, part)) << part << "\nis not in\n" << text;
}

TEST(Settings, SectionsWithoutNamesAreFoundAgain) {
    const auto match = [](const char* before, const char* after) {
        return MatchSections(rehearse::ReadSettings(State({{"f", before}})["f"].get()),
                             rehearse::ReadSettings(State({{"f", after}})["f"].get()));
    };
    using Match = std::vector<std::ptrdiff_t>;
    EXPECT_EQ(match("[|a=1|][|a=2|][x|]", "[|a=2|][x|][|a=3|]"), (Match{0, 3, 1, 2}));
    EXPECT_EQ(match("[|u=012|t=P|][|u=3|t=P|]", "[|u=12|t=P|p=0|][|u=3|t=P|p=0|]"),
              (Match{0, 1, 2}));
    EXPECT_EQ(match("[|pattern=9|t=0|]", "[|pattern=R|t=0|]"), (Match{0, -1}));
    EXPECT_EQ(match("[s|a=1|][s|a=2|]", "[s|a=2|]"), (Match{0, -1, 1}));
}

TEST(Order, DirectoriesListTheirNamesAsAsked) {
    const Directory tree;
    struct statfs info {};
    constexpr long tmpfs = 0x01021994;
    if (statfs(tree.path.c_str(), &info) != 0 || info.f_type != tmpfs)
        GTEST_SKIP() << "no file system that lists by the order of creation";
    fs::create_directory(tree.path + "/d");
    for (const char* name : {"d/b", "d/c", "d/a"})
        tree.Write(name, "");
    for (const auto& [order, wanted] : {std::pair(rehearse::Order::Ascending, Names{"a", "b", "c"}),
                                        {rehearse::Order::Descending, Names{"c", "b", "a"}}}) {
        EXPECT_TRUE(OrderDirectories(tree.path, order));
        Names listed;
        for (const auto& entry : fs::directory_iterator(tree.path + "/d"))
            listed.push_back(entry.path().filename());
        EXPECT_EQ(listed, wanted);
    }
}

TEST(Child, IsEndedByWhoeverDoesNotWaitForIt) {
    rehearse::ChildPlan plan;
    plan.words = {"sh", "-c", "exit 3"};
    EXPECT_EQ(rehearse::Child(plan).Wait([] {}).status, 3);
    plan.words = {"sh", "-c", "kill -TERM $$"};
    EXPECT_EQ(rehearse::Child(plan).Wait([] {}).signal, SIGTERM);
    plan.words = {"sleep", "100"};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(rehearse::Child(plan).Wait([] { throw rehearse::Crash("enough"); }),
                 rehearse::Crash);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
    plan.words = {"/no/such/program"};
    plan.package = "bubblewrap";
    EXPECT_THROW(rehearse::Child{plan}, rehearse::Failure);
}

TEST(Fleet, ReadsTheLogOfItsJobs) {
    EXPECT_FALSE(rehearse::ParseJob(
        "Seq\tHost\tStarttime\tJobRuntime\tSend\tReceive\tExitval\tSignal\tCommand"));
    EXPECT_FALSE(rehearse::ParseJob("3\t:\t170"));
    const auto job =
        rehearse::ParseJob("3\tssh -p 2 a\t1700000000.1\t     2.5\t0\t12\t2\t0\tcommand");
    ASSERT_TRUE(job);
    EXPECT_EQ(job->first, 2U);
    EXPECT_EQ(job->second.exitStatus, 2);
    EXPECT_DOUBLE_EQ(job->second.seconds, 2.5);
    EXPECT_FALSE(WasTooLong(job->second));
    EXPECT_TRUE(WasTooLong(rehearse::ParseJob("1\t:\t1.0\t9.0\t0\t0\t-1\t15\tx")->second));
}
