#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace rehearse {

/// A regular file's bytes, at most `most` of them; empty when it cannot be read, or is no such
/// file. A link is not followed: what ran in the sandbox may have made it, and it leads elsewhere
/// here.
std::string ReadAll(const std::string& path, std::size_t most = 512 << 20);

/// Writes a file that nobody but its owner can read. Throws Failure.
void WriteFile(const std::string& path, const std::string& text);

/// A text in which nothing controls a terminal: control characters and marks that turn the
/// direction of writing stand as their numbers, bytes that are no UTF-8 as a question mark.
std::string Printable(const std::string& text);

/// The same of what has to stay one line: a name with a line end could pass for a line of ours.
std::string PrintableLine(const std::string& text);

/// A text's lines, without their ends.
std::vector<std::string> LinesOf(const std::string& text);

}  // namespace rehearse
