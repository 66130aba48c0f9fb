#pragma once

#include <string>

/// Compares dotted versions of the same number of fields field by field, as numbers: true when
/// `live` is the older one. With different numbers of fields nothing is compared: a live version of
/// at most two fields (unknown, or very old) is older than anything, one of three or more older
/// than nothing.
bool IsOlderVersion(const std::string& live, const std::string& version);

/// Whether a version is newer than another, field by field as numbers; a field that is not there is
/// 0. For labels that must not go back; gates have the rule above.
bool IsNewerLabel(const std::string& label, const std::string& than);
