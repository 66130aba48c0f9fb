#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace rehearse {

/// A directory of our own that goes with the object, whatever is in it.
class Workspace {
public:
    /// In memory when there is room for `need` bytes: nothing of it has to survive. Throws Failure.
    explicit Workspace(std::uint64_t need);
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    const std::string& Path() const { return path_; }
    /// Whether nothing more can be written into it.
    bool IsFull() const;

private:
    std::string path_;
};

/// What the run needs and a backup lacks.
struct Lack {
    std::string what;   // the path below the tree
    std::string means;  // what follows from it
};

/// The size of a backup when it is unpacked, in bytes; for an archive a guess.
std::uint64_t SizeOf(const std::string& tree);

/// Copies a directory, or unpacks a tar archive, to `copy`, which does not exist yet. Owners are
/// kept when the system lets us. `goOn` is called now and then, and may throw. Throws Failure.
void CopyBackup(const std::string& tree, const std::string& copy,
                const std::function<void()>& goOn);

/// The directory in the copy that is the appliance's root: the copy itself or, when somebody packed
/// the directory and not what is in it, the only one below. Throws Failure when neither holds the
/// factory configuration, unless that comes from elsewhere.
std::string FindRoot(const std::string& copy, const std::string& tree, bool needsFactory = true);

/// The path on this machine of a place in the copy, links followed as the appliance would follow
/// them, from its own root. Empty when there is no such place; never outside the copy.
std::string RealBelow(const std::string& root, const std::string& place);

/// The directories on the way to a place, made where they are missing. One that is a link is not
/// followed: it might lead out of the copy, to the host's own. Throws Failure.
void MakeDirectories(const std::string& root, const std::string& place);

/// Tells what the copy lacks, and makes the directories that the sandbox needs all the same. Throws
/// Failure.
std::vector<Lack> CompleteRoot(const std::string& root);

}  // namespace rehearse
