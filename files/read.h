#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>

#include "files/file_descriptor.h"

namespace files {

/// What stands under a name, so far as opening it told.
struct Standing {
    bool exists = false;
    struct stat info {};  // if it exists
};

/// What became of reading a file.
struct ReadResult {
    std::optional<std::string> bytes;  // the whole file, when it was read
    bool missing = false;              // there is no such file
    std::string error;                 // why it was not read, in words
    std::optional<Standing> standing;  // unknown of a link
};

/// Reads a whole regular file, or a file of the kernel's. A directory, FIFO or device is an error
/// and never blocks. Throws std::bad_alloc when there is no memory for it, the system's included:
/// the file is not to blame.
ReadResult ReadFile(const std::string& path);

/// What one read of at most `limit` bytes from the start of a regular file gives: the bytes, or an
/// empty text when the read fails. Nothing when the file cannot be opened.
std::optional<std::string> ReadStart(const std::string& path, std::size_t limit);

/// Opens for reading what must never block: a FIFO or device opens, and is told by fstat. `flags`
/// are added to those of `open`.
FileDescriptor OpenForReading(const std::string& path, int flags = 0);

}  // namespace files
