#pragma once

#include <sys/stat.h>

#include <string>

namespace files {

// What belongs to a file besides its bytes: mode, owner, access list and other extended attributes,
// where the file system has such. Signatures of a file's bytes or of its place on the disk are left
// out: they would be wrong for another file, and the system makes its own.

/// Gives a new open file mode, owner and access list of the file `from`, which stands under `path`.
/// Returns the reason in words, noted, when one of them cannot be kept: a file that holds passwords
/// is rather not saved than open to more people.
std::string KeepRights(int file, const struct stat& from, const std::string& path);

/// Whether a file is open to more users than another, by the modes.
bool IsOpenToMore(const struct stat& file, const struct stat& than);

/// Gives a file the rights of `model` where it is open to more users. Returns the reason in words,
/// noted, on failure.
std::string Tighten(const std::string& path, const std::string& model);

/// The same as KeepRights for the other attributes; behind the bytes, for writing takes
/// capabilities off.
std::string KeepExtended(int file, const std::string& path);

/// Gives a copy of `from` all of that, and the times. All is tried, whatever fails first; false,
/// with errno set, when something failed.
bool GiveAttributes(int file, const struct stat& from, const std::string& path);

/// Whether two files or directories agree in all that GiveAttributes gives but the time of access.
bool HaveSameAttributes(const struct stat& a, const std::string& pathA, const struct stat& b,
                        const std::string& pathB);

}  // namespace files
