#pragma once

#include <optional>
#include <string>
#include <vector>

#include "files/read.h"
#include "store/document.h"

namespace Configuration {

/// A document with the file it came from: what the two kinds of file share beyond their lines.
class StoredDocument {
public:
    /// Reads and parses the file. With `createFlag` a missing one is empty.
    /// Throws FileError when it cannot be read or parsed.
    StoredDocument(const std::string& path, bool createFlag, Document::Layout layout);

    Document& operator*() { return document_; }
    const Document& operator*() const { return document_; }
    Document* operator->() { return &document_; }
    const Document* operator->() const { return &document_; }

    const std::string& Path() const { return path_; }
    /// Whether there is such a file: it was read, or has been saved since.
    bool Exists() const { return exists_; }

    /// Writes the file back, or to another path, whole or not at all. Nothing is written when the
    /// file has these bytes already. False on failure; LastError has the reason in words.
    bool Save(const char* path);
    const std::string& LastError() const { return lastError_; }
    /// As MultiSectionFile::InheritRights.
    void InheritRights(const std::string& path) {
        if (!exists_ && (models_.empty() || models_.back() != path))
            models_.push_back(path);
    }

private:
    StoredDocument(const std::string& path, files::ReadResult file, Document::Layout layout);

    std::string path_;
    bool exists_;
    std::optional<files::Standing> standing_;  // as reading told; outdated by the first save
    Document document_;
    std::optional<std::string> saved_;  // what the last save wrote
    std::string lastError_;
    std::vector<std::string> models_;  // for a file that is not there yet
};

/// Copies a text, which may be empty, into a caller's buffer, cut to fit with its NUL. 0 when there
/// is no room at all.
int CopyText(std::string_view text, char* buffer, int size);

}  // namespace Configuration
