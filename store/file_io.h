#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Configuration {

/// What became of reading a file.
struct ReadResult {
    std::optional<std::string> bytes;  // the whole file, when it was read
    bool missing = false;              // there is no such file
    std::string error;                 // why it was not read, in words
};

/// Reads a whole regular file. A directory, FIFO or device is an error and never blocks.
ReadResult ReadFile(const std::string& path);

/// Replaces a file whole or not at all: a temporary beside it, its data synced, renamed over it,
/// the directory synced. A symbolic link is written through; mode and owner of an existing file
/// are kept. Returns the reason in words on failure, after which the old file is as it was (but for
/// a directory that could not be synced: then the new one is in place, and may not survive a power
/// cut) and no temporary is left; an empty text on success.
std::string ReplaceFile(const std::string& path, std::string_view bytes);

/// Writes all of `bytes`; false, with errno set, when the file does not take them.
bool WriteAll(int file, std::string_view bytes);

/// The file behind a chain of symbolic links, which need not exist yet. Empty, with errno set,
/// when the chain does not end.
std::string BehindLinks(std::string path);

/// Ends the name of ReplaceFile's temporaries, so that what a killed run left is known.
inline constexpr const char* temporarySuffix = ".mend-tmp";

}  // namespace Configuration
