#include "store/stored_document.h"

#include <algorithm>

#include "files/read.h"
#include "files/replace.h"

namespace Configuration {
namespace {

files::ReadResult Read(const std::string& path, bool createFlag) {
    files::ReadResult file = files::ReadFile(path);
    if (!file.bytes && !(file.missing && createFlag))
        throw FileError(path + ": " + file.error, path.size(), 0, file.missing);
    return file;
}

}  // namespace

StoredDocument::StoredDocument(const std::string& path, bool createFlag, Document::Layout layout)
    : StoredDocument(path, Read(path, createFlag), layout) {}

StoredDocument::StoredDocument(const std::string& path, files::ReadResult file,
                               Document::Layout layout)
    : path_(path),
      exists_(file.bytes.has_value()),
      standing_(file.standing),
      document_(std::move(file.bytes).value_or(""), layout, path) {}

bool StoredDocument::Save(const char* path) {
    std::string text = document_.Text();
    if (path != nullptr && path != path_) {
        lastError_ = files::ReplaceFile(path, text);
        return lastError_.empty();
    }
    lastError_.clear();
    if (exists_ && text == (saved_ ? *saved_ : document_.OriginalText()))
        return true;
    lastError_ = files::ReplaceFile(path_, text, standing_, models_);
    standing_.reset();
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
    std::copy_n(text.begin(), length, buffer);
    buffer[length] = '\0';
    return 1;
}

}  // namespace Configuration
