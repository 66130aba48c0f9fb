#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "store/document.h"

// What the two kinds of file share beyond their lines.
namespace Configuration {

/// Reads and parses a file; `exists` tells whether there was one. Throws FileError when it cannot
/// be read or parsed, or is missing and `createFlag` is false.
std::unique_ptr<Document> OpenDocument(const std::string& path, bool createFlag,
                                       Document::Layout layout, bool& exists);

/// Writes a document to `path`, unless it `exists` there with the same bytes. Empty, or the reason.
std::string SaveDocument(const Document& document, const std::string& path, bool exists);

/// Copies a text into a caller's buffer, cut to fit with its NUL. 0 when there is no room at all.
int CopyText(std::string_view text, char* buffer, int size);

}  // namespace Configuration
