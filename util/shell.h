#pragma once

#include <string>

/// A path as it stands in a shell command: bare when it holds nothing but A-Z a-z 0-9 and
/// _ . , : = @ % + - /, otherwise in single quotes. A leading "-" gets "./" before it, so that no
/// command takes it for an option.
std::string ShellPath(const std::string& path);

/// Whether the result of `system` says that the command could not be run at all. An exit status of
/// the command itself (cp ended with 1: 256) is no failure: the tree is what counts, and the step
/// that opens the file sees what is there.
bool ShellFailed(int result);

/// What the shell left in the error file: at most 3000 bytes, up to the first NUL. Empty when
/// there is no such file.
std::string ReadErrorFile(const std::string& path);
