// files/ by itself: what is looked at, read, saved and removed, what becomes of it when the system
// refuses a call, and which refusals are noted.

#include "tests/support/files.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "files/look.h"
#include "files/read.h"
#include "files/remove.h"
#include "files/replace.h"
#include "files/sync.h"

namespace fs = std::filesystem;
using namespace files;

TEST_F(Files, LookingFollowsLinksWhereItSays) {
    Write("dir/file", "");
    Fifo("dir/fifo");
    Link("dir/to-dir", "../dir");
    Link("dir/nowhere", "none");
    Link("dir/loop", "loop");
    const RefusalWatch watch;
    const struct {
        const char* name;
        Kind kind;
        bool isThere, isOwnDirectory, isLink;
    } cases[] = {
        {"dir", Kind::Directory, true, true, false},
        {"dir/file", Kind::Other, true, false, false},
        {"dir/fifo", Kind::Other, true, false, false},
        {"dir/to-dir", Kind::Directory, true, false, true},
        {"dir/nowhere", Kind::Missing, true, false, true},
        {"dir/loop", Kind::Missing, true, false, true},
        {"dir/none", Kind::Missing, false, false, false},
        {"dir/file/below", Kind::Missing, false, false, false},
    };
    for (const auto& test : cases) {
        const std::string path = dir + test.name;
        EXPECT_EQ(KindOf(path), test.kind) << path;
        EXPECT_EQ(IsThere(path), test.isThere) << path;
        EXPECT_EQ(IsOwnDirectory(path), test.isOwnDirectory) << path;
        EXPECT_EQ(IsLink(path), test.isLink) << path;
        EXPECT_EQ(LinkTarget(path).has_value(), test.isLink) << path;
    }
    EXPECT_EQ(LinkTarget(dir + "dir/to-dir"), "../dir");
    EXPECT_EQ(RealPath(dir + "dir/to-dir/./to-dir/.."), fs::canonical(dir));
    EXPECT_EQ(RealPath(dir + "none"), "");

    using Type = DirectoryEntry::Type;
    const auto listing = ListDirectory(dir + "dir/to-dir");
    ASSERT_TRUE(listing);
    EXPECT_EQ(listing->id, ListDirectory(dir + "dir")->id);
    EXPECT_NE(listing->id, ListDirectory(dir)->id);
    std::map<std::string, Type> types;
    for (const DirectoryEntry& entry : listing->entries)
        types[entry.name] = entry.type;
    EXPECT_EQ(types, (std::map<std::string, Type>{{"file", Type::File},
                                                  {"fifo", Type::Special},
                                                  {"loop", Type::Link},
                                                  {"nowhere", Type::Link},
                                                  {"to-dir", Type::Link}}));
    for (const std::string& path : {dir + "dir", dir + "dir/"}) {
        EXPECT_EQ(KindOf(path, {"to-dir", Type::Link}), Kind::Directory);
        EXPECT_EQ(KindOf(path, {"file", Type::Unknown}), Kind::Other);
        EXPECT_EQ(KindOf(path, {"nowhere", Type::Link}), Kind::Missing);
        EXPECT_EQ(KindOf(path, {"none", Type::File}), Kind::Other) << "is not asked for";
        EXPECT_EQ(KindOf(path, {"none", Type::Directory}), Kind::Directory);
    }
    EXPECT_FALSE(ListDirectory(dir + "none"));
    EXPECT_FALSE(watch.HasSeenOne()) << "what stands under a name is no refusal";

    for (const char* name : {"21", "a b", "...", ".mend-undo.x", "mend-tmp"})
        EXPECT_TRUE(IsDirectoryName(name)) << name;
    for (const char* name : {"", ".", "..", "/", "a/b", "21.mend-tmp", ".mend-undo", "x.mend-undo"})
        EXPECT_FALSE(IsDirectoryName(name)) << name;
    EXPECT_FALSE(IsDirectoryName(std::string("a\0b", 3)));
}

TEST_F(Files, WhatTheDiskDoesNotTellIsNotedAndKeptForTheLog) {
    Write("file", "text");
    Link("link", "file");
    const std::string noted = " [Can't read: file: Input/output error] (noted)";
    const std::string path = dir + "file";
    WithRefused({{"stat", EIO}, {"lstat", EIO}}, [&] {
        EXPECT_EQ(Told([&] { return KindOf(path) == Kind::Missing ? "missing" : ""; }),
                  "missing" + noted);
        for (const auto look : {IsThere, IsOwnDirectory, IsLink})
            EXPECT_EQ(Told([&] { return look(path) ? "true" : "false"; }), "false" + noted);
    });
    WithRefused({{"readlink", EIO}, {"lstat", EIO}}, [&] {
        EXPECT_EQ(Told([&] { return RealPath(path); }), noted);
        EXPECT_EQ(Told([&] { return BehindLinks(path) + std::strerror(errno); }),
                  "Input/output error (noted)");
    });
    const auto readIt = [&] {
        const ReadResult result = ReadFile(path);
        EXPECT_FALSE(result.bytes || result.missing);
        return result.error;
    };
    const auto readStart = [&] { return ReadStart(path, 9).value_or("nothing"); };
    WithRefused({{"read", EIO}}, [&] {
        EXPECT_EQ(Told(readIt), "Input/output error" + noted);
        EXPECT_EQ(Told(readStart), noted);
    });
    WithRefused({{"fstat", EIO}}, [&] {
        EXPECT_EQ(Told(readIt), "Input/output error" + noted);
        EXPECT_EQ(Told(readStart), noted);
    });
    WithRefused({{"open", EIO}}, [&] {
        EXPECT_EQ(Told(readIt), "Input/output error" + noted);
        EXPECT_EQ(Told(readStart), "nothing" + noted);
    });
    for (const char* call : {"open", "fstat", "read"})
        WithRefused({{call, ENOMEM}}, [&] { EXPECT_THROW(ReadFile(path), std::bad_alloc); });
    // Names that were not read must not pass for absent.
    for (const char* call : {"getdents", "open directory"})
        WithRefused({{call, EIO}}, [&] {
            EXPECT_EQ(Told([&] { return ListDirectory(dir) ? "listed" : ""; }),
                      " [Can't read: : Input/output error] (noted)");
        });
}

TEST_F(Files, ReadingGivesTheWholeFileOrTheReason) {
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 70000U}) {
        const std::string text = std::string(size, 'x') + (size > 0 ? "y" : "");
        Write("file", text);
        EXPECT_EQ(ReadFile(dir + "file").bytes, text);
        EXPECT_EQ(ReadStart(dir + "file", 4096), text.substr(0, 4096));
    }
    // The kernel's say that they are empty, and the long ones take more than one read.
    for (const char* path : {"/proc/version", "/proc/mounts", "/proc/crypto"}) {
        const std::string text = site.Read(path);
        EXPECT_EQ(ReadFile(path).bytes.value_or("(missing)"), text);
    }
    Link("link", "file");
    Link("nowhere", "none");
    Fifo("fifo");
    const RefusalWatch watch;
    const struct {
        const char* name;
        bool missing;
        const char* error;
        const char* standing;
    } cases[] = {
        {"none", true, "No such file or directory", "nothing"},
        {"nowhere", true, "No such file or directory", "unknown"},
        {"link", false, "", "unknown"},
        {"file", false, "", "something"},
        {"fifo", false, "is not a regular file", "something"},
        {".", false, "is a directory", "something"},
        {"file/below", false, "Not a directory", "unknown"},
    };
    for (const auto& test : cases) {
        const ReadResult result = ReadFile(dir + test.name);
        EXPECT_EQ(result.bytes.has_value(), test.error[0] == '\0') << test.name;
        EXPECT_EQ(result.missing, test.missing) << test.name;
        EXPECT_EQ(result.error, test.error) << test.name;
        EXPECT_STREQ(!result.standing          ? "unknown"
                     : result.standing->exists ? "something"
                                               : "nothing",
                     test.standing)
            << test.name;
    }
    EXPECT_EQ(ReadFile(dir + "file").standing->info.st_ino, InfoOf(dir + "file").st_ino);
    EXPECT_EQ(ReadStart(dir + "none", 1), std::nullopt);
    EXPECT_EQ(ReadStart(dir + "fifo", 1), "");
    EXPECT_FALSE(watch.HasSeenOne());
}

TEST_F(Files, RefusalsAreWhatIsNotOfTheName) {
    for (const int error : {0, ENOENT, EEXIST, ENOTDIR, EISDIR, ELOOP, ENAMETOOLONG, ENXIO, EIO,
                            EACCES, EROFS, EPERM, ENOSPC, EDQUOT, ENOMEM, EMFILE, ENFILE}) {
        const RefusalWatch watch;
        NoteRefusal(error, "what");
        const bool isShortage = error == ENOSPC || error == EDQUOT || error == ENOMEM ||
                                error == EMFILE || error == ENFILE;
        const bool isNoted =
            isShortage || error == EIO || error == EACCES || error == EROFS || error == EPERM;
        EXPECT_EQ(watch.HasSeenOne(), isNoted) << error;
        EXPECT_EQ(watch.HasSeenShortage(), isShortage) << error;
        EXPECT_EQ(TakeRefusalTexts(),
                  isNoted ? Names{"what: " + std::string(std::strerror(error))} : Names{});
    }
    RefusalWatch watch;
    {
        const RefusalsForgiven forgiven;
        NoteRefusal(EIO);
    }
    EXPECT_FALSE(watch.HasSeenOne());
    errno = EIO;
    EXPECT_EQ(NotedReason("what"), "what: Input/output error");
    EXPECT_TRUE(watch.HasSeenOne());
    watch.StartAnew();
    EXPECT_FALSE(watch.HasSeenOne());
    for (int i = 0; i < 25; ++i)
        NoteRefusal(EIO, std::to_string(i));
    const Names texts = TakeRefusalTexts();
    ASSERT_EQ(texts.size(), 20U) << "of many, the first";
    EXPECT_EQ(texts.front() + texts.back(), "0: Input/output error19: Input/output error");
    EXPECT_EQ(TakeRefusalTexts(), Names{});
}

TEST_F(Files, ASaveThatIsRefusedLeavesTheOldFileAndTellsWhy) {
    const std::string old = std::string(100, 'o');
    Write("file", old, 0640);
    const auto save = [&] { return ReplaceFile(dir + "file", "new"); };
    const struct {
        const char* call;
        int error;
        const char* reason;
        int nth = 0;
    } cases[] = {
        {"lstat", EIO, "can't read the old file: Input/output error (noted)"},
        {"open directory", EACCES, "can't open the directory: Permission denied (noted)"},
        {"listxattr", EIO, "can't read the attributes: Input/output error (noted)"},
        {"listxattr", EIO, "can't read the attributes: Input/output error (noted)", 2},
        {"flistxattr", EIO, "can't read the attributes: Input/output error (noted)"},
        {"create", EROFS, "can't create the new file: Read-only file system (noted)"},
        {"create", EISDIR, "can't create the new file: Is a directory"},
        {"fchmod", EPERM, "can't keep the mode: Operation not permitted (noted)"},
        {"write", ENOSPC, "can't write: No space left on device (noted)"},
        {"fsync", EIO, "can't sync: Input/output error (noted)"},
        {"rename", EROFS, "can't rename the new file: Read-only file system (noted)"},
    };
    for (const auto& test : cases) {
        WithRefused({{test.call, test.error, test.nth}},
                    [&] { EXPECT_EQ(Told(save), test.reason); });
        EXPECT_EQ(Read("file"), old) << test.call;
        EXPECT_EQ(ModeOf(dir + "file"), 0640U);
        EXPECT_FALSE(site.Exists(dir + "file.mend-tmp")) << test.call;
    }
    if (geteuid() == 0) {
        EXPECT_EQ(chown((dir + "file").c_str(), 7, 8), 0);
        WithRefused({{"fchown", EPERM}}, [&] {
            EXPECT_EQ(Told(save), "can't keep the owner: Operation not permitted (noted)");
        });
        EXPECT_EQ(save(), "");
        EXPECT_EQ(InfoOf(dir + "file").st_uid * 100 + InfoOf(dir + "file").st_gid, 708U);
    }
    WithRefused({{"readlink", EIO}}, [&] {
        Link("link", "file");
        EXPECT_EQ(Told([&] { return ReplaceFile(dir + "link", "new"); }),
                  "can't follow the link: Input/output error (noted)");
    });
    Link("loop", "loop");
    EXPECT_EQ(Told([&] { return ReplaceFile(dir + "loop", "new"); }),
              "can't follow the link: Too many levels of symbolic links");
    EXPECT_EQ(Told([&] { return ReplaceFile(dir, "new"); }), "the old file is not a regular file");
    // What reading told saves a look, which may be refused.
    const ReadResult read = ReadFile(dir + "file");
    WithRefused({{"lstat", EIO}},
                [&] { EXPECT_EQ(ReplaceFile(dir + "file", "known", read.standing), ""); });
    if (IsSkipped())
        return;
    EXPECT_EQ(Read("file"), "known");
    EXPECT_EQ(ModeOf(dir + "file"), 0640U);
}

TEST_F(Files, ANewFileIsLikeItsModelsAndForNobodyElse) {
    const mode_t mask = umask(022);
    Write("most", "", 0666);
    Write("less", "", 0464);
    const std::pair<Names, mode_t> cases[] = {
        {{}, 0644},
        {{dir + "none"}, 0644},
        {{dir + "most"}, 0666},
        {{dir + "less", dir + "most"}, 0464},
        {{dir + "most", dir + "none", dir + "less"}, 0464},
    };
    for (const auto& [models, mode] : cases) {
        EXPECT_EQ(ReplaceFile(dir + "new", "text", std::nullopt, models), "");
        EXPECT_EQ(ModeOf(dir + "new"), mode);
        fs::remove(dir + "new");
    }
    Write("own", "", 0600);
    Write("old", "", 0600);
    EXPECT_EQ(ReplaceFile(dir + "old", "text", std::nullopt, {dir + "most"}), "");
    EXPECT_EQ(ModeOf(dir + "old"), 0600U) << "a file that is there is its own model,";
    EXPECT_EQ(chmod((dir + "old").c_str(), 0644), 0);
    EXPECT_EQ(ReplaceFile(dir + "old", "text", std::nullopt, {dir + "most", dir + "none"}), "");
    EXPECT_EQ(ModeOf(dir + "old"), 0644U);
    EXPECT_EQ(ReplaceFile(dir + "old", "text", std::nullopt, {dir + "most", dir + "own"}), "");
    EXPECT_EQ(ModeOf(dir + "old"), 0600U) << "unless it is open to more users";
    Link("link", "made");
    EXPECT_EQ(ReplaceFile(dir + "link", "text"), "");
    EXPECT_EQ(Read("made"), "text");
    EXPECT_TRUE(IsLink(dir + "link"));

    EXPECT_TRUE(MakeDirectory(dir + "made-dir"));
    EXPECT_EQ(ModeOf(dir + "made-dir"), 0755U);
    EXPECT_TRUE(MakeOpenDirectory(dir + "open-dir"));
    EXPECT_EQ(ModeOf(dir + "open-dir"), 0777U);
    EXPECT_EQ(umask(mask), mode_t{022});
    const auto make = [&] { return MakeOpenDirectory(dir + "dir") ? "" : std::strerror(errno); };
    WithRefused({{"mkdir", ENOSPC}},
                [&] { EXPECT_EQ(Told(make), "No space left on device (noted)"); });
    EXPECT_EQ(Told(make), "");
    EXPECT_EQ(Told(make), "File exists");
}

TEST_F(Files, LinksAreFollowedToTheirEnd) {
    fs::create_directory(dir + "sub");
    Link("a", "sub/b");
    Link("sub/b", dir + "c");
    Link("c", "d");
    EXPECT_EQ(BehindLinks(dir + "a"), dir + "d");
    for (int i = 0; i < 40; ++i)
        Link("deep" + std::to_string(i), "deep" + std::to_string(i + 1));
    EXPECT_EQ(BehindLinks(dir + "deep1"), dir + "deep40");
    EXPECT_EQ(BehindLinks(dir + "deep0"), "");
    EXPECT_EQ(errno, ELOOP);
    for (const auto& [path, parent] : {std::pair("/a/b", "/a"), std::pair("/a", "/"),
                                       std::pair("a", "."), std::pair("a/b/", "a/b")})
        EXPECT_EQ(DirectoryOf(path), parent);
}

TEST_F(Files, SyncsAreLeftForTheEndWhileOneLives) {
    Write("file", "old");
    const auto save = [&] { return ReplaceFile(dir + "file", "new"); };
    const auto sync = [&] { return SyncChangesBelow(dir) ? "" : std::strerror(errno); };
    WithRefused({{"syncfs", EIO}, {"fsync", EIO}}, [&] {
        EXPECT_STREQ(sync(), "Input/output error");
        EXPECT_FALSE(SyncFileSystem(dir));
        SyncLater later;
        EXPECT_STREQ(sync(), "");
        EXPECT_FALSE(SyncFileSystem(dir)) << "whatever is left for later";
        EXPECT_EQ(save(), "");
        errno = 0;
        EXPECT_FALSE(later.SyncAll());
        EXPECT_EQ(errno, EIO);
    });
    if (IsSkipped())
        return;
    EXPECT_EQ(Read("file"), "new");
    SyncLater later;
    EXPECT_EQ(SyncLater::Living(), &later);
    WithRefused({{"syncfs", EIO}}, [&] { EXPECT_TRUE(later.SyncAll()) << "nothing was written"; });
    EXPECT_FALSE(later.NoteChange(dir + "none"));
    EXPECT_FALSE(later.NoteChange(dir + "file")) << "no directory";
    EXPECT_TRUE(later.NoteChange(dir));
    EXPECT_TRUE(later.SyncAll());
    EXPECT_EQ(ReplaceFile(dir + "none/file", "new"),
              "can't open the directory: No such file or directory");
}

TEST_F(Files, ATemporaryTakesThePlaceOfAFileAndOfNothingElse) {
    const std::string target = site.Path("target");
    const std::string temporary = target + temporarySuffix;
    const auto take = [&] {
        site.Write(temporary, "new");
        return PutInPlace(temporary, target);
    };
    const auto takeTwice = [&] {
        EXPECT_TRUE(take()) << "a free name";
        site.Write(target, "old");
        EXPECT_TRUE(take());
        EXPECT_EQ(site.Read(target), "new");
        EXPECT_FALSE(site.Exists(temporary));
        fs::remove(target);
        site.Write(target + "/below", "kept");
        EXPECT_FALSE(take());
        EXPECT_EQ(site.Read(target + "/below"), "kept");
        EXPECT_EQ(site.Read(temporary), "new");
        fs::remove_all(target);
    };
    takeTwice();
    const SyncLater later;
    takeTwice();
}

TEST_F(Files, ATemporaryGetsItsPlaceByWhateverRenameThereIs) {
    const auto take = [&] {
        Write("file", "old");
        Write("file.mend-tmp", "new");
        errno = 0;
        return PutInPlace(dir + "file.mend-tmp", dir + "file");
    };
    const SyncLater later;
    for (const RefusedCall& call : {RefusedCall{"exchange", EINVAL}, {"unlink", EROFS}})
        WithRefused({call}, [&] {
            EXPECT_TRUE(take());
            EXPECT_EQ(Read("file"), "new");
            EXPECT_FALSE(IsThere(dir + "file.mend-tmp"));
        });
    WithRefused({{"rename", EROFS}}, [&] { EXPECT_TRUE(take()) << "they change places"; });
    WithRefused({{"exchange", EINVAL}, {"rename", EROFS}}, [&] {
        EXPECT_FALSE(take());
        EXPECT_EQ(errno, EROFS);
        EXPECT_EQ(Read("file"), "old");
    });
}

TEST_F(Files, RemovingGoesDownButNotThroughLinks) {
    Write("keep/file", "kept");
    Write("tree/sub/file", "");
    Fifo("tree/sub/fifo");
    Link("tree/sub/link", dir + "keep");
    Link("tree/nowhere", "none");
    const auto removeTree = [&] { return RemoveTree(dir + "tree") ? "" : std::strerror(errno); };
    for (const RefusedCall& call : {RefusedCall{"unlink", EPERM}, RefusedCall{"unlink", EROFS},
                                    RefusedCall{"getdents", EIO}, RefusedCall{"rmdir", EBUSY}})
        WithRefused({call}, [&] { EXPECT_STRNE(removeTree(), "") << call.name; });
    EXPECT_TRUE(IsOwnDirectory(dir + "tree"));
    EXPECT_STREQ(removeTree(), "");
    EXPECT_FALSE(IsThere(dir + "tree"));
    EXPECT_STREQ(removeTree(), "No such file or directory");
    // As for a file that may not be removed.
    WithRefused({{"unlink", EPERM}}, [&] {
        EXPECT_FALSE(RemoveTree(dir + "keep/file"));
        EXPECT_EQ(errno, EPERM);
    });
    Link("to-keep", "keep");
    EXPECT_TRUE(RemoveTree(dir + "to-keep"));
    Write("relative/below/file", "");
    const fs::path home = fs::current_path();
    fs::current_path(dir);
    EXPECT_TRUE(RemoveTree("relative/below") && RemoveTree("relative"));
    fs::current_path(home);
    EXPECT_FALSE(IsThere(dir + "relative"));
    EXPECT_EQ(Read("keep/file"), "kept");

    const auto removeFile = [&] { return RemoveFile(dir + "keep/file") ? "gone" : ""; };
    WithRefused({{"unlink", EROFS}}, [&] {
        EXPECT_EQ(Told(removeFile), " [Can't remove: keep/file: Read-only file system] (noted)");
    });
    EXPECT_EQ(Told(removeFile), "gone");
    EXPECT_EQ(Told(removeFile), "") << "there is none";

    Write("file", "");
    Fifo("fifo");
    Fifo("other");
    Link("to-other", "other");
    Link("to-file", "file");
    for (const char* name : {"file", "fifo", "to-other", "to-file", "keep", "none"})
        RemoveSpecialFile(dir + name);
    for (const char* name : {"file", "other", "to-file", "keep"})
        EXPECT_TRUE(IsThere(dir + name)) << name;
    for (const char* name : {"fifo", "to-other"})
        EXPECT_FALSE(IsThere(dir + name)) << name;
}
