#pragma once

#include <unistd.h>

#include <utility>

namespace files {

/// Owns an open file descriptor and closes it.
class FileDescriptor {
public:
    explicit FileDescriptor(int file) : file_(file) {}
    FileDescriptor(FileDescriptor&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(file_, other.file_);
        return *this;
    }
    ~FileDescriptor() { Close(); }

    bool IsOpen() const { return file_ >= 0; }
    int Get() const { return file_; }

    /// Closes early; false when the system could not bring out what was written.
    bool Close() {
        const int file = std::exchange(file_, -1);
        return file < 0 || close(file) == 0;
    }

private:
    int file_;
};

}  // namespace files
