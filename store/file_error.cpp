#include "store/file_error.h"

namespace Configuration {

std::string ReasonLine(const std::exception& error) {
    const auto* fileError = dynamic_cast<const FileError*>(&error);
    if (fileError != nullptr && fileError->IsMissing())
        return "";
    return std::string("\t") + error.what() + "\n";
}

}  // namespace Configuration
