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

/// Where each key of a scope stands first. A few look-ups are quicker without it, so it is only
/// made when many lines have been scanned for them. A deletion undoes it, and it is then made later
/// than before, so that a walk which deletes much does not make it over and over.
class KeyIndex {
public:
    /// Adds to the lines that were looked at one by one.
    void CountScanned(std::size_t lines) { scanned_ += lines; }
    bool IsMade() const { return isMade_; }
    bool IsDue() const { return !isMade_ && scanned_ > limit_; }
    void Make() { isMade_ = true; }

    /// Takes in an entry, which must stand behind all that it has: of a repeated key the first
    /// counts.
    void Note(std::string_view key, Place place) {
        if (isMade_)
            places_.try_emplace(key, place);
    }
    /// Null when the key is absent.
    const Place* Find(std::string_view key) const {
        const auto found = places_.find(key);
        return found == places_.end() ? nullptr : &found->second;
    }
    /// To be called when a line was deleted: the places of those behind it are wrong.
    void Undo() {
        scanned_ = 0;
        if (!isMade_)
            return;
        limit_ *= 4;
        places_.clear();
        isMade_ = false;
    }
    /// To be called when another section becomes the current one: what was learned of the former
    /// one, the limit too, is forgotten.
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
    /// Takes in a section, which must stand behind all that it has.
    void Note(Sections::iterator section) {
        if (isMade_ && !section->name.empty() &&
            !byName_.try_emplace(section->name, section).second)
            hasRepeated_ = true;
    }
    /// To be called before a section is deleted. When names repeat, the next section of this name
    /// would have to take its place, so the index is given up and made anew when it is due.
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
