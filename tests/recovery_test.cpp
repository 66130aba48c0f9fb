// The recovery copy: what is put back, what is only removed, and when it stays.

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <new>

#include "files/mirror.h"
#include "files/refusals.h"
#include "files/replace.h"
#include "files/sync.h"
#include "recovery/decision.h"
#include "recovery/recovery_copy.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;
using files::By;
using files::MirrorTree;

namespace {

/// A directory of the live tree that the sample's upgrade changes, as a link to another disk.
constexpr const char* linkable[] = {"e1t1", "isdn", "21"};

class Recovery : public Steps {
protected:
    Recovery() : copy(site.Path("etc/orix-conf/telephony.mend-undo")) {
        for (Site* unit : {&site, &undisturbed})
            unit->appliance.voiceStorageSize = [](const std::string&) { return 8'000'000; };
    }
    void MoveBehindLinks(const Site& unit) const {
        fs::create_directories(unit.Path("mnt/data"));
        // Leads nowhere before the upgrade writes through it.
        fs::create_symlink("../../../../mnt/data/made", unit.Live("11/addresspatterndb"));
        for (const char* name : linkable) {
            fs::rename(unit.Live(name), unit.Path(std::string("mnt/data/") + name));
            fs::create_directory_symlink(unit.Path(std::string("mnt/data/") + name),
                                         unit.Live(name));
        }
        fs::rename(unit.Live("22/grouplistdb"), unit.Path("mnt/data/groups"));
        fs::create_symlink(unit.Path("mnt/data/groups"), unit.Live("22/grouplistdb"));
    }
    /// Runs an upgrade that dies where the appliance has it die: with exit status 0.
    void InterruptAt(const std::function<void(Appliance&)>& arrange) const {
        const pid_t child = fork();
        if (child == 0) {
            Appliance appliance = site.appliance;
            arrange(appliance);
            setenv("ORIX_PATH", appliance.liveConf.c_str(), 1);
            { ConfigUpgrader(appliance).Run(); }
            _exit(1);
        }
        int status = 1;
        waitpid(child, &status, 0);
        ASSERT_EQ(status, 0);
        ASSERT_TRUE(site.Exists(copy));
    }
    /// The same, until a command that holds this text: without one, until it has the factory's dial
    /// plan copied.
    void Interrupt(const std::string& at = "dialplan.cfg") const {
        InterruptAt([&](Appliance& appliance) {
            appliance.runShell = [&](const std::string& command) {
                if (Holds(command, at))
                    _exit(0);
                return Site::RunShell(command);
            };
        });
    }
    /// Has the disk refuse something, once, in a run that otherwise ends.
    void UpgradeRefused() {
        site.appliance.runShell = [](const std::string& command) {
            files::NoteRefusal(EIO);
            return Site::RunShell(command);
        };
        log = site.Upgrade();
        site.appliance.runShell = Site::RunShell;
        ASSERT_TRUE(Holds(log, "\tupgrade is not finished, next start begins again from " + copy));
        ASSERT_FALSE(Holds(log, " is set in linedb\n"));
        ASSERT_TRUE(site.Exists(copy));
    }
    void ExpectUndisturbed() {
        undisturbed.Upgrade();
        EXPECT_EQ(site.Snapshot(), undisturbed.Snapshot());
    }
    Site undisturbed;
    std::string copy;
};

/// A unit of a few files with all that a copy has to keep, and starts that only do what an upgrade
/// does with its copy.
class SmallUnit : public Steps {
protected:
    SmallUnit() : Steps(Site::Content::Databases) {}

    struct Start {
        explicit Start(const Site& site)
            : goesOn(copy.Resume(site.Live(""), "5", site.Path("log"))) {}
        std::string report;
        RecoveryCopy copy{report};
        bool goesOn;
    };
    void Fill() const {
        for (const char* place : {"etc/orix-conf", "mnt"})
            site.Remove(site.Path(place));
        Put("linedb", "[general|]");
        Put("sub/file", "old");
        for (const char* file : {"mnt/file", "mnt/dir/file"})
            site.Write(site.Path(file), "old");
        fs::create_symlink(site.Path("mnt/file"), site.Live("sub/link"));
        fs::create_symlink(site.Path("mnt/none"), site.Live("sub/nowhere"));
        fs::create_directory_symlink(site.Path("mnt/dir"), site.Live("linked"));
    }
    /// What steps do; a save replaces a file.
    void Change() const {
        for (const char* file : {"sub/file", "sub/link", "sub/nowhere", "linked/file", "made"})
            files::ReplaceFile(site.Live(file), "new");
    }
    /// A first run that is killed: once its changes are made, when it has ended though the disk
    /// refused something, or behind the stamp.
    enum class Until { Changed, Refused, Stamped };
    void RunUntil(Until end) const {
        Start first(site);
        ASSERT_TRUE(first.copy.Make("5", [](const std::string&) { return true; }));
        Change();
        if (end == Until::Refused) {
            files::NoteRefusal(EIO);
            first.copy.End(false);
        } else if (end == Until::Stamped) {
            EXPECT_TRUE(first.copy.SyncTree());
            first.copy.MarkDone();
            Put("linedb", "[general|current_version=5|]");
        }
    }
    /// The unit without its copy, and with what else is left of a run.
    std::map<std::string, std::string> Unit() const {
        auto tree = site.Snapshot();
        std::erase_if(tree, [](const auto& entry) { return Holds(entry.first, ".mend-undo/"); });
        return tree;
    }
};

}  // namespace

TEST_F(SmallUnit, NoCallThatFailsOnceCostsTheTree) {
    Fill();
    const auto before = Unit();
    RunUntil(Until::Stamped);
    const auto stamped = Unit();
    // What a start meets, and what it, or the one after it, has to make of that.
    const std::pair<std::optional<Until>, const std::map<std::string, std::string>*> starts[] = {
        {std::nullopt, &before},
        {Until::Changed, &before},
        {Until::Refused, &before},
        {Until::Stamped, &stamped}};
    const auto all = [](const std::string&) { return true; };
    const auto refuse = [&](const char* call, int start, int step) {
        const auto& [left, expected] = starts[start];
        bool isReached = true;
        for (int nth = 1; isReached; nth += step) {
            Fill();
            if (left)
                RunUntil(*left);
            isReached = WithRefused({{call, EIO, nth}}, [&, isFirst = !left] {
                Start refused(site);
                if (isFirst && refused.copy.Make("5", all) && refused.copy.Stands())
                    Change();
            });
            const Start next(site);
            EXPECT_TRUE(next.goesOn && Unit() == *expected)
                << call << " " << nth << " at start " << start << ":\n"
                << next.report;
        }
    };
    for (const char* call : {"create", "write", "rename", "fsync", "syncfs", "unlink", "rmdir",
                             "mkdir", "symlink", "utimens", "stat"})
        for (const int start : {0, 1, 2, 3})
            refuse(call, start, 1);
    for (const char* call :
         {"open", "open directory", "read", "readlink", "getdents", "lstat", "fstat"})
        for (const int start : {0, 2})  // in between them they look at everything
            refuse(call, start, 3);
}

TEST_F(SmallUnit, WhatCannotBeCopiedIsToldAndLeavesNothing) {
    const std::string copy = site.Path("etc/orix-conf/telephony.mend-undo");
    const struct {
        RefusedCall call;
        const char* told;
    } cases[] = {
        {{"syncfs", EIO}, "(COPY.mend-tmp: Input/output error), upgrade goes on without it"},
        {{"syncfs", EIO, 2}, "(COPY: Input/output error), it is made as LIVE/.mend-undo\n"},
        {{"rename", EROFS, 2}, "(COPY: Read-only file system), it is made as LIVE/.mend-undo\n"},
        {{"fsync", EIO, 1}, "(can't sync: Input/output error), it is made as LIVE/.mend-undo\n"},
        {{"write", ENOSPC}, "(can't write: No space left on device), upgrade is not begun"},
    };
    for (const auto& test : cases) {
        Fill();
        const auto before = Unit();
        WithRefused({test.call}, [&] {
            Start start(site);
            start.copy.Make("5", [](const std::string&) { return true; });
            const std::string told =
                Replaced(Replaced(start.report, copy, "COPY"), site.Live(""), "LIVE/");
            EXPECT_TRUE(told.starts_with("\tcan't make recovery copy COPY ("));
            EXPECT_TRUE(Holds(told, test.told)) << told;
        });
        EXPECT_EQ(Unit(), before);
    }
}

TEST_F(SmallUnit, WhileItStandsNothingElseIsSynced) {
    Fill();
    Start start(site);
    ASSERT_TRUE(start.copy.Make("5", [](const std::string&) { return true; }));
    WithRefused({{"fsync", EIO}}, [&] { Change(); });
    if (IsSkipped())
        return;
    EXPECT_EQ(Get("made") + Get("linked/file"), "newnew");
    WithRefused({{"syncfs", EIO}}, [&] { EXPECT_FALSE(start.copy.SyncTree()); });
}

TEST_F(SmallUnit, ATreeIsTakenBackAtOnceOrByTheNextStart) {
    const std::string copy = site.Path("etc/orix-conf/telephony.mend-undo");
    for (const bool isRefused : {true, false}) {
        Fill();
        const auto before = Unit();
        {
            Start start(site);
            ASSERT_TRUE(start.copy.Make("5", [](const std::string&) { return true; }));
            Change();
            const auto takeBack = [&] {
                start.copy.TakeBack();
                EXPECT_EQ(start.report,
                          isRefused ? "\tupgrade is not finished, next start begins again from " +
                                          copy + "\n"
                                    : "\tout of memory, configuration is put back from " + copy +
                                          ", next start tries again\n");
            };
            if (isRefused)
                WithRefused({{"syncfs", EIO}}, takeBack);
            else
                takeBack();
        }
        EXPECT_EQ(site.Exists(copy), isRefused);
        if (isRefused) {
            WithRefused({{"syncfs", EIO}}, [&] {
                EXPECT_TRUE(
                    Holds(Start(site).report, " (Input/output error), upgrade is not continued\n"));
            });
            EXPECT_TRUE(Start(site).goesOn);
        }
        EXPECT_EQ(Unit(), before);
    }
}

TEST_F(Recovery, AnInterruptedUpgradeBeginsAgain) {
    for (const Site* unit : {&site, &undisturbed})
        MoveBehindLinks(*unit);
    Interrupt();
    EXPECT_NE(site.Read(site.Live("e1t1/trunk0.cfg")),
              undisturbed.Read(undisturbed.Live("e1t1/trunk0.cfg")))
        << "what lies behind a link was converted once";
    site.Write(site.Live("nat.cfg"), "half=1\n");
    site.Write(site.Live("sip.cfg.mend-tmp"), "torn");
    site.Remove(site.Live("22"));
    site.Write(site.Live("22"), "");
    site.Remove(site.Live("rtp.cfg"));
    fs::create_directories(site.Live("rtp.cfg/new"));
    fs::create_symlink("nowhere", site.Live("new"));
    site.Write(site.Live("21/new"), "");
    fs::create_directories(copy + ".mend-tmp/stale");
    log = site.Upgrade();
    EXPECT_TRUE(Holds(
        log, "\tlast upgrade was interrupted, configuration is put back from " + copy + "\n"));
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    ExpectUndisturbed();
}

TEST_F(Recovery, AFinishedUpgradeIsNotUndone) {
    InterruptAt([](Appliance& appliance) {
        static const std::function<void(const Fact&)> dieAtTheStamp = [](const Fact& fact) {
            if (fact.kind == Fact::Kind::Stamped)
                _exit(0);
        };
        appliance.onFact = &dieAtTheStamp;
    });
    log = site.Upgrade();
    EXPECT_TRUE(
        Holds(log, "\tlast upgrade was finished, its recovery copy " + copy + " is removed\n"));
    EXPECT_TRUE(Holds(log, "\tConfigurarion already checked.\n"));
    EXPECT_FALSE(site.Exists(copy));
    ExpectUndisturbed();
}

TEST_F(Recovery, WhatStandsInItsPlaceHasTheCopyMadeInTheTreeOrNotAtAll) {
    const std::pair<std::string, const char*> obstacles[] = {
        {"", "Not a directory"},
        // Somebody's backup: neither put back nor removed.
        {"/linedb", "a directory of that name is not ours"},
    };
    for (const auto& [name, reason] : obstacles) {
        for (const bool isInnerTaken : {false, true}) {
            Site unit;
            const std::string beside = unit.Path("etc/orix-conf/telephony.mend-undo");
            const std::string inner = unit.Live(".mend-undo");
            unit.Write(beside + name, "kept");
            if (isInnerTaken)
                unit.Write(inner + name, "kept");
            log = unit.Upgrade();
            EXPECT_TRUE(Holds(log, "\tcan't make recovery copy " + beside + " (" + reason + "), " +
                                       (isInnerTaken ? "upgrade goes on without it\n"
                                                     : "it is made as " + inner + "\n")));
            EXPECT_TRUE(Holds(log, " is set in linedb\n"));
            EXPECT_EQ(unit.Read(beside + name), "kept");
            EXPECT_EQ(unit.Read(inner + name), isInnerTaken ? "kept" : "(missing)");
        }
    }
}

TEST_F(Recovery, WhatTheDiskRefusedIsTriedOnceMore) {
    UpgradeRefused();
    site.appliance.runShell = [](const std::string& command) {
        files::NoteRefusal(EIO);
        return Site::RunShell(command);
    };
    // Failing for ever must not put the tree back every night.
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "configuration is put back from "));
    EXPECT_TRUE(Holds(log, " is set in linedb\n"));
    ExpectUndisturbed();
}

TEST_F(Recovery, WhatIsNoSettingDoesNotCancelTheSecondTry) {
    MoveBehindLinks(site);
    MoveBehindLinks(undisturbed);
    site.appliance.log = site.Live("mend.log");  // started in the tree, of all places
    site.Write(site.appliance.log, "of an earlier run\n");
    UpgradeRefused();
    const auto run = [](const std::string& command) {
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    };
    run("cp -a " + site.Live("21") + "/. " + site.Path("new") + " && rm -r " +
        site.Path("mnt/data/21") + " && mv " + site.Path("new") + " " + site.Path("mnt/data/21"));
    run("chmod 640 " + site.Live("sip.cfg") + " && touch " + site.Live("nat.cfg") + " " +
        site.Live("isdn/."));
    run("mkfifo " + site.Live("fifo") + " && : >" + site.Live("left.mend-tmp"));
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "configuration is put back from "));
    EXPECT_TRUE(Holds(site.Read(site.appliance.log), "of an earlier run\n"));
    EXPECT_TRUE(Holds(site.Read(site.appliance.log), "upgrade is not finished, "));
    site.Remove(site.appliance.log);
    site.Remove(site.Live("fifo"));
    ExpectUndisturbed();
}

TEST_F(Recovery, SettingsChangedAfterARunThatEndedStay) {
    MoveBehindLinks(site);
    for (const char* file : {"nat.cfg", "21/servicesdb"}) {  // the other one behind a link
        site.Write(site.appliance.factoryLabel,
                   std::string("9.0.") + (file[0] == 'n' ? "1\n" : "2\n"));
        UpgradeRefused();
        site.Write(site.Live(file), "set=by people\n");
        log = site.Upgrade();
        EXPECT_TRUE(Holds(log,
                          "\tconfiguration has changed since last upgrade, which was not "
                          "finished: it stays and is stamped, recovery copy " +
                              copy + " is removed\n"));
        EXPECT_TRUE(Holds(log, "\tConfigurarion already checked.\n"));
        EXPECT_EQ(site.Read(site.Live(file)), "set=by people\n");
        EXPECT_FALSE(site.Exists(copy));
    }
}

TEST_F(Recovery, ACopyThatIsNotWholeIsNotPutBack) {
    Interrupt();
    const auto run = [](const std::string& command) {
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    };
    const auto tree = [this] { return site.Snapshot(); };
    run("cp -a " + copy + " " + site.Path("whole"));
    for (const std::string damage :
         {"/linedb", "/isdn", "/22/huntdb", "/e1t1/trunk0.cfg", "/target.mend-tmp"}) {
        run("rm -r " + copy + "; cp -a " + site.Path("whole") + " " + copy);
        run("rm -r " + copy + damage);
        if (damage == "/e1t1/trunk0.cfg" || damage == "/target.mend-tmp")
            run(": >" + copy + damage);  // as fsck may leave it
        const auto before = tree();
        log = site.Upgrade();
        EXPECT_TRUE(
            Holds(log, "\tlast upgrade was interrupted, can't put back configuration from " + copy +
                           " (it is not whole), upgrade is not continued\n"));
        EXPECT_EQ(tree(), before);
    }
    // Without a change of its size.
    run("rm -r " + copy + "; cp -a " + site.Path("whole") + " " + copy);
    run("sed -i s/a/b/ " + copy + "/linedb");
    EXPECT_TRUE(Holds(site.Upgrade(), " (it is not whole), "));
    run("rm -r " + copy + "; cp -a " + site.Path("whole") + " " + copy);
    // The mark of a release that hashed something else: its size has to do.
    run("sed -i 's/digest //' " + copy + "/target.mend-tmp");
    site.Upgrade();
    ExpectUndisturbed();
}

TEST_F(Recovery, WhatIsWrittenIntoAFileThatIsNotConvertedYetIsKept) {
    // By services that start after a kill; the second run then converts it, and is killed as well.
    const std::string groups = "section\n{\ngroup=New\naddress_list=PBX/11\n}\n";
    for (const Site* unit : {&site, &undisturbed})
        MoveBehindLinks(*unit);
    Interrupt();
    for (const Site* unit : {&site, &undisturbed})
        for (const char* file : {"21/grouplistdb", "22/grouplistdb", "23/grouplistdb"})
            unit->Write(unit->Live(file), groups);
    ASSERT_GT(fs::hard_link_count(site.Live("23/grouplistdb")), 1U);
    Interrupt("/00/");
    ASSERT_NE(site.Read(site.Live("23/grouplistdb")), groups);
    EXPECT_TRUE(Holds(site.Upgrade(), "configuration is put back from "));
    ExpectUndisturbed();
}

TEST_F(Recovery, ACommandThatWritesIntoFilesDoesNotReachTheCopy) {
    for (const Site* unit : {&site, &undisturbed}) {
        MoveBehindLinks(*unit);
        unit->Write(unit->Live("extensiondb"), Replaced(unit->Read(unit->Live("extensiondb")),
                                                        "routing_on=1", "routing_on=0"));
        std::string script = "#!/bin/sh\ncd " + unit->Live("") + "\n";
        for (const char* file : {"21/grouplistdb", "22/grouplistdb", "23/grouplistdb", "nat.cfg"})
            script += std::string("printf 'section\\n{\\n}\\n' >>") + file + "\n";
        unit->Write(unit->appliance.routeTool, script);
        fs::permissions(unit->appliance.routeTool, fs::perms::all);
    }
    Interrupt("/00/");
    ASSERT_TRUE(Holds(Get("22/grouplistdb"), "[|]"));
    Interrupt("/00/");
    EXPECT_TRUE(Holds(site.Upgrade(), "configuration is put back from "));
    ExpectUndisturbed();
}

TEST_F(Recovery, ASplitUnderEqualLabelsIsTriedOnceMore) {
    for (const Site* unit : {&site, &undisturbed})
        unit->SetLiveVersion(FactoryVersion());
    UpgradeRefused();
    EXPECT_TRUE(Holds(log, "\tUp-to-date\n"));
    EXPECT_TRUE(Holds(site.Upgrade(), "configuration is put back from "));
    ExpectUndisturbed();
    // There is no version to stamp where settings have changed since.
    site.Write(site.Live("extensiondb"), "");
    UpgradeRefused();
    site.Write(site.Live("nat.cfg"), "set=by people\n");
    EXPECT_TRUE(Holds(site.Upgrade(), "which was not finished: it stays, recovery copy"));
    EXPECT_FALSE(Holds(Get("linedb"), "current_version"));
}

TEST_F(Recovery, ALineDbThatNobodyCanReadDoesNotEndTheWayBack) {
    UpgradeRefused();
    site.Write(site.Live("nat.cfg"), "set=by people\n");
    site.Write(site.Live("linedb"), "section\n}\n");
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "\tfile linedb is corrupted, it is put back from " + copy + "\n"));
    EXPECT_TRUE(Holds(log, " it stays and is stamped, "));
    EXPECT_TRUE(Holds(log, "\tConfigurarion already checked.\n"));
    EXPECT_EQ(site.Read(site.Live("nat.cfg")), "set=by people\n");
    EXPECT_TRUE(Holds(Get("linedb"), "|line_name=Front office|")) << "not the factory's";
}

TEST_F(Recovery, ADiskThatRefusesTheMarkHasTheTreePutBackOnce) {
    const auto refuse = [](const std::string& command) {
        files::NoteRefusal(EIO);
        return Site::RunShell(command);
    };
    for (const bool isForGood : {false, true}) {
        Site unit;
        const std::string kept = unit.Path("etc/orix-conf/telephony.mend-undo");
        unit.appliance.runShell = refuse;
        WithRefused({{"pwrite", EIO}}, [&] {
            EXPECT_TRUE(Holds(
                unit.Upgrade(),
                " begins again from " + kept + ", settings that are changed until then are lost"));
        });
        if (IsSkipped())
            return;
        if (!isForGood)
            unit.appliance.runShell = Site::RunShell;
        log = unit.Upgrade();
        EXPECT_TRUE(Holds(log, "configuration is put back from "));
        EXPECT_TRUE(Holds(log, " is set in linedb\n"));
        EXPECT_FALSE(unit.Exists(kept));
    }
}

TEST_F(Recovery, ALockThatNeverComesEndsTheStart) {
    const auto before = site.Snapshot();
    WithRefused({{"flock", EWOULDBLOCK}, {"sleep", 0}}, [&] {
        EXPECT_TRUE(Holds(site.Upgrade(), "\tanother program holds " + site.Path("etc/orix-conf") +
                                              " locked, upgrade is not begun\n"));
        EXPECT_EQ(site.Snapshot(), before);
    });
}

TEST_F(Recovery, ASecondStartWaitsForTheFirst) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t first = fork();
    if (first == 0) {
        Appliance appliance = site.appliance;
        appliance.runShell = [&](const std::string& command) {
            if (Holds(command, "dialplan.cfg")) {  // half way through
                [[maybe_unused]] const ssize_t told = write(pipe[1], "", 1);
                usleep(300'000);
            }
            return Site::RunShell(command);
        };
        setenv("ORIX_PATH", appliance.liveConf.c_str(), 1);
        ConfigUpgrader(appliance).Run();
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(pipe[0], &byte, 1), 1);
    log = site.Upgrade();
    waitpid(first, nullptr, 0);
    EXPECT_TRUE(Holds(log, "\tConfigurarion already checked.\n"));
    EXPECT_FALSE(Holds(log, "interrupted"));
    ExpectUndisturbed();
}

TEST_F(Recovery, ARunThatIsShortOfMemoryTakesAllBack) {
    const auto before = site.Snapshot();
    site.appliance.runShell = [](const std::string& command) {
        if (Holds(command, "dialplan.cfg"))
            throw std::bad_alloc();
        return Site::RunShell(command);
    };
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "\tout of memory, configuration is put back from " + copy));
    EXPECT_FALSE(Holds(log, " is set in linedb\n"));
    EXPECT_EQ(site.Snapshot(), before);
}

TEST_F(Recovery, WithoutRoomForACopyNothingIsBegun) {
    const std::string parent = site.Path("etc/orix-conf");
    const std::string disk = site.Path("disk");
    fs::create_directory(disk);
    WithRefused({}, [&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return;  // only root may
        ASSERT_EQ(mount("none", disk.c_str(), "tmpfs", 0, "size=1m"), 0);
        fs::copy(parent, disk, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        ASSERT_EQ(mount(disk.c_str(), parent.c_str(), nullptr, MS_MOVE, nullptr), 0);
        std::ofstream(parent + "/filler") << std::string(1 << 20, 'f');
        const auto before = site.Snapshot();
        log = site.Upgrade();
        EXPECT_TRUE(Holds(log, "No space left on device), upgrade is not begun: at least "));
        EXPECT_TRUE(Holds(log, " bytes and 0 inodes more are needed\n"));
        EXPECT_FALSE(Holds(log, "least 0 bytes"));
        EXPECT_EQ(site.Snapshot(), before);
    });
}

TEST_F(Recovery, AStampThatCannotBeSavedLeavesTheCopy) {
    site.appliance.runShell = [this](const std::string& command) {
        fs::remove(site.Live("linedb"));  // every later save follows a link that leads nowhere
        fs::create_symlink("no-such-directory/linedb", site.Live("linedb"));
        return Site::RunShell(command);
    };
    log = site.Upgrade();
    EXPECT_TRUE(Holds(log, "next start begins again from " + copy));
    site.appliance.runShell = Site::RunShell;
    site.Upgrade();
    ExpectUndisturbed();
}

TEST_F(Recovery, AStampThatTheFactoryBringsIsNoEnd) {
    Configuration::MultiSectionFile factory(site.Factory("04-lines/linedb"));
    factory.GotoSection("general");
    factory.SetSectionEntry("current_version", FactoryVersion());
    factory.Save();
    Interrupt();  // when the merge has taken it over
    ASSERT_TRUE(Holds(Get("linedb"), "|current_version=" + FactoryVersion() + "|"));
    EXPECT_TRUE(Holds(site.Upgrade(), "\tlast upgrade was interrupted, configuration is put back"));
    EXPECT_FALSE(site.Exists(copy));
}

TEST(RecoveryDecision, IsAsTheTableSays) {
    using enum Action;
    const TreeContent was{3, 4096, 7};
    const TreeContent isNow{3, 4096, 8};
    const std::optional<TreeContent> unknown;
    struct Row {
        std::optional<State> state;
        std::optional<TreeContent> held, left;
        const char* stamp;
        std::optional<TreeContent> now;
        Action action;
    };
    const Row rows[] = {
        // No mark: somebody else's.
        {std::nullopt, was, was, "5", was, LeaveAlone},
        // Killed, in a first try and in a second.
        {State::UnderWay, was, unknown, "", isNow, PutBack},
        {State::UnderWay, was, unknown, "5", isNow, PutBack},
        {State::SecondUnderWay, was, unknown, "5", isNow, PutBackAgain},
        // Ended with a refusal: once more, while nobody has changed anything.
        {State::Refused, was, isNow, "", isNow, PutBackAgain},
        {State::Refused, was, was, "", isNow, StampAndRemove},
        {State::Refused, was, unknown, "", isNow, StampAndRemove},
        {State::Refused, was, isNow, "", unknown, GiveUp},
        // The same under the name that the disk would not let it change.
        {State::UnderWay, was, isNow, "", isNow, PutBack},
        {State::UnderWay, was, was, "", isNow, StampAndRemove},
        {State::SecondUnderWay, was, isNow, "", isNow, PutBackAgain},
        {State::Done, was, was, "", isNow, StampAndRemove},
        // Came to the stamp, which is there or is not.
        {State::Done, was, unknown, "5", isNow, Remove},
        {State::Done, was, unknown, "4", isNow, PutBack},
        {State::Done, was, unknown, "", isNow, PutBack},
        {State::Stamped, was, unknown, "", isNow, Remove},
        {State::Stamped, unknown, unknown, "4", isNow, Remove},
        // A mark that was cut short: what puts back looks at the copy itself, and gives up.
        {State::UnderWay, unknown, unknown, "5", isNow, PutBack},
        {State::Refused, unknown, unknown, "", isNow, PutBackAgain},
        {State::Done, unknown, unknown, "5", isNow, PutBack},
    };
    for (const Row& row : rows) {
        std::optional<Mark> mark;
        if (row.state)
            mark = Mark{*row.state, row.held, row.left, "5", {}};
        EXPECT_EQ(Decide(mark, row.stamp, [&] { return row.now; }), row.action)
            << "row " << &row - rows;
    }
    // Of a tree without labels nothing is stamped, and the mark alone tells the end.
    EXPECT_EQ(Decide(Mark{State::Done, was, unknown, "", {}}, "4", [] { return std::nullopt; }),
              Remove);
}

TEST_F(Recovery, AMarkSaysWhatWasWrittenOrSaysLess) {
    const std::string path = site.Path("marked");
    fs::create_directory(path);
    EXPECT_FALSE(ReadMark(path)) << "somebody else's";
    EXPECT_FALSE(MarkLeft(path, std::nullopt));
    const TreeContent held{3, 8192, 0xabcdef0123456789};
    const TreeContent left{4, 0, 1};
    const auto expect = [&](State state, std::optional<TreeContent> expectedHeld,
                            std::optional<TreeContent> expectedLeft, const std::string& version) {
        const auto mark = ReadMark(path);
        ASSERT_TRUE(mark);
        EXPECT_EQ(mark->state, state);
        EXPECT_EQ(mark->held, expectedHeld) << version;
        EXPECT_EQ(mark->left, expectedLeft) << version;
        EXPECT_EQ(mark->version, version);
    };
    const std::string version = "5.1.0\nof two lines";
    EXPECT_EQ(WriteMark(path, {State::UnderWay, held, std::nullopt, version, {}}), "");
    expect(State::UnderWay, held, std::nullopt, version);
    const std::string text = site.Read(path + "/target.mend-tmp");
    // What fsck or a full disk leaves of it.
    const std::size_t lines = text.size() - version.size();
    for (const std::size_t size : {0U, 1U, 11U, 30U, 50U, 100U, 101U, 150U, 201U}) {
        site.Write(path + "/target.mend-tmp", text.substr(0, size));
        expect(State::UnderWay, std::nullopt, std::nullopt, "");
    }
    site.Write(path + "/target.mend-tmp", text.substr(0, lines + 3));
    expect(State::UnderWay, held, std::nullopt, "5.1");
    for (const char* word :
         {"3 entries", "8192 bytes", "entries, ", "bytes, ", "abcdef0123456789"}) {
        site.Write(path + "/target.mend-tmp", Replaced(text, word, "~"));
        expect(State::UnderWay, std::nullopt, std::nullopt, version);
    }
    site.Write(path + "/target.mend-tmp", "\n\n5");
    expect(State::UnderWay, std::nullopt, std::nullopt, "5");
    site.Write(path + "/target.mend-tmp", text);
    EXPECT_TRUE(MarkLeft(path, left));
    expect(State::UnderWay, held, left, version);
    EXPECT_EQ(site.Read(path + "/target.mend-tmp").size(), text.size()) << "without need for room";
    const EntryDigests digests = {0, 7, 0xffffffffffffffff};
    EXPECT_EQ(WriteMark(path, {State::UnderWay, held, left, version, digests}), "");
    expect(State::UnderWay, held, left, version);
    EXPECT_EQ(ReadMark(path)->digests, digests);
    EXPECT_EQ(WriteMark(path, {State::UnderWay, held, left, version, {}}), "");
    for (const State state : {State::SecondUnderWay, State::Refused, State::Done}) {
        EXPECT_TRUE(SetState(path, state));
        expect(state, held, left, version);
    }
    // Of several marks, the furthest counts.
    for (const State state : {State::UnderWay, State::SecondUnderWay, State::Refused}) {
        EXPECT_EQ(WriteMark(path, {state, std::nullopt, std::nullopt, "", {}}), "");
        expect(State::Done, held, left, version);
    }
    EXPECT_TRUE(SetState(path, State::Stamped));
    EXPECT_EQ(ReadMark(path)->state, State::Stamped);
    EXPECT_EQ(std::distance(fs::directory_iterator(path), {}), 1);
    WithRefused({{"fsync", EIO}}, [&] { EXPECT_FALSE(SetState(path, State::Stamped)); });
    WithRefused({{"fsync", EIO}}, [&] { EXPECT_FALSE(MarkLeft(path, left)); });
}

TEST_F(Files, ACopyOfATreeIsMadeOfLinks) {
    Write("tree/top", "t");
    Write("tree/sub/deep", std::string(5000, 'd'));
    Write("out", "o");
    const std::string longest(NAME_MAX - std::strlen(".linked.mend-tmp"), 'n');
    Link("tree/sub/" + longest, "../../out");
    Link("tree/sub/" + longest + "n", "../../out");
    const Room room = RoomForCopy(dir + "tree");
    EXPECT_EQ(room.bytes, 3 * 4096U + 5 * 8U) << "two directories, the mark, and its digests";
    EXPECT_EQ(room.inodes, 5U) << "and two links";
    CopyContent held;
    const auto all = [](const std::string&) { return true; };
    EXPECT_EQ(CopyTree(dir + "tree", dir + "copy", all, NotOfTheTree(dir + "log"), held), "");
    for (const char* name : {"top", "sub/deep"})
        EXPECT_EQ(InfoOf(dir + "copy/" + name).st_ino, InfoOf(dir + "tree/" + name).st_ino);
    EXPECT_EQ(Read("copy/sub/" + longest + ".linked.mend-tmp"), "o");
    EXPECT_EQ(held.total.entries, 7U);
    EXPECT_EQ(held.total.bytes, 4 * 4096U);
    EXPECT_EQ(held.total.hash, 7358624366184669752U) << "marks are read by the next release";
}
