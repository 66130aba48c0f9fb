#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// Non-zero when the path exists (links followed).
int FileExist(const std::string& path);

/// Non-zero when the path is an existing directory (links followed).
int CorrectPath(const std::string& path);

namespace FileUtility {

/// Makes the path end in `separator`; an empty path stays empty.
void AdjustPath(std::string& path, char separator);

/// Removes a file, a link (not what it points to) or a directory with all it holds. False when
/// something of it is left.
bool RemoveDirOrFile(const std::string& path);

/// What a path is, links followed. One that the disk does not tell of is missing, and counted as
/// the disk's failure, by this and by all that ask below and above.
enum class Kind { Missing, Directory, Other };
Kind KindOf(const std::string& path);

/// Whether anything stands under the path, a link that leads nowhere included.
bool IsThere(const std::string& path);

/// Whether the path is a directory itself, not a link to one.
bool IsOwnDirectory(const std::string& path);

/// Brings all that was written to the file system of a directory to its disk. False, with errno
/// set, when that failed.
bool SyncFileSystem(const std::string& directory);

/// Total bytes of the file system behind the path, 0 when it cannot be read.
std::uint64_t GetVmStorageSize(const std::string& path, bool flag);

/// What one read of at most `limit` bytes from the start of a regular file gives: the bytes, or an
/// empty text when the read fails. Nothing when the file cannot be opened.
std::optional<std::string> ReadStart(const std::string& path, std::size_t limit);

/// Whether a text read from a file can name a directory of its own below another: not empty, not
/// "." or "..", without "/" or NUL.
bool IsDirectoryName(const std::string& text);

/// Removes a FIFO, socket or device (or a link to one) that stands where a file belongs: a copy
/// over it would block or write into the device.
void RemoveSpecialFile(const std::string& path);

/// Creates a directory with mode 0777 less the umask; an open one whatever the umask. False, and
/// counted where it is the disk's fault, when it can't.
bool MakeDirectory(const std::string& path);
bool MakeOpenDirectory(const std::string& path);

/// Removes a file. False when that failed or there is none.
bool RemoveFile(const std::string& path);

}  // namespace FileUtility
