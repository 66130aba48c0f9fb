#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "rehearse/verdict/result.h"

namespace rehearse {

/// What somebody knows and accepts, as a file of waivers says it. Patterns are those of the shell,
/// whose * stands for any text; an empty one is any.
struct Waiver {
    std::string site;
    std::string rule;
    std::string file;
    std::string setting;
    std::string owner;
    std::string reason;
    std::string until;  // the last day, as 2027-03-31
    bool isExpired = false;
};

/// Something that may be waived.
struct Waivable {
    std::string rule;  // of a problem; a verdict; or "changed"
    std::string file;
    std::string section;
    std::string key;
    std::string text;  // of a problem, which names its setting there
};

class Waivers {
public:
    /// None.
    Waivers() = default;
    /// Reads a file. One that is over on the day `today` waives nothing. Throws Failure for what is
    /// not understood, or lacks pattern, owner, reason or day.
    Waivers(const std::string& path, const std::string& today);

    /// The number of the waiver that accepts this; none when -1.
    std::ptrdiff_t Find(const std::string& site, const Waivable& what) const;
    /// Takes waived items out of problems, and gives the numbers of the waivers, once for each
    /// item.
    std::vector<std::size_t> Take(const std::string& site, std::vector<Problem>& problems) const;

    const std::vector<Waiver>& All() const { return waivers_; }

private:
    std::vector<Waiver> waivers_;
};

/// This day where we are, as 2027-03-31.
std::string Today();

}  // namespace rehearse
