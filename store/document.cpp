// A document as a whole: its text, its sections and how its lines are made.

#include "store/document.h"

#include <limits>

namespace Configuration {

Document::Document(std::string bytes, Layout layout, const std::string& path)
    : layout_(layout), original_(std::move(bytes)) {
    if (original_.size() > std::numeric_limits<std::uint32_t>::max())
        throw FileError(path + ": file is too large", path.size());
    const std::size_t firstEnd = original_.find('\n');
    if (firstEnd != std::string::npos && firstEnd > 0 && original_[firstEnd - 1] == '\r')
        lineEnd_ = "\r\n";
    sections_ = layout_ == Layout::Flat ? ParseFlat(original_) : ParseSectioned(original_, path);
    Restart();
    RestartEntries(Scope::TopLevel);
}

void Document::Clear() {
    entryKeys_.Reset();
    topKeys_.Reset();
    names_ = {};
    sections_ = Sections(1);
    lineEnd_.assign(1, '\n');
    Restart();
    RestartEntries(Scope::TopLevel);
}

std::string Document::Text() const {
    const auto forEachLine = [this](auto visit) {
        for (const Section& section : sections_)
            for (const Lines* lines : {&section.body, &section.after})
                for (const Line& line : *lines)
                    visit(line);
    };
    // The exact size is reserved: a text that grows as it goes may take twice the file's memory.
    std::size_t size = 0;
    forEachLine([&](const Line& line) { size += line.length; });
    std::string text;
    text.reserve(size);
    // Lines that stand behind each other in memory, as all unchanged ones do, are one piece.
    const char* begin = nullptr;
    const char* end = nullptr;
    forEachLine([&](const Line& line) {
        if (line.data != end) {
            text.append(begin, end);
            begin = line.data;
        }
        end = line.data + line.length;
    });
    text.append(begin, end);
    return text;
}

// Sections.

void Document::Restart() {
    current_ = sections_.begin();
    isCurrent_ = false;
    RestartEntries(Scope::Section);
}

void Document::MakeCurrent(Sections::iterator section) {
    if (section != current_ || !isCurrent_)
        entryKeys_.Reset();
    current_ = section;
    isCurrent_ = true;
    RestartEntries(Scope::Section);
}

bool Document::GotoNextSection() {
    const auto next = std::next(current_);
    isCurrent_ = next != sections_.end();
    if (isCurrent_)
        MakeCurrent(next);
    return isCurrent_;
}

bool Document::GotoSection(std::string_view name) {
    const auto found = name.empty() ? sections_.end() : names_.Find(name, sections_);
    isCurrent_ = false;
    if (found == sections_.end())
        return false;
    MakeCurrent(found);
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
    added->body = {MakeLine({sectionKeyword, name.empty() ? "" : " ", name, lineEnd_}),
                   MakeLine({openText, lineEnd_}), MakeLine({closeText, lineEnd_})};
    added->open = 1;
    added->name = Trimmed(WithoutLineEnd(added->body.front().Text()).substr(sectionKeyword.size()));
    names_.Note(added);
    MakeCurrent(added);
    return true;
}

bool Document::DeleteSection() {
    if (!isCurrent_)
        return false;
    entryKeys_.Reset();
    topKeys_.Undo();
    const auto previous = std::prev(current_);
    if (topCursor_.section == current_) {
        topCursor_.section = previous;
        topCursor_.index += static_cast<std::ptrdiff_t>(previous->after.size());
    }
    // What stands behind the section stays: it is not the section's.
    previous->after.insert(previous->after.end(), current_->after.begin(), current_->after.end());
    names_.Forget(current_);
    sections_.erase(current_);
    current_ = previous;
    isCurrent_ = false;
    RestartEntries(Scope::Section);
    return true;
}

// Lines.

Line Document::MakeLine(std::initializer_list<std::string_view> parts) {
    const std::string_view kept = added_.Keep(parts);
    return {kept.data(), static_cast<std::uint32_t>(kept.size()), 0, 0, 0};
}

/// Gives a line another text; key and value begin where they did.
void Document::ChangeText(Line& line, std::initializer_list<std::string_view> parts) {
    const std::string_view kept = added_.Keep(parts);
    line.data = kept.data();
    line.length = static_cast<std::uint32_t>(kept.size());
}

/// Gives the file's last line a line end when it has none, so that another can follow.
void Document::EndLine(Line& line) {
    const std::string_view text = line.Text();
    if (text.empty() || text.ends_with('\n'))
        return;
    ChangeText(line, {text, text.ends_with('\r') ? "\r\n" : std::string_view(lineEnd_)});
}

}  // namespace Configuration
