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

/// The changes from one state to another, by path.
std::vector<FileChange> Compare(const TreeState& before, const TreeState& after);

/// Watches a tree for what a step changes. It looks by the C library's own means and not by those
/// of `files`, which note what the disk refuses: looking on must not change what is looked at.
class TreeWatch {
public:
    /// What the tree has in common with `known` is kept once.
    explicit TreeWatch(std::string root, const TreeState& known = {})
        : root_(std::move(root)), state_(known) {
        Look();
    }

    /// Looks again. What was touched since the last time, or shortly before it, is read again: a
    /// clock tick is long enough for two saves of the same size.
    void Look();

    const TreeState& State() const { return state_; }

private:
    std::string root_;
    TreeState state_;
    struct timespec safeBefore_ {};  // a file older than that was not touched since the last look
};

}  // namespace rehearse
