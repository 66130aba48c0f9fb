// A document's entries: by key, and under the cursors.

#include "store/document.h"

namespace Configuration {

bool Document::CanStand(Scope scope, std::string_view key, std::string_view value) const {
    if (key.empty() || key.front() == commentSign)
        return false;
    for (const char c : key)
        if (c == assignSign || c == '\n')
            return false;
    if (value.find('\n') != std::string_view::npos)
        return false;
    // At the top level, "section x" would be read back as a header; "section" alone would not, for
    // it has the "=" behind it.
    return scope == Scope::Section || layout_ == Layout::Flat ||
           key.size() == sectionKeyword.size() || !IsHeader(key);
}

Line Document::EntryLine(std::string_view key, std::string_view value) {
    // A value that ends in "\r" would lose it to a bare "\n" behind it.
    const std::string_view end = value.ends_with('\r') ? "\r\n" : std::string_view(lineEnd_);
    Line line = MakeLine({key, {&assignSign, 1}, value, end});
    line.keyLength = static_cast<std::uint32_t>(key.size());
    line.valueBegin = line.keyLength + 1;
    return line;
}

void Document::ChangeValue(Line& line, std::string_view value) {
    if (line.Value() == value)
        return;
    const std::string_view text = line.Text();
    std::string_view end = text.substr(WithoutLineEnd(text).size());
    if (end == "\n" && value.ends_with('\r'))
        end = "\r\n";
    ChangeText(line, {text.substr(0, line.valueBegin), value, end});
}

// Entries by key.

/// Calls `visit` for each entry of a scope with its line and place, until it returns true; counts
/// what was looked at.
template <typename Visit>
void Document::ScanEntries(Scope scope, Visit visit) {
    auto section = scope == Scope::Section ? current_ : sections_.begin();
    const auto end = scope == Scope::Section ? std::next(section) : sections_.end();
    for (; section != end; ++section) {
        const Lines& lines = LinesOf(scope, *section);
        KeysOf(scope).CountScanned(lines.size() + 1);
        for (std::size_t i = 0; i < lines.size(); ++i)
            if (lines[i].IsEntry() && visit(lines[i], Place{section, i}))
                return;
    }
}

bool Document::FindPlace(Scope scope, std::string_view key, Place& found) {
    key = Trimmed(key);
    if (key.empty() || (scope == Scope::Section && !isCurrent_))
        return false;
    KeyIndex& keys = KeysOf(scope);
    if (keys.IsDue()) {
        keys.Make();
        ScanEntries(scope, [&](const Line& line, const Place& place) {
            keys.Note(line.Key(), place);
            return false;
        });
    }
    if (keys.IsMade()) {
        const Place* const place = keys.Find(key);
        if (place != nullptr)
            found = *place;
        return place != nullptr;
    }
    bool isFound = false;
    ScanEntries(scope, [&](const Line& line, const Place& place) {
        isFound = line.Key() == key;
        if (isFound)
            found = place;
        return isFound;
    });
    return isFound;
}

bool Document::Find(Scope scope, std::string_view key, std::string_view& value) {
    Place place;
    if (!FindPlace(scope, key, place))
        return false;
    value = LineAt(scope, place).Value();
    return true;
}

bool Document::Set(Scope scope, std::string_view key, std::string_view value) {
    Place place;
    if (!FindPlace(scope, key, place))
        return Add(scope, key, value);
    if (!CanStand(scope, Trimmed(key), value))
        return false;
    ChangeValue(LineAt(scope, place), value);
    return true;
}

bool Document::Add(Scope scope, std::string_view key, std::string_view value) {
    key = Trimmed(key);
    if (!CanStand(scope, key, value) || (scope == Scope::Section && !isCurrent_))
        return false;
    if (scope == Scope::Section)
        AddToSection(key, value);
    else
        AddToTopLevel(key, value);
    return true;
}

void Document::AddToSection(std::string_view key, std::string_view value) {
    Lines& body = current_->body;
    // Behind the last entry, so that comments and blank lines before the "}" stay the last.
    std::size_t index = body.size() - 1;  // of "}"
    while (index > current_->open + 1 && !body[index - 1].IsEntry())
        --index;
    const Line line = EntryLine(key, value);
    body.insert(body.begin() + static_cast<std::ptrdiff_t>(index), line);
    entryKeys_.Note(line.Key(), {current_, index});
}

/// Behind the last top-level entry, or else directly before the first section.
void Document::AddToTopLevel(std::string_view key, std::string_view value) {
    auto section = std::prev(sections_.end());
    std::size_t index = 0;
    for (;; --section) {
        const Lines& lines = section->after;
        index = lines.size();
        while (index > 0 && !lines[index - 1].IsEntry())
            --index;
        if (index > 0 || section == sections_.begin())
            break;
    }
    Lines& lines = section->after;
    if (index == 0)
        index = lines.size();
    if (index > 0)
        EndLine(lines[index - 1]);
    const Line line = EntryLine(key, value);
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(index), line);
    topKeys_.Note(line.Key(), {section, index});
}

void Document::EraseLine(Scope scope, const Place& place) {
    KeysOf(scope).Undo();
    Lines& lines = LinesOf(scope, *place.section);
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(place.index));
    Cursor& cursor = CursorOf(scope);
    const auto index = static_cast<std::ptrdiff_t>(place.index);
    if (cursor.section != place.section || index > cursor.index)
        return;
    if (index == cursor.index)
        cursor.onEntry = false;
    --cursor.index;
}

bool Document::Delete(Scope scope, std::string_view key) {
    Place place;
    if (!FindPlace(scope, key, place))
        return false;
    EraseLine(scope, place);
    return true;
}

// Entries under the cursor.

void Document::RestartEntries(Scope scope) {
    CursorOf(scope) = {scope == Scope::Section ? current_ : sections_.begin(), -1, false};
}

bool Document::GotoNextEntry(Scope scope) {
    Cursor& cursor = CursorOf(scope);
    cursor.onEntry = false;
    if (scope == Scope::Section && !isCurrent_)
        return false;
    for (;;) {
        const Lines& lines = LinesOf(scope, *cursor.section);
        const auto size = static_cast<std::ptrdiff_t>(lines.size());
        while (cursor.index + 1 < size) {
            ++cursor.index;
            if (lines[static_cast<std::size_t>(cursor.index)].IsEntry())
                return cursor.onEntry = true;
        }
        if (scope == Scope::Section || std::next(cursor.section) == sections_.end())
            return false;
        ++cursor.section;
        cursor.index = -1;
    }
}

bool Document::GotoEntry(Scope scope, std::string_view key) {
    Place place;
    if (!FindPlace(scope, key, place))
        return false;
    CursorOf(scope) = {place.section, static_cast<std::ptrdiff_t>(place.index), true};
    return true;
}

Line* Document::LineUnderCursor(Scope scope) {
    const Cursor& cursor = CursorOf(scope);
    if (!cursor.onEntry || (scope == Scope::Section && !isCurrent_))
        return nullptr;
    return &LineAt(scope, {cursor.section, static_cast<std::size_t>(cursor.index)});
}

bool Document::CurrentEntry(Scope scope, std::string_view& key, std::string_view& value) const {
    const Line* const line = LineUnderCursor(scope);
    if (line == nullptr)
        return false;
    key = line->Key();
    value = line->Value();
    return true;
}

bool Document::SetCurrentEntry(Scope scope, std::string_view value) {
    Line* const line = LineUnderCursor(scope);
    if (line == nullptr || value.find('\n') != std::string_view::npos)
        return false;
    ChangeValue(*line, value);
    return true;
}

bool Document::DeleteCurrentEntry(Scope scope) {
    if (LineUnderCursor(scope) == nullptr)
        return false;
    const Cursor& cursor = CursorOf(scope);
    EraseLine(scope, {cursor.section, static_cast<std::size_t>(cursor.index)});
    return true;
}

template <typename Visit>
void Document::ForEachEntry(Scope scope, Visit visit) const {
    const auto visitLines = [&](const Lines& lines) {
        for (const Line& line : lines)
            if (line.IsEntry())
                visit(line);
    };
    if (scope == Scope::TopLevel)
        for (const Section& section : sections_)
            visitLines(section.after);
    else if (isCurrent_)
        visitLines(current_->body);
}

std::vector<Entry> Document::Entries(Scope scope) const {
    std::vector<Entry> entries;
    ForEachEntry(scope, [&](const Line& line) {
        entries.push_back({std::string(line.Key()), std::string(line.Value())});
    });
    return entries;
}

std::size_t Document::CountEntries(Scope scope) const {
    std::size_t count = 0;
    ForEachEntry(scope, [&](const Line&) { ++count; });
    return count;
}

}  // namespace Configuration
