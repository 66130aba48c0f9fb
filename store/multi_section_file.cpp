#include "store/multi_section_file.h"

namespace Configuration {
namespace {

using Scope = Document::Scope;

std::optional<std::string> Value(Document& document, Scope scope, const std::string& key) {
    std::string_view value;
    if (!document.Find(scope, key, value))
        return std::nullopt;
    return std::string(value);
}

int CopyValue(Document& document, Scope scope, const std::string& key, char* buffer, int size) {
    std::string_view value;
    return document.Find(scope, key, value) ? CopyText(value, buffer, size) : 0;
}

/// A null buffer of size 0 is not asked for.
int CopyCurrent(const Document& document, Scope scope, char* key, int keySize, char* value,
                int valueSize) {
    std::string_view keyText;
    std::string_view valueText;
    if (!document.CurrentEntry(scope, keyText, valueText))
        return 0;
    const int copiedKey = CopyText(keyText, key, keySize);
    const int copiedValue = CopyText(valueText, value, valueSize);
    return copiedKey | copiedValue;
}

}  // namespace

MultiSectionFile::MultiSectionFile(const std::string& path, bool createFlag, bool, bool)
    : document_(path, createFlag, Document::Layout::Sectioned) {}

void MultiSectionFile::Restart() {
    document_->Restart();
}

int MultiSectionFile::GotoNextSection() {
    return document_->GotoNextSection();
}

int MultiSectionFile::GotoSection(const std::string& name) {
    return document_->GotoSection(name);
}

int MultiSectionFile::GetSectionName(char* buffer, int size) const {
    return CopyText(document_->SectionName(), buffer, size);
}

std::string MultiSectionFile::SectionName() const {
    return std::string(document_->SectionName());
}

int MultiSectionFile::AddSection(bool) {
    return document_->AddSection({});
}

int MultiSectionFile::AddSection(const std::string& name, bool) {
    return document_->AddSection(name);
}

int MultiSectionFile::DeleteSection() {
    return document_->DeleteSection();
}

int MultiSectionFile::DeleteSection(const std::string& name) {
    return document_->GotoSection(name) && document_->DeleteSection();
}

int MultiSectionFile::GetSectionEntry(const std::string& key, char* buffer, int size) {
    return CopyValue(*document_, Scope::Section, key, buffer, size);
}

std::optional<std::string> MultiSectionFile::GetSectionEntry(const std::string& key) {
    return Value(*document_, Scope::Section, key);
}

int MultiSectionFile::SetSectionEntry(const std::string& key, const std::string& value) {
    return document_->Set(Scope::Section, key, value);
}

int MultiSectionFile::AddSectionEntry(const std::string& key, const std::string& value) {
    return document_->Add(Scope::Section, key, value);
}

int MultiSectionFile::DeleteSectionEntry(const std::string& key) {
    return document_->Delete(Scope::Section, key);
}

int MultiSectionFile::GotoSecEntry(const std::string& key) {
    return document_->GotoEntry(Scope::Section, key);
}

void MultiSectionFile::RestartSection() {
    document_->RestartEntries(Scope::Section);
}

int MultiSectionFile::GotoSecNextEntry() {
    return document_->GotoNextEntry(Scope::Section);
}

int MultiSectionFile::GetSecCurrentEntry(char* key, int keySize, char* value, int valueSize) const {
    return CopyCurrent(*document_, Scope::Section, key, keySize, value, valueSize);
}

std::optional<Entry> MultiSectionFile::GetSecCurrentEntry() const {
    std::string_view key;
    std::string_view value;
    if (!document_->CurrentEntry(Scope::Section, key, value))
        return std::nullopt;
    return Entry{std::string(key), std::string(value)};
}

int MultiSectionFile::SetSecCurrentEntry(const std::string& value) {
    return document_->SetCurrentEntry(Scope::Section, value);
}

int MultiSectionFile::DeleteSecCurrentEntry() {
    return document_->DeleteCurrentEntry(Scope::Section);
}

int MultiSectionFile::GetSecEntryCount() const {
    return static_cast<int>(document_->CountEntries(Scope::Section));
}

std::vector<Entry> MultiSectionFile::SectionEntries() const {
    return document_->Entries(Scope::Section);
}

int MultiSectionFile::GetEntry(const std::string& key, char* buffer, int size) {
    return CopyValue(*document_, Scope::TopLevel, key, buffer, size);
}

std::optional<std::string> MultiSectionFile::GetEntry(const std::string& key) {
    return Value(*document_, Scope::TopLevel, key);
}

int MultiSectionFile::SetEntry(const std::string& key, const std::string& value) {
    return document_->Set(Scope::TopLevel, key, value);
}

int MultiSectionFile::DeleteEntry(const std::string& key) {
    return document_->Delete(Scope::TopLevel, key);
}

void MultiSectionFile::RestartEntries() {
    document_->RestartEntries(Scope::TopLevel);
}

int MultiSectionFile::GotoNextEntry() {
    return document_->GotoNextEntry(Scope::TopLevel);
}

int MultiSectionFile::GetCurrentEntry(char* key, int keySize, char* value, int valueSize) const {
    return CopyCurrent(*document_, Scope::TopLevel, key, keySize, value, valueSize);
}

std::vector<Entry> MultiSectionFile::Entries() const {
    return document_->Entries(Scope::TopLevel);
}

int MultiSectionFile::Save(bool, const char* path) {
    return document_.Save(path);
}

}  // namespace Configuration
