#pragma once

#include <string>

/// A file's text from a short form: "|" ends a line, "[name|" and "]" stand around a section.
std::string Text(const std::string& shortForm);
/// The short form of a text; what has none stays as it is.
std::string ShortForm(std::string text);

/// The short form of a file that ends inside a section.
inline constexpr const char* malformed = "[open|key=value|";

int Count(const std::string& text, const std::string& part);
bool Holds(const std::string& text, const std::string& part);
