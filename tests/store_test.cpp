// The two kinds of file on disk: opening, saving, merging.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "files/replace.h"
#include "store/config_file.h"
#include "tests/support/steps.h"

namespace fs = std::filesystem;
using Configuration::ConfigFile;
using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

int FilesIn(const std::string& directory) {
    return static_cast<int>(std::distance(fs::directory_iterator(directory), {}));
}

}  // namespace

class StoreFiles : public Steps {
protected:
    void SetUp() override { fs::create_directories(dir); }

    const std::string dir = site.Path("store/");
    const std::string path = dir + "db";
};

TEST_F(StoreFiles, OpeningTellsMissingFromUnreadable) {
    EXPECT_THROW(MultiSectionFile(dir + "none", false), FileError);
    EXPECT_NO_THROW(MultiSectionFile(dir + "none", true));
    EXPECT_FALSE(site.Exists(dir + "none")) << "nothing appears before a save";
    EXPECT_THROW(MultiSectionFile(dir, true), FileError) << "a directory";
    ASSERT_EQ(mkfifo((dir + "fifo").c_str(), 0600), 0);
    EXPECT_THROW(MultiSectionFile(dir + "fifo", true), FileError) << "and does not block";
    EXPECT_THROW(ConfigFile("/dev/zero", true), FileError);
    site.Write(path, "");
    EXPECT_NO_THROW(MultiSectionFile(path, false)) << "a file of no bytes is empty";
    site.Write(path, "}\n");
    EXPECT_THROW(MultiSectionFile(path, true), FileError);
    EXPECT_NO_THROW(ConfigFile(path, false)) << "flat files keep any line";
}

TEST_F(StoreFiles, AValueThatIsLongerThanItsBufferIsCut) {
    site.Write(path, "a=value\n");
    MultiSectionFile file(path);
    for (const bool hasNext : {true, false, true}) {
        EXPECT_EQ(file.GotoNextEntry(), hasNext);
        if (!hasNext)
            file.RestartEntries();
    }
    char buffer[] = "xxxxxx";
    EXPECT_TRUE(file.GetEntry("a", buffer, 4));
    EXPECT_EQ(std::string(buffer, 6), std::string("val\0xx", 6));
}

TEST_F(StoreFiles, SaveKeepsModeFollowsLinksAndSparesTheFlash) {
    site.Write(path, "a=1\n");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    fs::create_symlink("db", dir + "link");
    const auto info = [&] {
        struct stat now {};
        stat(path.c_str(), &now);
        return now;
    };
    MultiSectionFile file(dir + "link", false);
    for (const char* value : {"2", "1"}) {  // and back to what it was opened with
        const ino_t before = info().st_ino;
        EXPECT_TRUE(file.Save(true, nullptr));
        EXPECT_EQ(info().st_ino, before) << "the same bytes are not written";
        file.SetEntry("a", value);
        EXPECT_TRUE(file.Save(true, nullptr));
        EXPECT_NE(info().st_ino, before);
        EXPECT_EQ(info().st_mode & 07777, 0640U);
        EXPECT_EQ(site.Read(path), std::string("a=") + value + "\n");
    }
    EXPECT_TRUE(fs::is_symlink(dir + "link"));
    EXPECT_EQ(FilesIn(dir), 2);

    ConfigFile created(dir + "created", true);
    EXPECT_TRUE(created.Save(true, nullptr)) << "createFlag makes it even with nothing set";
    EXPECT_EQ(site.Read(dir + "created"), "");
    site.Write(path + files::temporarySuffix, "left by a killed run");
    file.SetEntry("a", "3");
    EXPECT_TRUE(file.Save(true, nullptr));
    EXPECT_EQ(FilesIn(dir), 3);
}

TEST_F(StoreFiles, AFailedSaveLeavesTheOldFileAndNoTemporary) {
    site.Write(path, "a=1\n");
    ConfigFile file(path, false);
    file.SetEntry("a", std::string(100000, 'x'));

    // A disk with room for one page, as far as a process can have it.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit small{4096, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_FALSE(file.Save(true, nullptr));
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_EQ(file.LastError(), "can't write: File too large");
    EXPECT_EQ(site.Read(path), "a=1\n");
    EXPECT_EQ(FilesIn(dir), 1);

    ConfigFile homeless(dir + "none/db", true);
    EXPECT_FALSE(homeless.Save(true, nullptr));
    EXPECT_EQ(homeless.LastError(), "can't open the directory: No such file or directory");
    EXPECT_TRUE(file.Save(true, nullptr)) << "and can be tried again";
}
