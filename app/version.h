#pragma once

#include <optional>
#include <string>

/// A label file as the version check takes it.
struct Label {
    /// What one read gives without its last byte, normally the line end, and up to the first NUL.
    /// Nothing when the file cannot be opened.
    std::optional<std::string> text;
    bool tooLong = false;  // it fills what is read, and is none
    char last = '\n';      // the byte that was taken for the line end

    bool IsUsable() const { return text && !tooLong; }
};

Label ReadLabel(const std::string& path);

/// Compares dotted versions of the same number of fields field by field, as numbers: true when
/// `live` is the older one. With different numbers of fields nothing is compared: a live version of
/// at most two fields (unknown, or very old) is older than anything, one of three or more older
/// than nothing.
bool IsOlderVersion(const std::string& live, const std::string& version);

/// Whether a version is newer than another, field by field as numbers; a field that is not there is
/// 0. For labels that must not go back; gates have the rule above.
bool IsNewerLabel(const std::string& label, const std::string& than);
