// Line, extension and caller databases, as far as they are no ordinary cases (tests/cases).

#include <filesystem>

#include "tests/support/steps.h"

namespace fs = std::filesystem;

namespace {

class Databases : public Steps {
protected:
    const std::string& Split() { return Run("2.3.0", &ConfigUpgrader::SplitExtensionDatabase); }
};

}  // namespace

TEST_F(Databases, LinesAreRestoredWhenTheyCannotBeRead) {
    for (const int result : {-1, 127, 0}) {
        Open("5.0.0").lineDb.reset();
        Put("linedb", malformed);
        if (result != 0)
            upgrader->appliance.runShell = [&](const std::string&) { return result; };
        upgrader->CheckLineDatabase();
        const bool restored = result == 0;
        EXPECT_TRUE(
            Holds(TakeLog(), "\tfile linedb doesn't exist or corrupted, copying from default"));
        EXPECT_EQ(Holds(log, "\tCan't copy linedb from default-conf, probably a problem with "),
                  !restored);
        EXPECT_EQ(Holds(log, "\n Done...\n"), restored);
        EXPECT_EQ(Get("linedb") == malformed, !restored) << "it goes when there is another";
        Put("linedb", "");
    }
}

TEST_F(Databases, SplitEndsAtAMalformedFileAndLosesNothing) {
    Put("22/servicesdb", malformed);
    const std::string extensiondb = Get("extensiondb");
    const std::string linedb = Get("linedb");
    EXPECT_TRUE(Holds(Split(), "\t" + site.Live("22/servicesdb") + ", line "));
    EXPECT_FALSE(Holds(log, "\n Done...\n"));
    EXPECT_EQ(Get("22/servicesdb"), malformed);
    // A later step that saves the databases must not save half a split either.
    upgrader->Save(*upgrader->extensionDb);
    upgrader->Save(*upgrader->lineDb);
    EXPECT_EQ(Get("extensiondb"), extensiondb);
    EXPECT_EQ(Get("linedb"), linedb);
    EXPECT_EQ(upgrader->liveExtensions, (Names{"21", "22", "23", "11", "12"}));

    Put("22/servicesdb", "");
    Split();
    EXPECT_FALSE(Holds(Get("extensiondb"), "[22|"));
    EXPECT_TRUE(Holds(Get("22/servicesdb"), "auto_call_type=PSTN|"));
    EXPECT_EQ(Get("00/codecsdb"), "codec=PCMA,PCMU|fax_codecs=T38|special_codecs=G729|");
    EXPECT_TRUE(Holds(Get("00/servicesdb"), "att_rout_support=1|"));
}

TEST_F(Databases, CallerWalkNumbersRecordsEndsInLoopsAndPassesAMalformedFile) {
    Remove("");
    const std::string old = "[|section_id=7|][b|]";
    const std::string numbered = "[|section_id=1|][b|section_id=2|]";
    for (const char* name : {"autologindb", "patterndb", "21/deep/huntdb", "22/huntdb", "otherdb"})
        Put(name, old);
    for (const char* name : {"linedb", "extensiondb", "22/speedcalldb"})
        Put(name, "");
    Put("22/anonymousdb", malformed);
    fs::create_symlink(".", site.Live("here"));
    fs::create_symlink("..", site.Live("21/up"));
    fs::create_symlink("../../22", site.Live("21/deep/aside"));
    fs::create_symlink("nowhere", site.Live("externaluserdb"));
    Run("2.3.0", &ConfigUpgrader::ProcessMergeList);
    for (const char* name : {"autologindb", "patterndb", "21/deep/huntdb", "22/huntdb"})
        EXPECT_EQ(Get(name), numbered) << name;
    EXPECT_EQ(Get("otherdb") + Get("22/speedcalldb") + Get("22/anonymousdb"), old + malformed);
    EXPECT_EQ(Count(log, "\tAdding sections id 2 to file "), 4) << log;
    EXPECT_EQ(Count(log, "=== services check for "), 5);
    EXPECT_EQ(Count(log, "MINOR ERROR: Invalid file: " + site.Live("")), 1);
    EXPECT_EQ(Count(log, "anonymousdb"), 1) << "one error line, no header";
}
