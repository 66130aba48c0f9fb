#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

/// The least that replacing a file durably can cost: its bytes are read and written back to a
/// temporary with its mode, synced, renamed over it, and the directory is synced. False when a call
/// failed.
inline bool RewriteFile(const std::string& directory, const std::string& path) {
    const int from = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (from < 0 || fstat(from, &info) != 0)
        return false;
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    bool done = read(from, bytes.data(), bytes.size()) == info.st_size;
    close(from);
    const std::string temporary = path + ".floor";
    const int to = open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    done = done && to >= 0 && fchmod(to, info.st_mode & 07777) == 0 &&
           write(to, bytes.data(), bytes.size()) == info.st_size && fsync(to) == 0;
    done = close(to) == 0 && done && std::rename(temporary.c_str(), path.c_str()) == 0;
    const int parent = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    done = done && parent >= 0 && fsync(parent) == 0;
    close(parent);
    return done;
}
