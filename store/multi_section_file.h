#pragma once

#include <optional>
#include <string>
#include <vector>

#include "store/stored_document.h"

namespace Configuration {

/// A file of sections with key=value entries, and perhaps entries at the top level before or
/// between them:
///
///     log level=3
///     section general
///     {
///     current_version=5.1.0
///     }
///
/// The appliance's library has the operations in this form: they return non-zero for success or
/// found, work on the current section or the cursor, and take a null `size` buffer as "not asked
/// for". The overloads that return whole values are what the steps use. Some that no step needs
/// stand here because the appliance's library has them, and its users look for them.
class MultiSectionFile {
public:
    /// Opens the file. With `createFlag` a missing file is no error: it is empty, and Save makes
    /// it. The other flags are the library's own and have no effect here.
    /// Throws FileError when the file cannot be read as a sectioned file.
    explicit MultiSectionFile(const std::string& path, bool createFlag = false,
                              bool secondFlag = false, bool thirdFlag = false);

    const std::string& Path() const { return document_.Path(); }
    /// Whether there is such a file: it was read, or has been saved since.
    bool Exists() const { return document_.Exists(); }

    // The walk over the sections, in file order.
    void Restart();
    int GotoNextSection();
    /// Makes the first section of this name current. An empty name is never found.
    int GotoSection(const std::string& name);
    int GetSectionName(char* buffer, int size) const;
    std::string SectionName() const;
    /// Appends an anonymous section and makes it current. The flags have no effect, but the second
    /// form needs its flag: with a literal name alone, the first form would be called.
    int AddSection(bool flag);
    int AddSection(const std::string& name, bool flag);
    int DeleteSection();
    int DeleteSection(const std::string& name);

    // Entries of the current section.
    int GetSectionEntry(const std::string& key, char* buffer, int size);
    std::optional<std::string> GetSectionEntry(const std::string& key);
    int SetSectionEntry(const std::string& key, const std::string& value);
    /// Appends without looking for an entry of this key.
    int AddSectionEntry(const std::string& key, const std::string& value);
    int DeleteSectionEntry(const std::string& key);
    int GotoSecEntry(const std::string& key);
    void RestartSection();
    int GotoSecNextEntry();
    int GetSecCurrentEntry(char* key, int keySize, char* value, int valueSize) const;
    std::optional<Entry> GetSecCurrentEntry() const;
    int SetSecCurrentEntry(const std::string& value);
    /// Deletes the entry under the cursor itself, also where its key is repeated.
    int DeleteSecCurrentEntry();
    int GetSecEntryCount() const;
    /// All entries of the current section, copied out: the section may be changed meanwhile.
    std::vector<Entry> SectionEntries() const;

    // Entries of the top level.
    int GetEntry(const std::string& key, char* buffer, int size);
    std::optional<std::string> GetEntry(const std::string& key);
    int SetEntry(const std::string& key, const std::string& value);
    int DeleteEntry(const std::string& key);
    void RestartEntries();
    int GotoNextEntry();
    int GetCurrentEntry(char* key, int keySize, char* value, int valueSize) const;
    std::vector<Entry> Entries() const;

    /// Writes the file back, whole or not at all; nothing is written when its bytes would be the
    /// same. `path` null is the file's own. Returns 0 on failure; LastError tells why.
    int Save(bool flag = true, const char* path = nullptr);
    const std::string& LastError() const { return document_.LastError(); }
    /// For a file that is made from others: should Save make it, it gets mode, owner and access
    /// list of the first file named here, and nobody may do with it what another one named here
    /// denies. Passwords must not get readable by moving.
    void InheritRights(const std::string& path) { document_.InheritRights(path); }

private:
    StoredDocument document_;
};

}  // namespace Configuration
