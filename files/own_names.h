#pragma once

#include <string_view>

namespace files {

// The names that are the program's own, and nobody's extension.

/// Ends the names of what becomes a file or directory by a rename, so that what a killed run left
/// is known.
inline constexpr const char* temporarySuffix = ".mend-tmp";
/// Ends the names of recovery copies.
inline constexpr const char* recoverySuffix = ".mend-undo";

inline bool IsOwnName(std::string_view name) {
    return name.ends_with(temporarySuffix) || name.ends_with(recoverySuffix);
}

}  // namespace files
