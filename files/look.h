#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace files {

/// What a path is, links followed. Where the disk does not tell, the answer is Missing, and that is
/// noted as a refusal. So it is by IsThere, IsOwnDirectory, IsLink and RealPath.
enum class Kind { Missing, Directory, Other };
Kind KindOf(const std::string& path);

/// Whether anything stands under the path, a link that leads nowhere included.
bool IsThere(const std::string& path);

/// Whether the path is a directory itself, not a link to one.
bool IsOwnDirectory(const std::string& path);

/// Whether the path is a symbolic link, wherever it leads.
bool IsLink(const std::string& path);

/// What a symbolic link says; nothing when the path is none.
std::optional<std::string> LinkTarget(const std::string& path);

/// The path without links, "." and "..", and without "/" at its end. Empty, with errno set, when it
/// leads nowhere.
std::string RealPath(const std::string& path);

/// Whether a path is a directory's or lies below it; both as RealPath gives them.
bool IsWithin(const std::string& path, const std::string& directory);

/// Whether a text read from a file can name a directory of its own below another: not empty, not
/// "." or "..", without "/" or NUL, and no name that is the program's own.
bool IsDirectoryName(const std::string& text);

/// What tells a directory from all others: device and inode. A link to it has the same.
using DirectoryId = std::pair<std::uint64_t, std::uint64_t>;

struct DirectoryEntry {
    enum class Type { Unknown, File, Directory, Link, Special };
    std::string name;
    Type type = Type::Unknown;  // as the directory lists it; some file systems list no types
};

/// An open directory.
class Directory {
public:
    explicit Directory(const std::string& path);
    /// A directory below another, never through a link.
    Directory(const Directory& parent, const std::string& name);

    /// False, with errno set, when it could not be opened.
    bool IsOpen() const { return directory_ != nullptr; }
    int Descriptor() const { return dirfd(directory_.get()); }
    /// What an entry is, links not followed. False, with errno set, when the disk does not tell.
    bool Look(const std::string& name, struct stat& info) const;
    /// All entries but "." and "..", in the directory's own order. Nothing, with errno set, when
    /// they could not all be read: names that were not read must not pass for absent.
    std::optional<std::vector<DirectoryEntry>> Entries();

private:
    explicit Directory(int file);
    struct Closer {
        void operator()(DIR* directory) const { closedir(directory); }
    };
    std::unique_ptr<DIR, Closer> directory_;
};

struct DirectoryListing {
    DirectoryId id;
    std::vector<DirectoryEntry> entries;
};

/// Reads a directory at once; nothing, and noted, when that fails.
std::optional<DirectoryListing> ListDirectory(const std::string& path);

/// What an entry of the listed directory `path` is, links followed: asks the disk only where the
/// listing does not tell.
Kind KindOf(const std::string& path, const DirectoryEntry& entry);

}  // namespace files
