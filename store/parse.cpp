// Takes the text of a configuration file apart into lines and sections. Every line of every file
// goes through here, several times in an upgrade: the one place where the processor counts.

#include "store/file_error.h"
#include "store/lines.h"

namespace Configuration {

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string_view WithoutLineEnd(std::string_view line) {
    if (!line.ends_with('\n'))
        return line;
    line.remove_suffix(1);
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

bool IsHeader(std::string_view trimmed) {
    return trimmed.starts_with(sectionKeyword) &&
           (trimmed.size() == sectionKeyword.size() || IsBlank(trimmed[sectionKeyword.size()]));
}

namespace {

/// Cuts the next line, line end included, off the front of `rest`.
std::string_view TakeLine(std::string_view& rest) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
    rest.remove_prefix(line.size());
    return line;
}

Line MakeLine(std::string_view text) {
    return {text.data(), static_cast<std::uint32_t>(text.size()), 0, 0, 0};
}

/// A blank line or a comment.
bool IsSilent(std::string_view trimmed) {
    return trimmed.empty() || trimmed.front() == commentSign;
}

/// Notes key and value of a line that holds an assignment; false when it holds none. An assignment
/// without a key leaves the line no entry.
bool SplitEntry(std::string_view content, Line& line) {
    const std::size_t assign = content.find(assignSign);
    if (assign == std::string_view::npos)
        return false;
    const std::string_view key = Trimmed(content.substr(0, assign));
    if (!key.empty()) {
        line.keyBegin = static_cast<std::uint32_t>(key.data() - content.data());
        line.keyLength = static_cast<std::uint32_t>(key.size());
        line.valueBegin = static_cast<std::uint32_t>(assign + 1);
    }
    return true;
}

/// A sectioned file, line by line. What a line may be depends on where it stands: at the top level,
/// behind a section's header, or in a section's body.
class SectionedParser {
public:
    SectionedParser(std::string_view text, const std::string& path) : rest_(text), path_(path) {
        sections_.emplace_back();
    }

    Sections Run() {
        while (!rest_.empty()) {
            ++number_;
            const std::string_view text = TakeLine(rest_);
            line_ = MakeLine(text);
            content_ = WithoutLineEnd(text);
            trimmed_ = Trimmed(content_);
            if (IsSilent(trimmed_))
                LinesHere().push_back(line_);
            else
                (this->*state_)();
        }
        if (state_ != &SectionedParser::AtTopLevel)
            Fail("end of file inside a section");
        return std::move(sections_);
    }

private:
    void AtTopLevel() {
        if (IsHeader(trimmed_))
            BeginSection();
        else
            TakeEntry();
    }

    void BehindHeader() {
        if (trimmed_ != openText)
            Fail("section header without \"{\"");
        Section& section = sections_.back();
        section.open = section.body.size();
        section.body.push_back(line_);
        state_ = &SectionedParser::InBody;
    }

    void InBody() {
        if (trimmed_ != closeText) {
            TakeEntry();
            return;
        }
        sections_.back().body.push_back(line_);
        state_ = &SectionedParser::AtTopLevel;
    }

    void BeginSection() {
        // Most sections of a file have as many lines as the one before them.
        const std::size_t alike = sections_.back().body.size();
        Section& section = sections_.emplace_back();
        section.body.reserve(alike);
        section.name = Trimmed(trimmed_.substr(sectionKeyword.size()));
        section.body.push_back(line_);
        state_ = &SectionedParser::BehindHeader;
    }

    void TakeEntry() {
        if (!SplitEntry(content_, line_))
            Fail(trimmed_ == closeText  ? "\"}\" without a section"
                 : trimmed_ == openText ? "\"{\" without a section header"
                 : IsHeader(trimmed_)   ? "section inside a section"
                                        : "line is no section header, brace or key=value entry");
        if (!line_.IsEntry())
            Fail("entry without a key");
        LinesHere().push_back(line_);
    }

    Lines& LinesHere() {
        Section& section = sections_.back();
        return state_ == &SectionedParser::AtTopLevel ? section.after : section.body;
    }

    [[noreturn]] void Fail(const char* what) const {
        throw FileError(
            path_ + ", line " + std::to_string(static_cast<long long>(number_)) + ": " + what,
            path_.size(), number_);
    }

    std::string_view rest_;
    const std::string& path_;
    Sections sections_;
    std::size_t number_ = 0;
    Line line_;                 // the current line,
    std::string_view content_;  // without its line end,
    std::string_view trimmed_;  // and without blanks around it
    void (SectionedParser::*state_)() = &SectionedParser::AtTopLevel;
};

}  // namespace

Sections ParseFlat(std::string_view text) {
    Sections sections(1);
    Lines& lines = sections.front().after;
    while (!text.empty()) {
        const std::string_view whole = TakeLine(text);
        const std::string_view content = WithoutLineEnd(whole);
        Line line = MakeLine(whole);
        if (!IsSilent(Trimmed(content)))
            SplitEntry(content, line);
        lines.push_back(line);
    }
    return sections;
}

Sections ParseSectioned(std::string_view text, const std::string& path) {
    return SectionedParser(text, path).Run();
}

}  // namespace Configuration
