#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

namespace Configuration {

// What a configuration file is made of, and what its lines look like.

inline constexpr std::string_view sectionKeyword = "section";
inline constexpr std::string_view openText = "{";
inline constexpr std::string_view closeText = "}";
inline constexpr char assignSign = '=';
inline constexpr char commentSign = '#';

/// Whether blanks and tabs stand for nothing here; so does a "\r" that is no line end's.
constexpr bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

/// The text without blanks at its ends.
std::string_view Trimmed(std::string_view text);

/// The line without "\n" or "\r\n". A "\r" at the end of a file belongs to the text.
std::string_view WithoutLineEnd(std::string_view line);

/// Whether a trimmed line is a section's header: "section" alone or followed by a blank.
/// "section_id=3" and "section=3" are entries.
bool IsHeader(std::string_view trimmed);

/// One line of a file as it stands there: a view into the file's bytes or, once changed, into a
/// text of its own.
struct Line {
    const char* data = nullptr;  // the whole line with its line end
    std::uint32_t length = 0;
    std::uint32_t keyBegin = 0;
    std::uint32_t keyLength = 0;  // 0: not an entry
    std::uint32_t valueBegin = 0;

    std::string_view Text() const { return {data, length}; }
    std::string_view Key() const { return {data + keyBegin, keyLength}; }
    std::string_view Value() const { return WithoutLineEnd(Text()).substr(valueBegin); }
    bool IsEntry() const { return keyLength != 0; }
};
using Lines = std::vector<Line>;

/// A section and the top-level lines behind it. A document's first one is no section: it holds the
/// lines before the first header.
struct Section {
    std::string_view name;
    Lines body;            // header, "{", entries and comments, "}"
    std::size_t open = 0;  // index of "{" in body
    Lines after;
};
using Sections = std::list<Section>;

/// Takes a flat file's text apart: all its lines stand at the top level, and one that is no entry
/// is simply kept.
Sections ParseFlat(std::string_view text);

/// Takes a sectioned file's text apart; `path` only serves the error text.
/// Throws FileError, with the number of the line, when it is malformed.
Sections ParseSectioned(std::string_view text, const std::string& path);

}  // namespace Configuration
