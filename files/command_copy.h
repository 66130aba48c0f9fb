#pragma once

#include <functional>
#include <string>

namespace files {

/// What became of a copy that a command makes.
struct CommandCopy {
    int result = 0;     // of the command; -1, too, where the disk does not tell what to write to
    std::string error;  // why the target is as it was, in words, although the command was run
};

/// Has a command copy a file or directory beside its target, completes what it left out, and
/// renames the copy over the target, so that no cut file ever stands there. `copyTo` runs the
/// command for the path it is given. A target that is a link which leads nowhere is the command's
/// own to refuse.
///
/// What a copy lacks for the disk's sake is noted as a refusal; a source or a directory of the
/// target that is not there is not.
CommandCopy CopyBeside(const std::function<int(const std::string& path)>& copyTo,
                       const std::string& source, const std::string& target);

/// Completes a copy of a file or directory: what a full disk or a killed command cut or left out is
/// copied again, and what belongs to it given again. An owner, mode or time that cannot be kept is
/// no failure. Returns the reason in words when the copy cannot be completed.
std::string CompleteCopy(const std::string& original, const std::string& copy);

}  // namespace files
