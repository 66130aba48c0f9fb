#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "store/file_error.h"
#include "store/indexes.h"
#include "store/lines.h"
#include "store/text_pool.h"

namespace Configuration {

/// One key=value entry, copied out of a file.
struct Entry {
    std::string key;
    std::string value;
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
    /// Between two lines, or on the line of an entry.
    struct Cursor {
        Sections::iterator section;
        std::ptrdiff_t index = -1;
        bool onEntry = false;
    };

    void MakeCurrent(Sections::iterator section);

    // A scope's own things, and its lines in one section.
    Cursor& CursorOf(Scope scope) { return scope == Scope::Section ? entryCursor_ : topCursor_; }
    KeyIndex& KeysOf(Scope scope) { return scope == Scope::Section ? entryKeys_ : topKeys_; }
    static Lines& LinesOf(Scope scope, Section& section) {
        return scope == Scope::Section ? section.body : section.after;
    }
    static Line& LineAt(Scope scope, const Place& place) {
        return LinesOf(scope, *place.section)[place.index];
    }
    /// The line under the scope's cursor; null when it is on none.
    Line* LineUnderCursor(Scope scope);
    const Line* LineUnderCursor(Scope scope) const {
        return const_cast<Document*>(this)->LineUnderCursor(scope);
    }
    void EraseLine(Scope scope, const Place& place);

    Line MakeLine(std::initializer_list<std::string_view> parts);
    void ChangeText(Line& line, std::initializer_list<std::string_view> parts);
    bool CanStand(Scope scope, std::string_view key, std::string_view value) const;
    Line EntryLine(std::string_view key, std::string_view value);
    void EndLine(Line& line);
    void ChangeValue(Line& line, std::string_view value);
    void AddToSection(std::string_view key, std::string_view value);
    void AddToTopLevel(std::string_view key, std::string_view value);
    bool FindPlace(Scope scope, std::string_view key, Place& found);
    template <typename Visit>
    void ScanEntries(Scope scope, Visit visit);
    template <typename Visit>
    void ForEachEntry(Scope scope, Visit visit) const;

    Layout layout_;
    std::string original_;
    TextPool added_;  // texts of new and changed lines
    std::string lineEnd_ = "\n";
    Sections sections_;

    Sections::iterator current_;
    bool isCurrent_ = false;  // false: current_ is only where the walk stands
    Cursor entryCursor_;
    Cursor topCursor_;

    KeyIndex entryKeys_;  // of the current section
    KeyIndex topKeys_;
    NameIndex names_;
};

}  // namespace Configuration
