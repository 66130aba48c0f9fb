#include "store/open_document.h"

#include <algorithm>
#include <cstring>

#include "store/file_io.h"

namespace Configuration {

std::unique_ptr<Document> OpenDocument(const std::string& path, bool createFlag,
                                       Document::Layout layout, bool& exists) {
    ReadResult file = ReadFile(path);
    if (!file.bytes && !(file.missing && createFlag))
        throw FileError(path + ": " + file.error);
    exists = file.bytes.has_value();
    return std::make_unique<Document>(std::move(file.bytes).value_or(""), layout, path);
}

std::string SaveDocument(const Document& document, const std::string& path, bool exists) {
    const std::string text = document.Text();
    if (exists && text == document.OriginalText())
        return {};
    return ReplaceFile(path, text);
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
