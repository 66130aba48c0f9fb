#include "rehearse/compare/difference_table.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <tuple>

#include "rehearse/verdict/problems.h"

namespace rehearse {
namespace {

/// "pattern=21" is one of many records.
std::string AlikeSection(const std::string& section, const Extensions& extensions) {
    const std::size_t equals = section.find('=');
    if (equals != std::string::npos)
        return section.substr(0, equals + 1) + "*";
    return extensions.contains(section) ? "*" : WithoutNumbers(section);
}

/// A problem's text with what differs between alike ones taken out: values, and names in brackets.
std::string AlikeText(const std::string& text, const Extensions& extensions) {
    std::string alike;
    bool isQuoted = false;
    bool isInside = false;  // of brackets
    bool isName = false;
    for (const char c : FoldLine(text, extensions)) {
        isQuoted = isQuoted != (c == '"');
        isInside = c == '[' || (isInside && c != ']');
        isName = isInside && isName;
        if (!isQuoted && !isName)
            alike += c;
        isName = isName || (isInside && c == '=');
    }
    return WithoutNumbers(alike);
}

std::string Quotation(const std::string& value, bool isThere) {
    return isThere ? "\"" + value + "\"" : std::string("(none)");
}

/// "14400" becomes "9600", and the like.
std::string ChangeText(const FleetDifference& difference) {
    const std::string& change = difference.change;
    const ValuePair pair = difference.values.empty() ? ValuePair{} : difference.values.front();
    std::string text = change == "went" ? "is gone"
                       : change == "came"
                           ? "is new"
                           : fmt::format("{} becomes {}", Quotation(pair.before, true),
                                         Quotation(pair.after, true));
    if (change == "went" || change == "came")
        text += fmt::format(" ({})", Quotation(change == "went" ? pair.before : pair.after, true));
    const std::size_t others = difference.values.size() + difference.more;
    return text + (others > 1 ? fmt::format(", and {} other values", others - 1) : "");
}

std::string TextOf(const FleetDifference& difference) {
    const std::string place = difference.section.empty() ? "" : "[" + difference.section + "] ";
    if (difference.kind == "setting")
        return fmt::format("{}: {}{} {}", difference.file, place, difference.key,
                           ChangeText(difference));
    if (difference.kind == "mode")
        return difference.file + ": " + ChangeText(difference);
    if (difference.kind == "file")
        return fmt::format("{}: the file {}{}", difference.file,
                           difference.change == "went" ? "is gone" : "is new",
                           difference.text.empty() ? "" : " (" + difference.text + ")");
    if (difference.kind == "text")
        return difference.file + ": " +
               (difference.text.empty() ? "its text differs beside the settings"
                : difference.key.empty()
                    ? difference.text
                    : fmt::format("{}{} {}", place, difference.key, difference.text));
    const std::string file = difference.file.empty() ? "" : difference.file + ": ";
    if (difference.kind == "verdict")
        return ChangeText(difference) + (difference.text.empty() ? "" : ": " + difference.text);
    return (difference.kind == "solved" ? "no longer: " : "") + file + difference.text;
}

/// What comes first: verdicts, problems, what is lost, what changed.
std::tuple<int, std::size_t> Gravity(const FleetDifference& difference) {
    const std::string& kind = difference.kind;
    if (kind == "verdict")
        return {0, 0};
    if (kind == "solved")
        return {7, 0};
    if (!difference.rule.empty())
        return {1, RankOf(difference.rule)};
    const bool isLoss = difference.change == "went" || difference.change == "emptied";
    return {isLoss                        ? 2
            : kind == "text"              ? 6
            : difference.change == "came" ? 5
            : kind == "mode"              ? 3
                                          : 4,
            0};
}

}  // namespace

std::string WithoutNumbers(const std::string& text) {
    std::string without;
    for (const char c : text)
        if (std::isdigit(static_cast<unsigned char>(c)) == 0)
            without += c;
        else if (without.empty() || without.back() != '*')
            without += '*';
    return without;
}

void DifferenceTable::Add(std::size_t site, const std::vector<SiteDifference>& differences,
                          const KeptSummary& summary) {
    constexpr std::size_t mostValues = 200;  // told apart
    const Extensions extensions(summary.extensions.begin(), summary.extensions.end());
    for (const SiteDifference& one : differences) {
        const std::string file =
            WithoutNumbers(Pattern(AtUsualPlace(one.file, summary.root), extensions));
        const std::string section = AlikeSection(one.section, extensions);
        const bool hasText = one.kind == "problem" || one.kind == "solved";
        const bool isVerdict = one.kind == "verdict";
        std::string alike = one.kind;
        for (const std::string& part :
             {one.change, one.rule, file, section, one.key,
              hasText ? AlikeText(one.text, extensions) : "", isVerdict ? one.before : ""})
            alike += "\n" + part;
        Group& group = groups_[alike];
        FleetDifference& told = group.told;
        if (told.count++ == 0) {
            told.kind = one.kind;
            told.change = one.change;
            told.rule = one.rule;
            told.title = one.title;
            told.file = file;
            told.section = section;
            told.key = one.key;
            told.text = hasText ? FoldLine(one.text, extensions) : one.text;
            told.action = one.action;
        }
        if (told.sites.empty() || told.sites.back() != site)
            told.sites.push_back(site);
        if (!one.steps.empty())
            group.steps.insert(one.steps);
        const std::pair values(one.before, one.after);
        if (group.values.size() < mostValues || group.values.contains(values))
            group.values[values].insert(site);
    }
}

std::vector<FleetDifference> DifferenceTable::Take() {
    constexpr std::size_t mostValues = 5;  // told
    std::vector<FleetDifference> all;
    for (auto& [alike, group] : groups_) {
        FleetDifference& told = group.told;
        const bool hasValues =
            told.kind == "setting" || told.kind == "mode" || told.kind == "verdict";
        for (const auto& [values, sites] : group.values)
            if (hasValues)
                told.values.push_back({values.first, values.second, sites.size()});
        std::stable_sort(told.values.begin(), told.values.end(),
                         [](const ValuePair& a, const ValuePair& b) { return a.sites > b.sites; });
        told.more = told.values.size() - std::min(told.values.size(), mostValues);
        told.values.resize(told.values.size() - told.more);
        told.steps = {group.steps.begin(), group.steps.end()};
        told.text = TextOf(told);
        all.push_back(std::move(told));
    }
    groups_.clear();
    std::stable_sort(all.begin(), all.end(),
                     [](const FleetDifference& a, const FleetDifference& b) {
                         return Gravity(a) != Gravity(b) ? Gravity(a) < Gravity(b)
                                                         : a.sites.size() > b.sites.size();
                     });
    return all;
}

}  // namespace rehearse
