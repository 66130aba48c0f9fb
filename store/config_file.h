#pragma once

#include <optional>
#include <string>

#include "store/stored_document.h"

namespace Configuration {

/// A flat file of key=value entries. Any other line is kept as it stands.
class ConfigFile {
public:
    /// Opens the file. With `createFlag` a missing file is no error: it is empty, and Save makes
    /// it. The other flags are the library's own and have no effect here.
    /// Throws FileError when the file cannot be read.
    explicit ConfigFile(const std::string& path, bool createFlag = false, bool secondFlag = false,
                        bool thirdFlag = false);

    const std::string& Path() const { return document_.Path(); }

    /// Non-zero when found; the value is cut to fit `size`, its NUL included.
    int GetEntry(const std::string& key, char* buffer, int size);
    std::optional<std::string> GetEntry(const std::string& key);
    int SetEntry(const std::string& key, const std::string& value);
    /// Leaves nothing, comments included.
    void ClearAll();

    /// As MultiSectionFile::Save.
    int Save(bool flag = true, const char* path = nullptr);
    const std::string& LastError() const { return document_.LastError(); }

private:
    StoredDocument document_;
};

}  // namespace Configuration
