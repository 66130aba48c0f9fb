#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>

#include "store/lines.h"

namespace Configuration {

/// Where a line stands.
struct Place {
    Sections::iterator section;
    std::size_t index = 0;  // in the section's lines of a scope
};

/// Where each key of a scope stands first. Scanning the lines is quicker for a few look-ups, so it
/// is made when many lines were scanned, and later each time that a deletion undid it.
class KeyIndex {
public:
    /// Tells of lines that were looked at one by one.
    void CountScanned(std::size_t lines) { scanned_ += lines; }
    bool IsMade() const { return isMade_; }
    bool IsDue() const { return !isMade_ && scanned_ > limit_; }
    void Make() { isMade_ = true; }

    /// An entry stands behind all that are noted; of a repeated key the first counts.
    void Note(std::string_view key, Place place) {
        if (isMade_)
            places_.try_emplace(key, place);
    }
    /// Null when the key is absent.
    const Place* Find(std::string_view key) const {
        const auto found = places_.find(key);
        return found == places_.end() ? nullptr : &found->second;
    }
    /// A line went: the places behind it are wrong.
    void Undo() {
        scanned_ = 0;
        if (!isMade_)
            return;
        limit_ *= 4;
        places_.clear();
        isMade_ = false;
    }
    /// From here on it is for the lines of another section, of which nothing is known yet.
    void Reset() {
        Undo();
        limit_ = firstLimit;
    }

private:
    static constexpr std::size_t firstLimit = 512;  // lines

    std::unordered_map<std::string_view, Place> places_;
    bool isMade_ = false;
    std::size_t scanned_ = 0;
    std::size_t limit_ = firstLimit;
};

/// The first section of each name. Made when many sections were scanned, as a KeyIndex is.
class NameIndex {
public:
    /// The section that a document's list has under this name; its end when there is none.
    Sections::iterator Find(std::string_view name, Sections& sections) {
        if (!isMade_ && scanned_ > limit)
            Make(sections);
        if (isMade_) {
            const auto found = byName_.find(name);
            return found == byName_.end() ? sections.end() : found->second;
        }
        auto section = std::next(sections.begin());
        for (; section != sections.end() && section->name != name; ++section)
            ++scanned_;
        return section;
    }
    /// A section stands behind all that are noted.
    void Note(Sections::iterator section) {
        if (isMade_ && !section->name.empty() &&
            !byName_.try_emplace(section->name, section).second)
            hasRepeated_ = true;
    }
    /// A section is about to go. Where names repeat, its successor is only found anew.
    void Forget(Sections::iterator section) {
        if (hasRepeated_)
            *this = {};
        else if (isMade_)
            byName_.erase(section->name);
    }

private:
    static constexpr std::size_t limit = 512;  // sections

    void Make(Sections& sections) {
        isMade_ = true;
        for (auto section = std::next(sections.begin()); section != sections.end(); ++section)
            Note(section);
    }

    std::unordered_map<std::string_view, Sections::iterator> byName_;
    bool isMade_ = false;
    bool hasRepeated_ = false;
    std::size_t scanned_ = 0;
};

}  // namespace Configuration
