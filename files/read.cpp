#include "files/read.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "files/refusals.h"

namespace files {
namespace {

/// One read, again when a signal came first; the number of bytes, or -1.
ssize_t ReadSome(const FileDescriptor& file, char* to, std::size_t size) {
    ssize_t got = 0;
    do
        got = read(file.Get(), to, size);
    while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

FileDescriptor OpenForReading(const std::string& path, int flags) {
    return FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags));
}

ReadResult ReadFile(const std::string& path) {
    ReadResult result;
    const auto failed = [&](int error) {
        if (error == ENOMEM)
            throw std::bad_alloc();
        NoteRefusal(error, "Can't read: " + path);
        result.error = std::strerror(error);
        return result;
    };
    FileDescriptor file = OpenForReading(path, O_NOFOLLOW);
    const bool isLink = !file.IsOpen() && errno == ELOOP;
    if (isLink)
        file = OpenForReading(path);
    if (!file.IsOpen()) {
        result.missing = errno == ENOENT;
        if (result.missing && !isLink)
            result.standing.emplace();
        return failed(errno);
    }
    struct stat info {};
    if (fstat(file.Get(), &info) != 0)
        return failed(errno);
    if (!isLink)
        result.standing = Standing{true, info};
    if (!S_ISREG(info.st_mode)) {
        result.error = S_ISDIR(info.st_mode) ? "is a directory" : "is not a regular file";
        return result;
    }
    // One byte more than the size, so that a read that fills less tells the end. The kernel's own
    // files say 0 and are asked until they give nothing.
    const auto size = static_cast<std::size_t>(info.st_size);
    constexpr std::size_t kernelRead = 4096;
    std::string bytes(size == 0 ? kernelRead : size + 1, '\0');
    std::size_t filled = 0;
    for (;;) {
        const ssize_t got = ReadSome(file, bytes.data() + filled, bytes.size() - filled);
        if (got < 0)
            return failed(errno);
        filled += static_cast<std::size_t>(got);
        if (got == 0 || (size != 0 && filled == size))
            break;
        if (filled == bytes.size())
            bytes.resize(bytes.size() * 2);
    }
    bytes.resize(filled);
    result.bytes = std::move(bytes);
    return result;
}

std::optional<std::string> ReadStart(const std::string& path, std::size_t limit) {
    const FileDescriptor file = OpenForReading(path);
    if (!file.IsOpen()) {
        NoteRefusal(errno, "Can't read: " + path);
        return std::nullopt;
    }
    struct stat info {};
    const bool told = fstat(file.Get(), &info) == 0;
    if (told && !S_ISREG(info.st_mode))
        return std::string();
    std::string bytes(limit, '\0');
    const ssize_t got = told ? ReadSome(file, bytes.data(), limit) : -1;
    if (got < 0)
        NoteRefusal(errno, "Can't read: " + path);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
}

}  // namespace files
