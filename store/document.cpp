#include "store/document.h"

#include <limits>

namespace Configuration {
namespace {

constexpr std::string_view sectionKeyword = "section";
constexpr std::string_view openText = "{";
constexpr std::string_view closeText = "}";
constexpr char assignSign = '=';
constexpr char commentSign = '#';
constexpr std::string_view blanks = " \t\r";

std::string_view Trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// The line without "\n" or "\r\n". A "\r" at the end of a file belongs to the text.
std::string_view WithoutLineEnd(std::string_view line) {
    if (line.empty() || line.back() != '\n')
        return line;
    line.remove_suffix(1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

bool IsSilent(std::string_view trimmed) {
    return trimmed.empty() || trimmed.front() == commentSign;
}

/// "section" alone or followed by a blank. "section_id=3" and "section=3" are entries.
bool IsHeader(std::string_view trimmed) {
    if (trimmed.substr(0, sectionKeyword.size()) != sectionKeyword)
        return false;
    return trimmed.size() == sectionKeyword.size() ||
           blanks.find(trimmed[sectionKeyword.size()]) != std::string_view::npos;
}

/// Cuts the next line, line end included, off the front of `rest`.
std::string_view TakeLine(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
    rest.remove_prefix(line.size());
    return line;
}

}  // namespace

std::string_view Document::Line::Value() const {
    return WithoutLineEnd(Text()).substr(valueBegin);
}

Document::Document(std::string bytes, Layout layout, const std::string& path)
    : layout_(layout), original_(std::move(bytes)) {
    if (original_.size() > std::numeric_limits<std::uint32_t>::max())
        throw FileError(path + ": file is too large");
    const std::size_t firstEnd = original_.find('\n');
    if (firstEnd != std::string::npos && firstEnd > 0 && original_[firstEnd - 1] == '\r')
        lineEnd_ = "\r\n";
    Reset();
    if (layout_ == Layout::Flat)
        ParseFlat();
    else
        ParseSectioned(path);
}

void Document::Reset() {
    entryKeys_ = topKeys_ = {};
    byName_.clear();
    namesIndexed_ = namesRepeat_ = false;
    sections_.clear();
    sections_.emplace_back();
    Restart();
    RestartEntries(Scope::TopLevel);
}

void Document::Clear() {
    Reset();
    lineEnd_.assign(1, '\n');
}

namespace {

struct EntryParts {
    std::size_t keyBegin = 0;
    std::size_t keyLength = 0;
    std::size_t valueBegin = 0;
    bool assigned = false;  // the line holds an assignment, perhaps with an empty key
};

EntryParts SplitEntry(std::string_view line) {
    EntryParts parts;
    const std::size_t assign = line.find(assignSign);
    if (assign == std::string_view::npos)
        return parts;
    const std::string_view key = Trimmed(line.substr(0, assign));
    parts.assigned = true;
    parts.keyBegin = key.empty() ? 0 : static_cast<std::size_t>(key.data() - line.data());
    parts.keyLength = key.size();
    parts.valueBegin = assign + 1;
    return parts;
}

}  // namespace

void Document::ParseFlat() {
    std::string_view rest = original_;
    Lines& lines = sections_.front().after;
    while (!rest.empty()) {
        const std::string_view text = TakeLine(rest);
        Line line{text.data(), static_cast<std::uint32_t>(text.size()), 0, 0, 0};
        if (!IsSilent(Trimmed(text.substr(0, WithoutLineEnd(text).size())))) {
            const EntryParts parts = SplitEntry(WithoutLineEnd(text));
            line.keyBegin = static_cast<std::uint32_t>(parts.keyBegin);
            line.keyLength = static_cast<std::uint32_t>(parts.keyLength);
            line.valueBegin = static_cast<std::uint32_t>(parts.valueBegin);
        }
        lines.push_back(line);
    }
}

void Document::ParseSectioned(const std::string& path) {
    enum class State { TopLevel, Header, Body } state = State::TopLevel;
    std::string_view rest = original_;
    std::size_t number = 0;
    const auto fail = [&](const char* what) {
        throw FileError(path + ", line " + std::to_string(number) + ": " + what);
    };
    while (!rest.empty()) {
        ++number;
        const std::string_view text = TakeLine(rest);
        const std::string_view content = WithoutLineEnd(text);
        const std::string_view trimmed = Trimmed(content);
        Line line{text.data(), static_cast<std::uint32_t>(text.size()), 0, 0, 0};
        Section& section = sections_.back();

        if (IsSilent(trimmed)) {
            (state == State::TopLevel ? section.after : section.body).push_back(line);
            continue;
        }
        if (state == State::Header) {
            if (trimmed != openText)
                fail("section header without \"{\"");
            section.open = section.body.size();
            section.body.push_back(line);
            state = State::Body;
            continue;
        }
        if (state == State::Body && trimmed == closeText) {
            section.body.push_back(line);
            state = State::TopLevel;
            continue;
        }
        if (state == State::TopLevel && IsHeader(trimmed)) {
            const std::size_t alike = section.body.size();  // as most sections of a file are
            Section& added = sections_.emplace_back();
            added.body.reserve(alike);
            added.name = Trimmed(trimmed.substr(sectionKeyword.size()));
            added.body.push_back(line);
            state = State::Header;
            continue;
        }
        const EntryParts parts = SplitEntry(content);
        if (!parts.assigned) {
            if (trimmed == closeText)
                fail("\"}\" without a section");
            if (trimmed == openText)
                fail("\"{\" without a section header");
            if (IsHeader(trimmed))
                fail("section inside a section");
            fail("line is no section header, brace or key=value entry");
        }
        if (parts.keyLength == 0)
            fail("entry without a key");
        line.keyBegin = static_cast<std::uint32_t>(parts.keyBegin);
        line.keyLength = static_cast<std::uint32_t>(parts.keyLength);
        line.valueBegin = static_cast<std::uint32_t>(parts.valueBegin);
        (state == State::TopLevel ? section.after : section.body).push_back(line);
    }
    if (state != State::TopLevel)
        fail("end of file inside a section");
}

std::string Document::Text() const {
    const auto forEachLine = [this](auto visit) {
        for (const Section& section : sections_)
            for (const Lines* lines : {&section.body, &section.after})
                for (const Line& line : *lines)
                    visit(line.Text());
    };
    // Exactly: growing a text that is nearly as large as the file would double it.
    std::size_t size = 0;
    forEachLine([&](std::string_view line) { size += line.size(); });
    std::string text;
    text.reserve(size);
    forEachLine([&](std::string_view line) { text += line; });
    return text;
}

void Document::Restart() {
    current_ = sections_.begin();
    isCurrent_ = false;
    RestartEntries(Scope::Section);
}

void Document::MakeCurrent(Sections::iterator section) {
    if (section != current_ || !isCurrent_)
        entryKeys_ = {};
    current_ = section;
    isCurrent_ = true;
    RestartEntries(Scope::Section);
}

bool Document::GotoNextSection() {
    const auto next = std::next(current_);
    if (next == sections_.end()) {
        isCurrent_ = false;
        return false;
    }
    MakeCurrent(next);
    return true;
}

void Document::IndexNames() {
    if (namesIndexed_)
        return;
    for (auto section = std::next(sections_.begin()); section != sections_.end(); ++section)
        if (!section->name.empty() && !byName_.try_emplace(section->name, section).second)
            namesRepeat_ = true;
    namesIndexed_ = true;
}

bool Document::GotoSection(std::string_view name) {
    IndexNames();
    const auto found = byName_.find(name);
    isCurrent_ = false;
    if (name.empty() || found == byName_.end())
        return false;
    MakeCurrent(found->second);
    return true;
}

std::string_view Document::SectionName() const {
    return isCurrent_ ? current_->name : std::string_view();
}

bool Document::AddSection(std::string_view name) {
    name = Trimmed(name);
    if (layout_ == Layout::Flat || name.find('\n') != std::string_view::npos)
        return false;
    Section& last = sections_.back();
    Lines& lastLines = last.after.empty() ? last.body : last.after;
    if (!lastLines.empty())
        EndLine(lastLines.back());

    const auto added = sections_.emplace(sections_.end());
    std::string header(sectionKeyword);
    if (!name.empty())
        header.append(" ").append(name);
    added->body = {MakeLine(header + lineEnd_), MakeLine(std::string(openText) + lineEnd_),
                   MakeLine(std::string(closeText) + lineEnd_)};
    added->open = 1;
    added->name = Trimmed(WithoutLineEnd(added->body.front().Text()).substr(sectionKeyword.size()));
    if (namesIndexed_ && !name.empty() && !byName_.try_emplace(added->name, added).second)
        namesRepeat_ = true;
    MakeCurrent(added);
    return true;
}

bool Document::DeleteSection() {
    if (!isCurrent_)
        return false;
    entryKeys_ = {};
    topKeys_.Undo();
    const auto previous = std::prev(current_);
    if (topCursor_.section == current_) {
        topCursor_.section = previous;
        topCursor_.index += static_cast<std::ptrdiff_t>(previous->after.size());
    }
    // What stands behind the section stays: it is not the section's.
    previous->after.insert(previous->after.end(), current_->after.begin(), current_->after.end());
    if (namesRepeat_) {
        byName_.clear();
        namesIndexed_ = namesRepeat_ = false;
    } else if (namesIndexed_) {
        byName_.erase(current_->name);
    }
    sections_.erase(current_);
    current_ = previous;
    isCurrent_ = false;
    RestartEntries(Scope::Section);
    return true;
}

std::string_view Document::Keep(std::string text) {
    return added_.emplace_back(std::move(text));
}

Document::Line Document::MakeLine(std::string text) {
    const std::string_view kept = Keep(std::move(text));
    return {kept.data(), static_cast<std::uint32_t>(kept.size()), 0, 0, 0};
}

bool Document::CanStand(Scope scope, std::string_view key, std::string_view value) const {
    if (key.empty() || key.front() == commentSign)
        return false;
    if (key.find_first_of("=\n") != std::string_view::npos)
        return false;
    if (value.find('\n') != std::string_view::npos)
        return false;
    return scope == Scope::Section || layout_ == Layout::Flat ||
           key.size() == sectionKeyword.size() || !IsHeader(key);
}

Document::Line Document::EntryLine(std::string_view key, std::string_view value) {
    // A value that ends in "\r" would lose it to a bare "\n" behind it.
    const bool needsReturn = !value.empty() && value.back() == '\r';
    std::string text(key);
    text.append(1, assignSign).append(value).append(needsReturn ? "\r\n" : lineEnd_);
    Line line = MakeLine(std::move(text));
    line.keyLength = static_cast<std::uint32_t>(key.size());
    line.valueBegin = line.keyLength + 1;
    return line;
}

/// Gives the file's last line a line end when it has none, so that another can follow.
void Document::EndLine(Line& line) {
    const std::string_view text = line.Text();
    if (text.empty() || text.back() == '\n')
        return;
    const std::string_view kept =
        Keep(std::string(text) + (text.back() == '\r' ? "\r\n" : lineEnd_));
    line.data = kept.data();
    line.length = static_cast<std::uint32_t>(kept.size());
}

void Document::ChangeValue(Line& line, std::string_view value) {
    if (line.Value() == value)
        return;
    const std::string_view text = line.Text();
    std::string_view end = text.substr(WithoutLineEnd(text).size());
    if (end == "\n" && !value.empty() && value.back() == '\r')
        end = "\r\n";
    std::string changed(text.substr(0, line.valueBegin));
    changed.append(value).append(end);
    const std::string_view kept = Keep(std::move(changed));
    line.data = kept.data();
    line.length = static_cast<std::uint32_t>(kept.size());
}

void Document::KeyIndex::Note(std::string_view key, Place place) {
    if (made)
        places.try_emplace(key, place);
}

void Document::KeyIndex::Undo() {
    if (made)
        limit *= 4;
    places.clear();
    made = false;
    scanned = 0;
}

/// Calls `visit` for each entry of a scope with its key and place, until it returns true.
template <typename Visit>
void Document::VisitPlaces(Scope scope, Visit visit) {
    std::size_t& seen = KeysOf(scope).scanned;
    auto section = scope == Scope::Section ? current_ : sections_.begin();
    const auto end = scope == Scope::Section ? std::next(section) : sections_.end();
    for (; section != end; ++section) {
        const Lines& lines = (*section).*PartOf(scope);
        ++seen;
        for (std::size_t i = 0; i < lines.size(); ++i, ++seen)
            if (lines[i].IsEntry() && visit(lines[i].Key(), Place{section, i, true}))
                return;
    }
}

Document::Place Document::FindPlace(Scope scope, std::string_view key) {
    key = Trimmed(key);
    if (key.empty() || (scope == Scope::Section && !isCurrent_))
        return {};
    KeyIndex& keys = KeysOf(scope);
    if (!keys.made && keys.scanned > keys.limit) {
        VisitPlaces(scope, [&](std::string_view name, Place place) {
            keys.places.try_emplace(name, place);
            return false;
        });
        keys.made = true;
    }
    Place found;
    if (keys.made) {
        const auto known = keys.places.find(key);
        return known == keys.places.end() ? found : known->second;
    }
    VisitPlaces(scope, [&](std::string_view name, Place place) {
        if (name == key)
            found = place;
        return found.found;
    });
    return found;
}

bool Document::Find(Scope scope, std::string_view key, std::string_view& value) {
    const Place place = FindPlace(scope, key);
    if (!place.found)
        return false;
    value = ((*place.section).*PartOf(scope))[place.index].Value();
    return true;
}

bool Document::Set(Scope scope, std::string_view key, std::string_view value) {
    const Place place = FindPlace(scope, key);
    if (!place.found)
        return Add(scope, key, value);
    if (!CanStand(scope, Trimmed(key), value))
        return false;
    ChangeValue(((*place.section).*PartOf(scope))[place.index], value);
    return true;
}

bool Document::Add(Scope scope, std::string_view key, std::string_view value) {
    key = Trimmed(key);
    if (!CanStand(scope, key, value))
        return false;
    if (scope == Scope::Section) {
        if (!isCurrent_)
            return false;
        Lines& body = current_->body;
        std::size_t index = body.size() - 1;  // of "}"
        while (index > current_->open + 1 && !body[index - 1].IsEntry())
            --index;
        const Line line = EntryLine(key, value);
        body.insert(body.begin() + static_cast<std::ptrdiff_t>(index), line);
        entryKeys_.Note(line.Key(), {current_, index, true});
        return true;
    }
    // Behind the last top-level entry, or else directly before the first section.
    auto section = std::prev(sections_.end());
    for (;; --section) {
        Lines& lines = section->after;
        std::size_t index = lines.size();
        while (index > 0 && !lines[index - 1].IsEntry())
            --index;
        if (index == 0 && section != sections_.begin())
            continue;
        if (index == 0)
            index = lines.size();
        if (index > 0)
            EndLine(lines[index - 1]);
        const Line line = EntryLine(key, value);
        lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(index), line);
        topKeys_.Note(line.Key(), {section, index, true});
        return true;
    }
}

bool Document::Delete(Scope scope, std::string_view key) {
    const Place place = FindPlace(scope, key);
    if (!place.found)
        return false;
    KeysOf(scope).Undo();
    Lines& lines = (*place.section).*PartOf(scope);
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(place.index));
    Cursor& cursor = CursorOf(scope);
    const auto index = static_cast<std::ptrdiff_t>(place.index);
    if (cursor.section == place.section && index <= cursor.index) {
        if (index == cursor.index)
            cursor.onEntry = false;
        --cursor.index;
    }
    return true;
}

void Document::RestartEntries(Scope scope) {
    CursorOf(scope) = {scope == Scope::Section ? current_ : sections_.begin(), -1, false};
}

bool Document::GotoNextEntry(Scope scope) {
    Cursor& cursor = CursorOf(scope);
    cursor.onEntry = false;
    if (scope == Scope::Section && !isCurrent_)
        return false;
    for (;;) {
        const Lines& lines = (*cursor.section).*PartOf(scope);
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
    const Place place = FindPlace(scope, key);
    if (!place.found)
        return false;
    CursorOf(scope) = {place.section, static_cast<std::ptrdiff_t>(place.index), true};
    return true;
}

bool Document::CurrentEntry(Scope scope, std::string_view& key, std::string_view& value) const {
    if (!OnEntry(scope))
        return false;
    const Cursor& cursor = CursorOf(scope);
    const Line& line = ((*cursor.section).*PartOf(scope))[static_cast<std::size_t>(cursor.index)];
    key = line.Key();
    value = line.Value();
    return true;
}

bool Document::SetCurrentEntry(Scope scope, std::string_view value) {
    if (!OnEntry(scope) || value.find('\n') != std::string_view::npos)
        return false;
    const Cursor& cursor = CursorOf(scope);
    ChangeValue(((*cursor.section).*PartOf(scope))[static_cast<std::size_t>(cursor.index)], value);
    return true;
}

template <typename Visit>
void Document::ForEachEntry(Scope scope, Visit visit) const {
    if (scope == Scope::Section) {
        if (!isCurrent_)
            return;
        for (const Line& line : current_->body)
            if (line.IsEntry())
                visit(line);
        return;
    }
    for (const Section& section : sections_)
        for (const Line& line : section.after)
            if (line.IsEntry())
                visit(line);
}

bool Document::DeleteCurrentEntry(Scope scope) {
    if (!OnEntry(scope))
        return false;
    Cursor& cursor = CursorOf(scope);
    Lines& lines = (*cursor.section).*PartOf(scope);
    KeysOf(scope).Undo();
    lines.erase(lines.begin() + cursor.index);
    cursor.onEntry = false;
    --cursor.index;
    return true;
}

std::size_t Document::CountEntries(Scope scope) const {
    std::size_t count = 0;
    ForEachEntry(scope, [&](const Line&) { ++count; });
    return count;
}

std::vector<Entry> Document::Entries(Scope scope) const {
    std::vector<Entry> entries;
    ForEachEntry(scope, [&](const Line& line) {
        entries.push_back({std::string(line.Key()), std::string(line.Value())});
    });
    return entries;
}

}  // namespace Configuration
