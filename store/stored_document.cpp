#include "store/stored_document.h"

#include <algorithm>
#include <cstring>

#include "store/file_io.h"

namespace Configuration {
namespace {

std::optional<std::string> ReadBytes(const std::string& path, bool createFlag) {
    ReadResult file = ReadFile(path);
    if (!file.bytes && !(file.missing && createFlag))
        throw FileError(path + ": " + file.error);
    return std::move(file.bytes);
}

}  // namespace

StoredDocument::StoredDocument(const std::string& path, bool createFlag, Document::Layout layout)
    : StoredDocument(path, ReadBytes(path, createFlag), layout) {}

StoredDocument::StoredDocument(const std::string& path, std::optional<std::string> bytes,
                               Document::Layout layout)
    : path_(path),
      exists_(bytes.has_value()),
      document_(std::move(bytes).value_or(""), layout, path) {}

bool StoredDocument::Save(const char* path) {
    std::string text = document_.Text();
    if (path != nullptr && path != path_) {
        lastError_ = ReplaceFile(path, text);
        return lastError_.empty();
    }
    lastError_.clear();
    if (exists_ && text == (saved_ ? *saved_ : document_.OriginalText()))
        return true;
    lastError_ = ReplaceFile(path_, text);
    if (!lastError_.empty())
        return false;
    exists_ = true;
    saved_ = std::move(text);
    return true;
}

int CopyText(std::string_view text, char* buffer, int size) {
    if (buffer == nullptr || size <= 0)
        return 0;
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
    return 1;
}

}  // namespace Configuration
