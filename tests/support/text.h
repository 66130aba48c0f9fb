#pragma once

#include <string>
#include <vector>

using Names = std::vector<std::string>;

/// A file's text from a short form: "|" ends a line, "[name|" and "]" stand around a section.
std::string Text(const std::string& shortForm);
/// The short form of a text; what has none stays as it is.
std::string ShortForm(std::string text);

/// The short form of a file that ends inside a section.
inline constexpr const char* malformed = "[open|key=value|";

/// The form of a file in test data: "section name { a=1 | b=2 }" stands for a section of plain
/// entries, and "a=1 | b=2" for two lines. Folded folds what fits into a line.
std::string Folded(const std::string& text);
std::string Unfolded(const std::string& text);

/// The lines of a text, without their ends, and back.
Names Lines(const std::string& text);
std::string Joined(const Names& lines);
std::string Replaced(std::string text, const std::string& what, const std::string& by);
bool Holds(const std::string& text, const std::string& part);

/// The newest version of as many fields that is older: 5.1.99 for 5.2.0.
std::string Below(const std::string& version);
