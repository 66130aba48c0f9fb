#include "store/config_file.h"

namespace Configuration {

using Scope = Document::Scope;

ConfigFile::ConfigFile(const std::string& path, bool createFlag, bool, bool)
    : document_(path, createFlag, Document::Layout::Flat) {}

int ConfigFile::GetEntry(const std::string& key, char* buffer, int size) {
    std::string_view value;
    return document_->Find(Scope::TopLevel, key, value) ? CopyText(value, buffer, size) : 0;
}

std::optional<std::string> ConfigFile::GetEntry(const std::string& key) {
    std::string_view value;
    if (!document_->Find(Scope::TopLevel, key, value))
        return std::nullopt;
    return std::string(value);
}

int ConfigFile::SetEntry(const std::string& key, const std::string& value) {
    return document_->Set(Scope::TopLevel, key, value);
}

void ConfigFile::ClearAll() {
    document_->Clear();
}

int ConfigFile::Save(bool, const char* path) {
    return document_.Save(path);
}

}  // namespace Configuration
