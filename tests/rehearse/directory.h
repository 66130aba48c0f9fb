#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A directory of the test's own, in memory where there is some. Tests run side by side.
class Directory {
public:
    Directory() {
        std::string name = (std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp") +
                           std::string("/rehearse-test.XXXXXX");
        path = mkdtemp(name.data());
    }
    ~Directory() { std::filesystem::remove_all(path); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    /// Writes a file, and returns its path.
    std::string Write(const std::string& name, const std::string& text) const {
        std::ofstream(path + "/" + name) << text;
        return path + "/" + name;
    }
    std::string path;
};
