#pragma once

#include <string>
#include <vector>

namespace StringUtils {

/// Splits a text at every separator. Empty items stay; an empty text has no item.
std::vector<std::string> ParseCommaLine(const std::string& text, char separator);

/// Cuts any of `characters` off the chosen ends.
std::string Trim(const std::string& text, const std::string& characters, bool left, bool right);

/// Replaces every `from` at or behind `start` by `to`.
std::string ReplaceString(const std::string& text, const std::string& from, const std::string& to,
                          std::size_t start);

/// Whether the text is a number: one or more ASCII digits, with a leading sign only if `allowSign`
/// and one decimal point only if `allowPoint`.
bool IsNumeric(const std::string& text, bool allowSign, bool allowPoint);

}  // namespace StringUtils
