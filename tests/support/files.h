#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "files/refusals.h"
#include "tests/support/refused_calls.h"
#include "tests/support/steps.h"

inline struct stat InfoOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info;
}

inline mode_t ModeOf(const std::string& path) {
    return InfoOf(path).st_mode & 07777;
}

inline void SetTimes(const std::string& path, time_t seconds) {
    const struct timespec times[] = {{1, 2}, {seconds, 4}};
    utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

/// A call that the system refuses, and what is told of it.
struct Refusal {
    RefusedCall call;
    const char* reason;
};

/// Files in a directory of their own, and what an operation on them tells.
class Files : public Steps {
protected:
    Files() : Steps(Site::Content::Databases) { std::filesystem::create_directories(dir); }

    void Write(const std::string& name, const std::string& text, mode_t mode = 0644) const {
        site.Write(dir + name, text);
        chmod((dir + name).c_str(), mode);
    }
    std::string Read(const std::string& name) const { return site.Read(dir + name); }
    void Link(const std::string& name, const std::string& target) const {
        std::filesystem::create_symlink(target, dir + name);
    }
    void Fifo(const std::string& name) const { EXPECT_EQ(mkfifo((dir + name).c_str(), 0600), 0); }
    /// What stands below a directory: names, kinds, modes, times of change and contents.
    Names Tree(const std::string& below) const {
        Names tree;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(below)) {
            const struct stat info = InfoOf(entry.path());
            std::string text = entry.path().string().substr(below.size()) + " " +
                               std::to_string(info.st_mode) + " " +
                               std::to_string(info.st_mtim.tv_sec) + " ";
            if (S_ISREG(info.st_mode))
                text += site.Read(entry.path());
            else if (S_ISLNK(info.st_mode))
                text += std::filesystem::read_symlink(entry.path()).string();
            tree.push_back(text);
        }
        std::sort(tree.begin(), tree.end());
        return tree;
    }
    /// A reason without this test's own directory, and whether the refusal was noted.
    template <typename Call>
    std::string Told(const Call& call) const {
        const files::RefusalWatch watch;
        std::string text = Replaced(call(), dir, "");
        for (const std::string& kept : files::TakeRefusalTexts())
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
        files::TakeRefusalTexts();
        if (!elsewhere_.empty())
            std::filesystem::remove_all(elsewhere_);
    }

    const std::string dir = site.Path("files/");

private:
    std::string elsewhere_;
};
