#pragma once

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Configuration {

/// A file that cannot be read, or not as the kind of file it is opened as. The text names the
/// file, the line where there is one, and what is wrong.
class FileError : public std::runtime_error {
public:
    /// `text` begins with the path, `pathSize` bytes, and ends with ": " and the reason.
    FileError(const std::string& text, std::size_t pathSize, std::size_t line = 0,
              bool isMissing = false)
        : std::runtime_error(text), pathSize_(pathSize), line_(line), isMissing_(isMissing) {}

    std::string_view Path() const { return {what(), pathSize_}; }
    /// 0 for the file as a whole.
    std::size_t Line() const { return line_; }
    /// What is wrong, without the place.
    const char* Reason() const { return std::strstr(what() + pathSize_, ": ") + 2; }
    /// Whether there is no such file, which for many is the ordinary case.
    bool IsMissing() const { return isMissing_; }

private:
    std::size_t pathSize_;
    std::size_t line_;
    bool isMissing_;
};

/// A line that tells why a file could not be read; empty when there is no such file.
std::string ReasonLine(const std::exception& error);

}  // namespace Configuration
