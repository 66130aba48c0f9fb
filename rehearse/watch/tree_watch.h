#pragma once

#include <sys/stat.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace rehearse {

/// A file or link as it was when it was looked at. Directories are not told of: what is in them is.
struct FileState {
    struct stat info {};
    /// The bytes of a file, the target of a link; null for what is too large or no file.
    std::shared_ptr<const std::string> content;
};

/// A file's mode and owner, in words.
std::string ModeText(const FileState& state);

/// What became of one file between two looks. One side is missing when it came or went.
struct FileChange {
    std::string path;  // below the tree, without a "/" at its begin
    std::shared_ptr<const FileState> before;
    std::shared_ptr<const FileState> after;
};

/// A tree, by path; entries are shared between looks as long as the file stays what it is.
using TreeState = std::map<std::string, std::shared_ptr<const FileState>>;

/// One that is looked at from several places: of thousands of extensions a copy is tens of
/// megabytes.
using SharedTree = std::shared_ptr<const TreeState>;

/// The changes from one state to another, by path.
std::vector<FileChange> Compare(const TreeState& before, const TreeState& after);

/// Watches a tree for what a step changes. It looks by the C library's own means and not by those
/// of `files`, which note what the disk refuses: looking on must not change what is looked at.
class TreeWatch {
public:
    /// The bytes that the tree has in common with `known` are kept once.
    explicit TreeWatch(std::string root, const SharedTree& known = nullptr);

    /// Looks again, and tells what changed. What was touched since the last time, or shortly before
    /// it, is read again: a clock tick is long enough for two saves of the same size.
    std::vector<FileChange> Look();

    const SharedTree& State() const { return state_; }

private:
    std::string root_;
    SharedTree state_;
    struct timespec safeBefore_ {};  // a file older than that was not touched since the last look
};

/// A tree as it is now. What it has in common with `known` is that one's own, times and all: such a
/// state is there to be compared, and not to be looked at again.
SharedTree LookAt(const std::string& root, const SharedTree& known);

}  // namespace rehearse
