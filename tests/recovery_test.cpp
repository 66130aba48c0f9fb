// The recovery copy: what is put back, what is only removed, and when it stays.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/disk_failures.h"
#include "store/tree_mirror.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;
using Configuration::By;
using Configuration::MirrorTree;

namespace {

class Recovery : public Steps {
protected:
    Recovery() {
        for (Site* unit : {&site, &undisturbed})
            unit->appliance.voiceStorageSize = [](const std::string&) { return 8'000'000; };
        undisturbed.Upgrade();
        copy = site.Path("etc/orix-conf/telephony.mend-undo");
    }
    /// What a run leaves behind when it is interrupted: the copy, and a half-upgraded tree.
    void Interrupt() {
        fs::copy(site.Live(""), copy,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        site.Write(site.Live("nat.cfg"), "half=1\n");
        site.Write(site.Live("sip.cfg.mend-tmp"), "torn");
        site.Write(site.Live("21"), "");
        site.Remove(site.Live("22"));
        site.Remove(site.Live("rtp.cfg"));
        fs::create_directories(site.Live("rtp.cfg/new"));
        fs::create_symlink("nowhere", site.Live("new"));
    }
    Site undisturbed;
    std::string copy;
};

}  // namespace

TEST_F(Recovery, AnInterruptedUpgradeBeginsAgain) {
    Interrupt();
    fs::create_directories(copy + ".mend-tmp/stale");
    log = site.Upgrade();
    EXPECT_TRUE(Holds(
        log, "\tlast upgrade was interrupted, configuration is put back from " + copy + "\n"));
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    EXPECT_EQ(site.Snapshot(), undisturbed.Snapshot());
}

TEST_F(Recovery, AFinishedUpgradeIsNotUndone) {
    Interrupt();
    fs::remove_all(site.Live(""));
    fs::copy(undisturbed.Live(""), site.Live(""),
             fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const std::string linedb = site.Read(site.Live("linedb"));
    log = site.Upgrade();
    EXPECT_TRUE(
        Holds(log, "\tlast upgrade was finished, its recovery copy " + copy + " is removed\n"));
    EXPECT_TRUE(Holds(log, "\tConfigurarion already checked.\n"));
    EXPECT_FALSE(site.Exists(copy));
    EXPECT_EQ(site.Read(site.Live("linedb")), linedb);
}

TEST_F(Recovery, WithoutACopyTheUpgradeGoesOn) {
    site.Write(copy, "no directory can take this name");
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "\tcan't make recovery copy " + copy +
                               " (Not a directory), upgrade goes "
                               "on without it\n"));
    site.Remove(copy);
    EXPECT_EQ(site.Snapshot(), undisturbed.Snapshot());
}

TEST_F(Recovery, WhatTheDiskRefusedIsTriedOnceMore) {
    site.appliance.runShell = [](const std::string& command) {
        CountDiskFailure(EIO);
        return std::system(command.c_str());
    };
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "\tupgrade is not finished, next start begins again from " + copy));
    EXPECT_FALSE(Holds(log, " is set in linedb\n"));
    EXPECT_TRUE(site.Exists(copy));
    // Failing for ever must not put the settings of every day back every night.
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "configuration is put back from "));
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    EXPECT_EQ(site.Snapshot(), undisturbed.Snapshot());
}

TEST_F(Recovery, AStampThatCannotBeSavedLeavesTheCopy) {
    site.appliance.runShell = [this](const std::string& command) {
        fs::remove(site.Live("linedb"));  // every later save follows a link that leads nowhere
        fs::create_symlink("no-such-directory/linedb", site.Live("linedb"));
        return std::system(command.c_str());
    };
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "next start begins again from " + copy));
    site.appliance.runShell = Appliance().runShell;
    site.Upgrade();
    EXPECT_EQ(site.Snapshot(), undisturbed.Snapshot());
}

TEST_F(Recovery, AStampThatTheFactoryBringsIsNoEnd) {
    Configuration::MultiSectionFile factory(site.Factory("04-lines/linedb"));
    factory.GotoSection("general");
    factory.SetSectionEntry("current_version", "5.1.0");
    factory.Save(true, nullptr);
    // The merge has taken it over when the power goes.
    pid_t child = fork();
    if (child == 0) {
        Appliance appliance = site.appliance;
        setenv("ORIX_PATH", appliance.liveConf.c_str(), 1);
        appliance.runShell = [](const std::string& command) {
            if (command.find("dialplan.cfg") != std::string::npos)
                _exit(0);
            return std::system(command.c_str());
        };
        ConfigUpgrader(appliance).Run();
        _exit(1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(Holds(site.Read(site.Live("linedb")), "current_version=5.1.0\n"));
    EXPECT_TRUE(Holds(site.Upgrade(), "\tlast upgrade was interrupted, configuration is put back"));
    EXPECT_FALSE(site.Exists(copy));
}

TEST_F(Recovery, AMirrorHasModesOwnersTimesAndLinks) {
    const std::string from = site.Path("from");
    const std::string to = site.Path("to");
    site.Write(from + "/plain", std::string(200'000, 'x'));
    site.Write(from + "/sub/empty", "");
    fs::create_symlink("../nowhere", from + "/sub/link");
    mkfifo((from + "/fifo").c_str(), 0600);
    chmod((from + "/plain").c_str(), 04751);
    chmod((from + "/sub").c_str(), 0500);
    if (geteuid() == 0) {
        EXPECT_EQ(chown((from + "/plain").c_str(), 7, 8), 0);
    }
    const struct timespec times[] = {{1, 2}, {3, 4}};
    for (const char* name : {"/plain", "/sub", ""})
        utimensat(AT_FDCWD, (from + name).c_str(), times, 0);
    site.Write(to + "/plain/was/a", "directory");
    site.Write(to + "/surplus/file", "");
    mkfifo((to + "/own").c_str(), 0600);
    for (const By by : {By::Copying, By::Linking}) {
        EXPECT_EQ(MirrorTree(from, to, by), "");
        EXPECT_EQ(Configuration::TreeSize(to), 200'704U);
        for (const char* name : {"/plain", "/sub", "/sub/empty", "/sub/link", ""}) {
            struct stat a {
            }, b{};
            EXPECT_EQ(lstat((from + name).c_str(), &a) | lstat((to + name).c_str(), &b), 0) << name;
            EXPECT_EQ(a.st_mode, b.st_mode) << name;
            EXPECT_EQ(a.st_uid, b.st_uid);
            EXPECT_EQ(a.st_gid, b.st_gid);
            EXPECT_EQ(a.st_mtim.tv_sec, b.st_mtim.tv_sec) << name;
            EXPECT_EQ(a.st_mtim.tv_nsec, b.st_mtim.tv_nsec) << name;
        }
        EXPECT_EQ(site.Read(to + "/plain"), site.Read(from + "/plain"));
        EXPECT_EQ(fs::read_symlink(to + "/sub/link"), "../nowhere");
        EXPECT_FALSE(site.Exists(to + "/surplus"));
        EXPECT_FALSE(site.Exists(to + "/fifo")) << "nor is the other's own removed:";
        EXPECT_TRUE(site.Exists(to + "/own"));
        site.Write(to + "/plain", std::string(199'999, 'x') + "y");  // breaks no link below
        utimensat(AT_FDCWD, (to + "/plain").c_str(), times, 0);
    }
}
