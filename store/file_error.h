#pragma once

#include <stdexcept>

namespace Configuration {

/// A file that cannot be read, or not as the kind of file it is opened as. The text names the
/// file, the line where there is one, and what is wrong.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Configuration
