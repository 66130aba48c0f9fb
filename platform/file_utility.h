#pragma once

#include <cstdint>
#include <string>

// The appliance's own names for looking at and removing files, as the steps use them.

/// Non-zero when the path exists (links followed).
int FileExist(const std::string& path);

/// Non-zero when the path is an existing directory (links followed).
int CorrectPath(const std::string& path);

namespace FileUtility {

/// Makes the path end in `separator`; an empty path stays empty.
void AdjustPath(std::string& path, char separator);

/// Removes a file, a link (not what it leads to) or a directory with all it holds. False when
/// something of it is left, which is noted and kept for the log.
bool RemoveDirOrFile(const std::string& path);

/// Total bytes of the file system behind the path, 0 when it cannot be read.
std::uint64_t GetVmStorageSize(const std::string& path, bool flag = true);

}  // namespace FileUtility
