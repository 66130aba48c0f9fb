#pragma once

#include <stdexcept>
#include <string>

namespace Configuration {

/// A file that cannot be read, or not as the kind of file it is opened as. The text names the
/// file, the line where there is one, and what is wrong.
class FileError : public std::runtime_error {
public:
    explicit FileError(const std::string& text, bool isMissing = false)
        : std::runtime_error(text), isMissing_(isMissing) {}

    /// Whether there is no such file, which for many is the ordinary case.
    bool IsMissing() const { return isMissing_; }

private:
    bool isMissing_;
};

/// A line that tells why a file could not be read; empty when there is no such file.
std::string ReasonLine(const std::exception& error);

}  // namespace Configuration
