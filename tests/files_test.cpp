// files/ by itself: what is looked at, read, replaced, copied, moved and removed, what becomes of
// it when the system refuses a call, and which refusals are noted.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <set>
#include <tuple>

#include "files/attributes.h"
#include "files/command_copy.h"
#include "files/copy.h"
#include "files/digest.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/move.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"
#include "files/sync.h"
#include "tests/support/refused_calls.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;
using namespace files;

namespace {

struct stat InfoOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info;
}

mode_t ModeOf(const std::string& path) {
    return InfoOf(path).st_mode & 07777;
}

void SetTimes(const std::string& path, time_t seconds) {
    const struct timespec times[] = {{1, 2}, {seconds, 4}};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

class Files : public Steps {
protected:
    Files() : Steps(Site::Content::Databases) { fs::create_directories(dir); }

    void Write(const std::string& name, const std::string& text, mode_t mode = 0644) const {
        site.Write(dir + name, text);
        chmod((dir + name).c_str(), mode);
    }
    std::string Read(const std::string& name) const { return site.Read(dir + name); }
    void Link(const std::string& name, const std::string& target) const {
        fs::create_symlink(target, dir + name);
    }
    void Fifo(const std::string& name) const { EXPECT_EQ(mkfifo((dir + name).c_str(), 0600), 0); }
    /// What stands below a directory: names, kinds, modes, times of change and contents.
    Names Tree(const std::string& below) const {
        Names tree;
        for (const auto& entry : fs::recursive_directory_iterator(below)) {
            const struct stat info = InfoOf(entry.path());
            std::string text = entry.path().string().substr(below.size()) + " " +
                               std::to_string(info.st_mode) + " " +
                               std::to_string(info.st_mtim.tv_sec) + " ";
            if (S_ISREG(info.st_mode))
                text += site.Read(entry.path());
            else if (S_ISLNK(info.st_mode))
                text += fs::read_symlink(entry.path()).string();
            tree.push_back(text);
        }
        std::sort(tree.begin(), tree.end());
        return tree;
    }
    /// A reason without this test's own directory, and whether the refusal was noted.
    template <typename Call>
    std::string Told(const Call& call) const {
        const RefusalWatch watch;
        std::string text = Replaced(call(), dir, "");
        for (const std::string& kept : TakeRefusalTexts())
            text += " [" + Replaced(kept, dir, "") + "]";
        return text + (watch.HasSeenOne() ? " (noted)" : "");
    }
    /// A directory on another file system; empty without one.
    std::string Elsewhere() {
        for (const char* place : {"/dev/shm", "/tmp", "/var/tmp", "/run"}) {
            std::string path = place + std::string("/mend-elsewhere-XXXXXX");
            if (InfoOf(dir).st_dev == InfoOf(place).st_dev || mkdtemp(path.data()) == nullptr)
                continue;
            elsewhere_ = path;
            return path + "/";
        }
        return {};
    }
    ~Files() override {
        TakeRefusalTexts();
        if (!elsewhere_.empty())
            fs::remove_all(elsewhere_);
    }

    const std::string dir = site.Path("files/");

private:
    std::string elsewhere_;
};

}  // namespace

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
    } cases[] = {
        {"lstat", EIO, "can't read the old file: Input/output error (noted)"},
        {"open directory", EACCES, "can't open the directory: Permission denied (noted)"},
        {"create", EROFS, "can't create the new file: Read-only file system (noted)"},
        {"create", EISDIR, "can't create the new file: Is a directory"},
        {"fchmod", EPERM, "can't keep the mode: Operation not permitted (noted)"},
        {"write", ENOSPC, "can't write: No space left on device (noted)"},
        {"fsync", EIO, "can't sync: Input/output error (noted)"},
        {"rename", EROFS, "can't rename the new file: Read-only file system (noted)"},
    };
    for (const auto& test : cases) {
        WithRefused({{test.call, test.error}}, [&] { EXPECT_EQ(Told(save), test.reason); });
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
    Write("old", "", 0600);
    EXPECT_EQ(ReplaceFile(dir + "old", "text", std::nullopt, {dir + "most"}), "");
    EXPECT_EQ(ModeOf(dir + "old"), 0600U) << "a file that is there is its own model";
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
    const Names before = Tree(dir + "tree");
    for (const auto& [call, error] : {std::pair("unlink", EPERM), std::pair("unlink", EROFS),
                                      std::pair("getdents", EIO), std::pair("rmdir", EBUSY)})
        WithRefused({{call, error}}, [&] { EXPECT_STRNE(removeTree(), "") << call; });
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
        {"file", By::Linking, {"link", EMLINK}, "copy: Too many links (noted)"},
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
    for (const auto& [call, error] : {std::pair("rename", EROFS), std::pair("write", ENOSPC)})
        WithRefused({{call, error}}, [&] {
            EXPECT_EQ(replace("a", "b"), (error == EROFS ? "b: " : "b.mend-tmp: ") +
                                             std::string(std::strerror(error)) + " (noted)");
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
        Link(name + "/linked", "whole");
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
    EXPECT_EQ(LinkTarget(dir + "to/linked"), "whole") << "is as the command meant it";
    fs::remove(dir + "to/linked");
    EXPECT_EQ(Tree(dir + "to"), expected);
    EXPECT_EQ(ModeOf(dir + "to"), 0775U);
    EXPECT_FALSE(IsThere(dir + "to.mend-tmp"));

    fs::remove_all(dir + "to");
    const struct {
        RefusedCall call;
        const char* error;
    } refusals[] = {
        {{"write", ENOSPC}, ": No space left on device (noted)"},
        {{"mkdir", ENOSPC}, "to.mend-tmp/missing: No space left on device (noted)"},
        {{"getdents", EIO},
         "from: Input/output error [Can't read: from: Input/output error] (noted)"},
        {{"syncfs", EIO}, "can't sync: Input/output error (noted)"},
        {{"rename", EROFS}, ": Read-only file system (noted)"},
    };
    for (const auto& [call, error] : refusals) {
        copyHalf(dir + "half");
        WithRefused({call}, [&] {
            const auto move = [&](const std::string& to) {
                return renameat2(AT_FDCWD, (dir + "half").c_str(), AT_FDCWD, to.c_str(),
                                 RENAME_NOREPLACE);
            };
            const auto copy = [&] { return CopyBeside(move, dir + "from", dir + "to").error; };
            const std::string told = Told(copy);
            EXPECT_TRUE(told.ends_with(error)) << told;
        });
        EXPECT_FALSE(IsThere(dir + "to")) << call.name;
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
    const std::tuple<const char*, int, const char*> refusals[] = {
        {"getdents", EIO, "from: Input/output error (noted)"},
        {"lstat", EIO, ": Input/output error (noted)"},
        {"create", ENOSPC, ": No space left on device (noted)"},
        {"rmdir", EROFS, "to/surplus: Read-only file system (noted)"},
    };
    for (const auto& [call, error, reason] : refusals) {
        fill();
        WithRefused({{call, error}}, [&] {
            const std::string told = mirror("to");
            EXPECT_TRUE(told.ends_with(reason)) << told;
        });
        EXPECT_TRUE(IsThere(dir + "to/own")) << call;
        EXPECT_TRUE(IsThere(dir + "to/sub/left-too")) << call;
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
    const struct {
        const char* name;
        RefusedCall call;
        const char* reason;
    } cases[] = {
        {"file", {"create", ENOSPC}, "OTHER/file.mend-tmp: No space left on device (noted)"},
        {"from", {"mkdir", ENOSPC}, "OTHER/from.mend-tmp: No space left on device (noted)"},
        {"from", {"write", ENOSPC}, "OTHER/from.mend-tmp/file: No space left on device (noted)"},
        {"fifo", {"lchown", 0}, "fifo: Invalid cross-device link (noted)"},
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
