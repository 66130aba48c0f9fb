#pragma once

#include <functional>
#include <string>

/// Runs a shell command and returns what `system` returns.
using ShellRunner = std::function<int(const std::string&)>;

/// A path as it stands in a shell command: bare when it holds nothing but A-Z a-z 0-9 and
/// _ . , : = @ % + - /, otherwise in single quotes. A leading "-" gets "./" before it, so that no
/// command takes it for an option.
std::string ShellPath(const std::string& path);

/// Whether the result of `system` says that the command could not be run at all. An exit status of
/// the command itself (cp ended with 1: 256) is no failure: the tree is what counts, and the step
/// that opens the file sees what is there.
bool ShellFailed(int result);

/// Takes empty and relative directories out of PATH, where anybody's program might be found, and
/// the owner's bits out of the umask, without which the program could not read what it made.
void PrepareForCommands();

/// What became of a command whose errors are asked for.
struct CommandOutcome {
    int result = 0;      // of `system`
    std::string errors;  // at most 3000 bytes of its standard error, up to the first NUL
};

/// Runs a command with its standard error in `errorFile`, which is made for it and removed.
/// Everybody may put something under that name in /tmp: what stands there is removed, never opened.
CommandOutcome RunForErrors(const ShellRunner& run, const std::string& command,
                            const std::string& errorFile);
