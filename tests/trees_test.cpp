// files/ by itself: what is copied, completed, mirrored, moved and exchanged, by whatever the
// system offers for it.

#include <sys/xattr.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>

#include "files/attributes.h"
#include "files/command_copy.h"
#include "files/copy.h"
#include "files/digest.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/move.h"
#include "files/read.h"
#include "files/replace.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;
using namespace files;

TEST_F(Files, ADigestTellsBytesApartHoweverTheyAreCut) {
    const auto digestOf = [](const Names& pieces) {
        Digest digest;
        for (const std::string& piece : pieces)
            digest.Add(piece);
        return digest.Value();
    };
    EXPECT_EQ(digestOf({"12345678", "abcdefgh", "9"}), digestOf({"12345678abcdefgh9"}));
    std::set<std::uint64_t> values;
    const std::vector<Names> others = {
        {},     {"1"},          {"12"},     {"2"}, {"12345678"},  {"123"}, {"87654321"},
        {"21"}, {"12345678\1"}, {"1", "2"}, {"x"}, {"12345678 "}, {" "},   {std::string(8, '\0')}};
    for (const Names& pieces : others)
        values.insert(digestOf(pieces));
    EXPECT_EQ(values.size(), others.size());
    Digest numbered;
    numbered.Add(std::uint64_t{1});
    EXPECT_NE(numbered.Value(), Digest().Value());
}

TEST_F(Files, ACopyIsLikeItsOriginalAndLeavesNothingWhenItFails) {
    const std::string text(200'000, 'x');
    Write("file", text, 04751);
    Link("link", "nowhere");
    SetTimes(dir + "link", 3);
    if (geteuid() == 0) {
        EXPECT_EQ(lchown((dir + "link").c_str(), 7, 8), 0);
        EXPECT_EQ(chown((dir + "file").c_str(), 7, 8), 0);
        EXPECT_EQ(chmod((dir + "file").c_str(), 04751), 0);
    }
    SetTimes(dir + "file", 5);
    for (const std::string name : {"file", "link"}) {
        EXPECT_EQ(CopyEntry(dir + name, dir + "copy", By::Copying), "");
        const struct stat a = InfoOf(dir + name);
        const struct stat b = InfoOf(dir + "copy");
        EXPECT_TRUE(HaveSameAttributes(a, dir + name, b, dir + "copy")) << name;
        EXPECT_NE(a.st_ino, b.st_ino);
        EXPECT_EQ(HashOf(dir + name, a), HashOf(dir + "copy", b));
        // What has the name is neither written over nor removed.
        EXPECT_EQ(Told([&] { return CopyEntry(dir + name, dir + "copy", By::Copying); }),
                  "copy: File exists");
        EXPECT_TRUE(IsThere(dir + "copy"));
        fs::remove(dir + "copy");
        std::uint64_t hash = 0;
        EXPECT_EQ(GiveEntry(dir + name, a, dir + "copy", By::Linking, hash), "");
        EXPECT_EQ(hash, HashOf(dir + name, a));
        EXPECT_EQ(InfoOf(dir + "copy").st_ino == a.st_ino, name == "file") << "a link is copied";
        fs::remove(dir + "copy");
    }
    for (const int error : {EXDEV, EPERM, EMLINK, EOPNOTSUPP})
        WithRefused({{"link", error}}, [&] {
            EXPECT_EQ(Told([&] { return CopyEntry(dir + "file", dir + "copy", By::Linking); }), "");
            EXPECT_NE(InfoOf(dir + "copy").st_ino, InfoOf(dir + "file").st_ino) << error;
            fs::remove(dir + "copy");
        });
    EXPECT_EQ(Told([&] { return CopyEntry(dir + "none", dir + "copy", By::Copying); }),
              "none: No such file or directory");

    const struct {
        const char* name;
        By by;
        RefusedCall call;
        const char* reason;
    } cases[] = {
        {"file", By::Copying, {"open", EIO}, "file: Input/output error (noted)"},
        {"file", By::Copying, {"create", EROFS}, "copy: Read-only file system (noted)"},
        {"file", By::Copying, {"read", EIO}, "file: Input/output error (noted)"},
        {"file", By::Copying, {"write", ENOSPC}, "copy: No space left on device (noted)"},
        {"file", By::Copying, {"fchmod", EPERM}, "copy: Operation not permitted (noted)"},
        {"file", By::Copying, {"utimens", EPERM}, "copy: Operation not permitted (noted)"},
        {"file", By::Copying, {"listxattr", EIO}, "copy: Input/output error (noted)"},
        {"file", By::Linking, {"link", ENOSPC}, "copy: No space left on device (noted)"},
        {"file", By::Linking, {"read", EIO}, "file: Input/output error (noted)"},
        {"link", By::Copying, {"readlink", EIO}, "link: Input/output error (noted)"},
        {"link", By::Copying, {"symlink", ENOSPC}, "copy: No space left on device (noted)"},
        {"link", By::Copying, {"utimens", EPERM}, "copy: Operation not permitted (noted)"},
    };
    for (const auto& test : cases)
        WithRefused({test.call}, [&] {
            EXPECT_EQ(Told([&] { return CopyEntry(dir + test.name, dir + "copy", test.by); }),
                      test.reason);
            EXPECT_FALSE(fs::exists(fs::symlink_status(dir + "copy"))) << test.call.name;
        });
}

TEST_F(Files, ACopyIsWrittenUnlessItsBlocksAreShared) {
    // Whether a file system shares them is asked once, so each time in a process of its own.
    WithRefused({{"ioctl", EOPNOTSUPP}}, [] {});
    if (IsSkipped())
        return;
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string text(70'000, 'x');
    Write("file", text);
    for (const int error : {EOPNOTSUPP, 0}) {
        const auto copy = [&] {
            WithRefused({{"ioctl", error}}, [&] {
                std::uint64_t hash = 0;
                const struct stat info = InfoOf(dir + "file");
                EXPECT_EQ(GiveEntry(dir + "file", info, dir + "copy", By::Copying, hash), "");
                EXPECT_EQ(Read("copy"), error == 0 ? "" : text);
                EXPECT_EQ(hash, HashOf(dir + "file", info));
            });
            std::exit(HasFailure() ? 1 : 0);
        };
        EXPECT_EXIT(copy(), testing::ExitedWithCode(0), "");
        fs::remove(dir + "copy");
    }
}

TEST_F(Files, WhatIsTheSameIsNotReplaced) {
    std::uint64_t hash = 1;
    const auto replace = [&](const std::string& from, const std::string& to) {
        return Told([&] {
            return ReplaceEntry(dir + from, InfoOf(dir + from), dir + to, By::Copying, hash);
        });
    };
    const std::string text(70'000, 'x');
    Write("a", text + "1");
    Link("link", "a");
    for (const char* from : {"a", "link"}) {
        SetTimes(dir + from, 5);
        EXPECT_EQ(replace(from, "b"), "");
        EXPECT_EQ(hash, HashOf(dir + from, InfoOf(dir + from)));
        const ino_t was = InfoOf(dir + "b").st_ino;
        EXPECT_EQ(replace(from, "b"), "");
        EXPECT_EQ(hash, 0U);
        EXPECT_EQ(InfoOf(dir + "b").st_ino, was);
        EXPECT_EQ(replace(from, from), "") << "itself";
        for (const char* change : {"text", "mode", "time", "link", "directory", "fifo"}) {
            fs::remove_all(dir + "b");
            const std::string what = change;
            if (what == "link")
                Link("b", "b");
            else if (what == "directory")
                Write("b/below/file", "");
            else if (what == "fifo")
                Fifo("b");
            else
                Write("b", text + (what == "text" ? "2" : "1"), what == "mode" ? 0600 : 0644);
            SetTimes(dir + "b", what == "time" ? 6 : 5);
            EXPECT_EQ(replace(from, "b"), "");
            EXPECT_TRUE(
                HaveSameAttributes(InfoOf(dir + from), dir + from, InfoOf(dir + "b"), dir + "b"))
                << from << " over " << change;
            EXPECT_EQ(Read("b"), text + "1") << from << " over " << change;
        }
    }
    const std::string longest(NAME_MAX, 'n');
    for (const std::string& name : {longest, longest.substr(9), longest.substr(8)}) {
        Write(name, "old");
        EXPECT_EQ(replace("a", name), "") << "whether there is room for a suffix or not";
        EXPECT_EQ(Read(name), text + "1");
    }
    Write("b", "old");
    for (const Refusal& test :
         {Refusal{{"rename", EROFS}, "b: Read-only file system (noted)"},
          Refusal{{"write", ENOSPC}, "b.mend-tmp: No space left on device (noted)"}})
        WithRefused({test.call}, [&] {
            EXPECT_EQ(replace("a", "b"), test.reason);
            EXPECT_FALSE(IsThere(dir + "b.mend-tmp"));
        });
    EXPECT_EQ(Read("b"), "old");

    EXPECT_TRUE(HaveSameBytes(dir + "a", dir + "link"));
    Write("c", text + "2");
    Write("d", text);
    EXPECT_FALSE(HaveSameBytes(dir + "a", dir + "c"));
    EXPECT_FALSE(HaveSameBytes(dir + "a", dir + "d"));
    EXPECT_FALSE(HaveSameBytes(dir + "none", dir + "none")) << "which cannot be read";
    EXPECT_NE(HashOf(dir + "a", InfoOf(dir + "a")), HashOf(dir + "c", InfoOf(dir + "c")));
    EXPECT_FALSE(HashOf(dir + "none", InfoOf(dir + "a")));
}

TEST_F(Files, AccessListsAndAttributesGoAlong) {
    Write("file", "old", 0660);
    // Of the owner, one user, the group, the mask and all others: the group itself may only read.
    const char list[] =
        "\2\0\0\0"
        "\1\0\6\0\377\377\377\377"
        "\2\0\6\0\7\0\0\0"
        "\4\0\4\0\377\377\377\377"
        "\20\0\6\0\377\377\377\377"
        "\40\0\0\0\377\377\377\377";
    const std::string path = dir + "file";
    const auto get = [&](const std::string& of, const char* name) {
        char value[100];
        const ssize_t size = lgetxattr(of.c_str(), name, value, sizeof value);
        return size < 0 ? "(none)" : std::string(value, static_cast<std::size_t>(size));
    };
    if (setxattr(path.c_str(), "system.posix_acl_access", list, sizeof list - 1, 0) != 0)
        GTEST_SKIP() << "no access lists here";
    const bool hasUser = setxattr(path.c_str(), "user.note", "x", 1, 0) == 0;
    const std::string wanted(list, sizeof list - 1);
    EXPECT_EQ(ReplaceFile(path, "new"), "");
    EXPECT_EQ(CopyEntry(path, dir + "copy", By::Copying), "");
    EXPECT_EQ(ReplaceFile(dir + "made", "new", std::nullopt, {path}), "");
    for (const char* name : {"file", "copy", "made"}) {
        EXPECT_EQ(get(dir + name, "system.posix_acl_access"), wanted) << name;
        const bool isOld = name != std::string("made");  // a note is of one file
        EXPECT_EQ(get(dir + name, "user.note"), hasUser && isOld ? "x" : "(none)") << name;
    }
    SetTimes(path, 5);
    SetTimes(dir + "copy", 5);
    const auto areSame = [&] {
        return HaveSameAttributes(InfoOf(path), path, InfoOf(dir + "copy"), dir + "copy");
    };
    EXPECT_TRUE(areSame());
    EXPECT_EQ(removexattr((dir + "copy").c_str(), "system.posix_acl_access"), 0);
    chmod((dir + "copy").c_str(), 0660);
    EXPECT_FALSE(areSame());
    // What signs a file's bytes is not another's; any other attribute of the system's is.
    for (const char* name : {"security.ima", "security.evm", "security.note"})
        if (setxattr(path.c_str(), name, "x", 1, 0) == 0) {
            EXPECT_EQ(CopyEntry(path, dir + "signed", By::Copying), "");
            EXPECT_EQ(get(dir + "signed", name),
                      name == std::string("security.note") ? "x" : "(none)");
            fs::remove(dir + "signed");
            removexattr(path.c_str(), name);
        }
    // An empty one counts, and one that the other file has got already is changed.
    Write("other", "");
    const auto set = [&](const char* of, const char* name, const char* value) {
        return setxattr((dir + of).c_str(), name, value, std::strlen(value), 0) == 0;
    };
    if (set("file", "security.empty", "") && set("file", "security.note", "x") &&
        set("other", "security.note", "y")) {
        EXPECT_EQ(KeepExtended(OpenForReading(dir + "other").Get(), path), "");
        EXPECT_EQ(get(dir + "other", "security.note"), "x");
        EXPECT_EQ(get(dir + "other", "security.empty"), "");
        for (const char* name : {"security.note", "security.empty"})
            removexattr(path.c_str(), name);
    }
    Write("noted", "old");
    if (setxattr((dir + "noted").c_str(), "user.note", "x", 1, 0) == 0)
        for (const int error : {ENOSPC, EPERM, EACCES, EOPNOTSUPP})
            WithRefused({{"setxattr", error}}, [&] {
                EXPECT_EQ(Told([&] { return ReplaceFile(dir + "noted", "new"); }),
                          error != ENOSPC
                              ? ""
                              : "can't keep the attributes: No space left on device (noted)");
            });
    // A file system without lists: the group gets no more than its own rights.
    WithRefused({{"setxattr", EOPNOTSUPP}}, [&] {
        EXPECT_EQ(ReplaceFile(dir + "plain", "new", std::nullopt, {path}), "");
        EXPECT_EQ(ModeOf(dir + "plain"), 0640U);
    });
    WithRefused({{"setxattr", ENOSPC}}, [&] {
        EXPECT_EQ(Told([&] { return ReplaceFile(path, "never"); }),
                  "can't keep the mode: No space left on device (noted)");
    });
    // A directory's default list is nobody's wish for a copy.
    EXPECT_EQ(setxattr(dir.c_str(), "system.posix_acl_default", list, sizeof list - 1, 0), 0);
    Write("bare", "");
    removexattr((dir + "bare").c_str(), "system.posix_acl_access");
    chmod((dir + "bare").c_str(), 0640);
    EXPECT_EQ(CopyEntry(dir + "bare", dir + "bare-copy", By::Copying), "");
    EXPECT_EQ(get(dir + "bare-copy", "system.posix_acl_access"), "(none)");
    EXPECT_EQ(ModeOf(dir + "bare-copy"), 0640U);
}

TEST_F(Files, WhatACommandCopiedIsCompletedAndItsOriginalIsNotTouched) {
    Write("from/cut", std::string(100'000, 'c'), 0640);
    Write("from/damaged", "right", 0604);
    Write("from/closed", "closed", 0664);
    Write("from/missing/deep/file", "deep");
    Write("from/whole", "whole");
    Write("from/linked", "whole");
    Link("from/link", "../elsewhere");
    Fifo("from/fifo");
    chmod((dir + "from").c_str(), 0775);
    for (const char* name : {"cut", "damaged", "closed", "missing", "whole", "link", "fifo", ""})
        SetTimes(dir + "from/" + name, 5);
    const Names original = Tree(dir + "from");
    // What a cp -r that was killed, or ended on a full disk, may leave.
    const auto copyHalf = [&](const std::string& to) {
        const std::string name = to.substr(dir.size());
        Write(name + "/cut", std::string(4096, 'c'), 0600);
        Write(name + "/damaged", "wrong", 0604);
        Write(name + "/closed", "closed", 0600);
        Write(name + "/whole", "whole");
        Link(name + "/linked", "./whole");
        for (const char* whole : {"/damaged", "/whole"})
            SetTimes(to + whole, 5);
        chmod(to.c_str(), 0700);
        return 256;
    };
    const auto copied = [&] {
        return Told([&] {
            const CommandCopy copy = CopyBeside(copyHalf, dir + "from", dir + "to");
            EXPECT_EQ(copy.result, 256);
            return copy.error;
        });
    };
    Write("to.mend-tmp/stale", "of a killed run");
    EXPECT_EQ(copied(), "");
    EXPECT_EQ(Tree(dir + "from"), original);
    Names expected = original;
    std::erase_if(expected, [](const std::string& line) {
        return Holds(line, "/fifo ") || Holds(line, "/linked ");
    });
    EXPECT_EQ(LinkTarget(dir + "to/linked"), "./whole") << "is as the command meant it";
    fs::remove(dir + "to/linked");
    EXPECT_EQ(Tree(dir + "to"), expected);
    EXPECT_EQ(ModeOf(dir + "to"), 0775U);
    EXPECT_FALSE(IsThere(dir + "to.mend-tmp"));

    fs::remove_all(dir + "to");
    const Refusal refusals[] = {
        {{"write", ENOSPC}, ": No space left on device (noted)"},
        {{"mkdir", ENOSPC}, "to.mend-tmp/missing: No space left on device (noted)"},
        {{"getdents", EIO},
         "from: Input/output error [Can't read: from: Input/output error] (noted)"},
        {{"syncfs", EIO}, "can't sync: Input/output error (noted)"},
        {{"rename", EROFS}, ": Read-only file system (noted)"},
    };
    for (const Refusal& test : refusals) {
        copyHalf(dir + "half");
        WithRefused({test.call}, [&] {
            const auto move = [&](const std::string& to) {
                return renameat2(AT_FDCWD, (dir + "half").c_str(), AT_FDCWD, to.c_str(),
                                 RENAME_NOREPLACE);
            };
            const auto copy = [&] { return CopyBeside(move, dir + "from", dir + "to").error; };
            const std::string told = Told(copy);
            EXPECT_TRUE(told.ends_with(test.reason)) << told;
        });
        EXPECT_FALSE(IsThere(dir + "to")) << test.call.name;
        EXPECT_EQ(Tree(dir + "from"), original);
        fs::remove_all(dir + "half");
        fs::remove_all(dir + "to.mend-tmp");
    }
}

TEST_F(Files, ACommandThatMakesNothingIsTheDisksFaultOnlyWhenItCouldHave) {
    Write("from", "text");
    fs::create_directory(dir + "sub");
    Names called;
    const auto nothing = [&](const std::string& to) {
        called.push_back(Replaced(to, dir, ""));
        return 256;
    };
    const auto copied = [&](const std::string& from, const std::string& to) {
        return Told([&] { return CopyBeside(nothing, dir + from, dir + to).error; });
    };
    EXPECT_EQ(copied("from", "to"), "cp failed (noted)");
    EXPECT_EQ(copied("none", "to"), "") << "nothing to copy";
    EXPECT_EQ(copied("from", "none/to"), "") << "nowhere to put it";
    Link("to-to", "sub/to");
    Write("sub/to", "old");
    Link("nowhere", "none");
    EXPECT_EQ(copied("from", "to-to"), "cp failed (noted)");
    EXPECT_EQ(copied("from", "nowhere"), "") << "the command's own to refuse";
    EXPECT_EQ(called, (Names{"to.mend-tmp", "to.mend-tmp", "none/to.mend-tmp", "sub/to.mend-tmp",
                             "nowhere"}));
    EXPECT_EQ(Read("sub/to"), "old");
    for (const char* look : {"readlink", "stat", "lstat"})
        WithRefused({{look, EIO}}, [&] {
            called.clear();
            EXPECT_TRUE(Holds(copied("from", "to-to"), "to-to: Input/output error")) << look;
            EXPECT_EQ(called, Names{}) << "it would write into the file itself";
        });
    const auto whole = [&](const std::string& to) {
        site.Write(to, "text");
        return 0;
    };
    const auto copyWhole = [&] { return CopyBeside(whole, dir + "from", dir + "to-to").error; };
    WithRefused({{"rename", EROFS}}, [&] {
        EXPECT_EQ(Told(copyWhole), "can't rename the new file: Read-only file system (noted)");
    });
    EXPECT_EQ(Read("sub/to"), "old");
    EXPECT_FALSE(IsThere(dir + "sub/to.mend-tmp"));
    EXPECT_EQ(Told(copyWhole), "");
    EXPECT_EQ(Read("sub/to"), "text") << "behind the link, which stays";
    EXPECT_TRUE(IsLink(dir + "to-to"));
}

TEST_F(Files, AMirrorHasModesOwnersTimesAndLinks) {
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

TEST_F(Files, AMirrorGoesOnWhereItEndedAndLeavesAloneWhatItIsTold) {
    Write("from/a", "a");
    Write("from/sub/b", "b");
    Write("from/sub/left", "left");
    Write("from/torn.mend-tmp", "torn");
    Fifo("from/fifo");
    Link("from/link", "a");
    const auto fill = [&] {
        fs::remove_all(dir + "to");
        Write("to/surplus/deep", "");
        Write("to/sub/left-too", "kept");
        Write("to/sub/b/was", "a directory");
        Write("to/link", "was a file");
        Fifo("to/own");
    };
    std::map<std::string, std::uint64_t> visited;
    MirrorOptions options;
    options.isLeftAlone = [](const std::string& name, const struct stat&) {
        return name.starts_with("/sub/left");
    };
    options.visit = [&](const std::string& name, const struct stat&, std::uint64_t hash) {
        visited[name] = hash;
    };
    const auto mirror = [&](const std::string& to) {
        visited.clear();
        return Told([&] { return MirrorTree(dir + "from", dir + to, By::Copying, options); });
    };
    const std::uint64_t a = *HashOf(dir + "from/a", InfoOf(dir + "from/a"));
    const std::uint64_t b = *HashOf(dir + "from/sub/b", InfoOf(dir + "from/sub/b"));
    const std::uint64_t link = *HashOf(dir + "from/link", InfoOf(dir + "from/link"));
    const std::map<std::string, std::uint64_t> all = {
        {"", 0}, {"/a", a}, {"/link", link}, {"/sub", 0}, {"/sub/b", b}};
    const Refusal refusals[] = {
        {{"getdents", EIO}, "from: Input/output error (noted)"},
        {{"lstat", EIO}, ": Input/output error (noted)"},
        {{"create", ENOSPC}, ": No space left on device (noted)"},
        {{"rmdir", EROFS}, "to/surplus: Read-only file system (noted)"},
    };
    for (const Refusal& test : refusals) {
        fill();
        WithRefused({test.call}, [&] {
            const std::string told = mirror("to");
            EXPECT_TRUE(told.ends_with(test.reason)) << told;
        });
        EXPECT_TRUE(IsThere(dir + "to/own")) << test.call.name;
        EXPECT_TRUE(IsThere(dir + "to/sub/left-too")) << test.call.name;
    }
    fill();
    EXPECT_EQ(mirror("to"), "");
    EXPECT_EQ(visited, all);
    EXPECT_EQ(Read("to/a") + Read("to/sub/b") + Read("to/sub/left-too"), "abkept");
    for (const char* name : {"to/surplus", "to/sub/left", "to/torn.mend-tmp", "to/fifo"})
        EXPECT_FALSE(IsThere(dir + name)) << name;
    EXPECT_TRUE(IsThere(dir + "to/own"));
    EXPECT_EQ(LinkTarget(dir + "to/link"), "a");
    EXPECT_EQ(mirror("to"), "");
    EXPECT_EQ(visited["/a"], 0U) << "is the same";
    EXPECT_EQ(mirror("new"), "");
    EXPECT_EQ(visited, all);
    Write("file", "");
    EXPECT_EQ(mirror("file"), "") << "a directory takes a file's place";
    EXPECT_EQ(visited, all);
    EXPECT_EQ(mirror("none/new"), "none/new: No such file or directory");
    EXPECT_EQ(Told([&] { return MirrorTree(dir + "none", dir + "to", By::Copying); }),
              "none: No such file or directory");
    EXPECT_EQ(Read("to/a"), "a");
}

TEST_F(Files, AMoveIsWholeOnEitherFileSystem) {
    const std::string other = Elsewhere();
    const auto fill = [&] {
        Write("from/file", "text", 0640);
        Link("from/link", "file");
        Write("file", "text", 0604);
        Link("link", "file");
        for (const char* name : {"file", "link", "from/file", "from/link", "from"})
            SetTimes(dir + name, 5);
    };
    for (const std::string& place : {dir + "moved-", other}) {
        if (place.empty())
            continue;
        fill();
        const Names tree = Tree(dir + "from");
        for (const char* name : {"file", "link", "from"}) {
            const struct stat info = InfoOf(dir + name);
            if (std::string(name) != "from")
                site.Write(place + name, "old");
            EXPECT_EQ(MoveEntry(dir + name, place + name), "");
            EXPECT_FALSE(IsThere(dir + name)) << name;
            const struct stat moved = InfoOf(place + name);
            EXPECT_EQ(moved.st_mode, info.st_mode) << name;
            EXPECT_EQ(moved.st_mtim.tv_sec, info.st_mtim.tv_sec) << name;
        }
        EXPECT_EQ(site.Read(place + "file"), "text");
        EXPECT_EQ(LinkTarget(place + "link"), "file");
        EXPECT_EQ(Tree(place + "from"), tree);
    }
    EXPECT_EQ(Told([&] { return MoveEntry(dir + "none", dir + "x"); }),
              "none: No such file or directory");
    if (other.empty())
        GTEST_SKIP() << "there is one file system only";
    fs::remove_all(other + "from");
    fill();
    Fifo("fifo");
    fs::remove(other + "link");
    site.Write(other + "link/in", "the way");
    const struct {
        const char* name;
        RefusedCall call;
        const char* reason;
    } cases[] = {
        {"file", {"create", ENOSPC}, "OTHER/file.mend-tmp: No space left on device (noted)"},
        {"from", {"mkdir", ENOSPC}, "OTHER/from.mend-tmp: No space left on device (noted)"},
        {"from", {"write", ENOSPC}, "OTHER/from.mend-tmp/file: No space left on device (noted)"},
        {"fifo", {"lchown", 0}, "fifo: Invalid cross-device link (noted)"},
        {"link", {"lchown", 0}, "OTHER/link: Is a directory"},
    };
    const Names before = Tree(dir);
    for (const auto& test : cases) {
        WithRefused({test.call}, [&] {
            const auto move = [&] { return MoveEntry(dir + test.name, other + test.name); };
            EXPECT_EQ(Replaced(Told(move), other, "OTHER/"), test.reason);
        });
        EXPECT_FALSE(IsThere(other + test.name + ".mend-tmp"));
        EXPECT_EQ(Tree(dir), before);
    }
    WithRefused({{"unlink", EROFS}}, [&] {
        EXPECT_EQ(Told([&] { return MoveEntry(dir + "file", other + "file"); }),
                  "file: Read-only file system (noted)")
            << "it stands in both places";
    });
}

TEST_F(Files, DirectoriesChangePlacesByWhateverTheSystemOffers) {
    const struct {
        std::vector<RefusedCall> calls;
        const char* reason;
        const char* first;  // what stands where the old one was
        bool isExchanged;
    } cases[] = {
        {{{"ioctl", ENOTTY}}, "", "fresh", true},
        {{{"exchange", EINVAL}}, "", "fresh", true},
        {{{"exchange", EBUSY}}, "", "fresh", false},  // something is mounted on it
        {{{"exchange", ENOSYS}, {"rename", EROFS}},
         "old: Read-only file system (noted)",
         "old",
         false},
        {{{"exchange", EBUSY}, {"create", ENOSPC}},
         "old/file.mend-tmp: No space left on device (noted)",
         "old",
         false},
        {{{"open directory", EIO}},
         "old: Input/output error [Can't read: old: Input/output error] (noted)",
         "old",
         false},
    };
    for (const auto& test : cases) {
        for (const char* name : {"fresh", "old"}) {
            fs::remove_all(dir + name);
            Write(name + std::string("/file"), name);
        }
        Fifo("old/fifo");
        const ino_t old = InfoOf(dir + "old").st_ino;
        WithRefused(test.calls, [&] {
            EXPECT_EQ(Told([&] { return SwapDirectories(dir + "fresh", dir + "old"); }),
                      test.reason);
        });
        if (IsSkipped())
            return;
        EXPECT_EQ(Read("old/file"), test.first);
        EXPECT_TRUE(IsThere(dir + "old/fifo")) << "goes with the name";
        EXPECT_EQ(InfoOf(dir + "fresh").st_ino == old, test.isExchanged);
        EXPECT_FALSE(IsThere(dir + "old.old.mend-tmp"));
    }
    EXPECT_EQ(Told([&] { return SwapDirectories(dir + "fresh", dir + "none"); }),
              "none: No such file or directory");
    for (const char* call : {"ioctl", "exchange"})
        WithRefused({{call, EINVAL}}, [&] {
            EXPECT_EQ(Told([&] { return SwapDirectories(dir + "none", dir + "old"); }),
                      "old: No such file or directory");
            EXPECT_TRUE(IsThere(dir + "old/fifo")) << "as it was";
        });
}
