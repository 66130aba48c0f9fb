#pragma once

#include <string>
#include <vector>

namespace rehearse {

/// A file's bytes; empty when it cannot be read.
std::string ReadAll(const std::string& path);

/// Writes a file. Throws Failure.
void WriteFile(const std::string& path, const std::string& text);

/// A text's lines, without their ends.
std::vector<std::string> LinesOf(const std::string& text);

}  // namespace rehearse
