#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Configuration {

/// One key=value entry, copied out of a file.
struct Entry {
    std::string key;
    std::string value;
};

/// A file that cannot be read, or not as the kind of file it is opened as. The text names the
/// file, the line where there is one, and what is wrong.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The lines of one configuration file, kept as they stand in it: every comment, blank line,
/// indentation and line end survives, and an edit touches its own line alone.
///
/// Both kinds of file share it. A flat file is a document whose lines all stand at the top level
/// and in which a line that is no entry is simply kept.
///
/// Two cursors walk it: the section cursor (with an entry cursor inside the current section) and
/// the cursor over the top-level entries. Deleting what a cursor stands on leaves the cursor before
/// the item that followed.
class Document {
public:
    enum class Layout { Sectioned, Flat };

    /// Takes the file's bytes apart; `path` only serves the error text.
    /// Throws FileError when a sectioned file is malformed; a flat file always parses.
    Document(std::string bytes, Layout layout, const std::string& path);

    // The lines are views into this object's own storage, so it stays where it is.
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    /// The file's bytes with all edits.
    std::string Text() const;
    /// The bytes it was made from.
    const std::string& OriginalText() const { return original_; }

    /// Removes every line, comments included.
    void Clear();

    // Sections. The functions that act on the current section return false (or nothing) when no
    // section is current.
    void Restart();
    bool GotoNextSection();
    bool GotoSection(std::string_view name);
    std::string_view SectionName() const;
    /// Appends a section (anonymous when `name` is empty) and makes it current. False, with nothing
    /// changed, when the name cannot stand on one line.
    bool AddSection(std::string_view name);
    bool DeleteSection();

    enum class Scope { Section, TopLevel };

    // Entries of the current section or of the top level. Of a repeated key the first counts.
    /// False when the key is absent. The view lasts until the document is changed.
    bool Find(Scope scope, std::string_view key, std::string_view& value);
    /// Sets or appends. False, with nothing changed, when there is no current section or when key
    /// or value could not be read back from the line (an empty key, "=" or "#" in its wrong
    /// place, a line break).
    bool Set(Scope scope, std::string_view key, std::string_view value);
    bool Add(Scope scope, std::string_view key, std::string_view value);
    bool Delete(Scope scope, std::string_view key);

    void RestartEntries(Scope scope);
    bool GotoNextEntry(Scope scope);
    bool GotoEntry(Scope scope, std::string_view key);
    /// Copies the entry under the cursor; false when the cursor is on none.
    bool CurrentEntry(Scope scope, std::string_view& key, std::string_view& value) const;
    bool SetCurrentEntry(Scope scope, std::string_view value);
    /// Deletes the entry under the cursor itself, also where its key is repeated.
    bool DeleteCurrentEntry(Scope scope);
    std::size_t CountEntries(Scope scope) const;
    std::vector<Entry> Entries(Scope scope) const;

private:
    struct Line {
        const char* data = nullptr;  // the whole line with its line end
        std::uint32_t length = 0;
        std::uint32_t keyBegin = 0;
        std::uint32_t keyLength = 0;  // 0: not an entry
        std::uint32_t valueBegin = 0;

        std::string_view Text() const { return {data, length}; }
        std::string_view Key() const { return {data + keyBegin, keyLength}; }
        std::string_view Value() const;
        bool IsEntry() const { return keyLength != 0; }
    };
    using Lines = std::vector<Line>;

    /// A section and the top-level lines behind it. The list's first element is no section: it
    /// holds the lines before the first one.
    struct Section {
        std::string_view name;
        Lines body;            // header, "{", entries and comments, "}"
        std::size_t open = 0;  // index of "{" in body
        Lines after;
    };
    using Sections = std::list<Section>;
    using Part = Lines Section::*;

    struct Cursor {
        Sections::iterator section;
        std::ptrdiff_t index = -1;
        bool onEntry = false;
    };
    struct Place {
        Sections::iterator section;
        std::size_t index = 0;
        bool found = false;
    };

    /// Where each key of a scope stands first. Scanning the lines is quicker for a few look-ups, so
    /// it is made when many lines were scanned, and later each time that a deletion undid it.
    struct KeyIndex {
        std::unordered_map<std::string_view, Place> places;
        bool made = false;
        std::size_t scanned = 0;
        std::size_t limit = 512;  // lines

        /// An entry was added behind all others.
        void Note(std::string_view key, Place place);
        void Undo();
    };

    bool OnEntry(Scope scope) const {
        return CursorOf(scope).onEntry && (scope == Scope::TopLevel || isCurrent_);
    }
    static Part PartOf(Scope scope) {
        return scope == Scope::Section ? &Section::body : &Section::after;
    }
    Cursor& CursorOf(Scope scope) { return scope == Scope::Section ? entryCursor_ : topCursor_; }
    KeyIndex& KeysOf(Scope scope) { return scope == Scope::Section ? entryKeys_ : topKeys_; }
    const Cursor& CursorOf(Scope scope) const {
        return scope == Scope::Section ? entryCursor_ : topCursor_;
    }

    void ParseFlat();
    void ParseSectioned(const std::string& path);
    void Reset();
    void MakeCurrent(Sections::iterator section);

    std::string_view Keep(std::string text);
    Line MakeLine(std::string text);
    bool CanStand(Scope scope, std::string_view key, std::string_view value) const;
    Line EntryLine(std::string_view key, std::string_view value);
    void EndLine(Line& line);
    void ChangeValue(Line& line, std::string_view value);
    Place FindPlace(Scope scope, std::string_view key);
    template <typename Visit>
    void VisitPlaces(Scope scope, Visit visit);
    void IndexNames();
    template <typename Visit>
    void ForEachEntry(Scope scope, Visit visit) const;

    Layout layout_;
    std::string original_;
    std::deque<std::string> added_;  // texts of new and changed lines; a deque never moves them
    std::string lineEnd_ = "\n";
    Sections sections_;

    Sections::iterator current_;
    bool isCurrent_ = false;  // false: current_ is only where the walk stands
    Cursor entryCursor_;
    Cursor topCursor_;

    KeyIndex entryKeys_;  // of the current section
    KeyIndex topKeys_;

    // First section of each name. Built at the first look-up by name.
    std::unordered_map<std::string_view, Sections::iterator> byName_;
    bool namesIndexed_ = false;
    bool namesRepeat_ = false;
};

}  // namespace Configuration
