#pragma once

#include <string>

namespace files {

/// Removes a file. False when that failed, which is noted and kept for the log, or there is none.
bool RemoveFile(const std::string& path);

/// Removes a FIFO, socket or device (or a link to one) that stands where a file belongs: a copy
/// over it would block or write into the device.
void RemoveSpecialFile(const std::string& path);

/// Removes a file, a link (not what it leads to) or a directory with all it holds. False, with
/// errno set, when something of it is left.
bool RemoveTree(const std::string& path);

}  // namespace files
