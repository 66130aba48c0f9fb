#include "rehearse/waivers/waivers.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <fmt/format.h>
#include <toml++/toml.h>
#include <utility>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

constexpr std::pair<const char*, std::string Waiver::*> waiverTexts[] = {
    {"site", &Waiver::site},       {"rule", &Waiver::rule},   {"file", &Waiver::file},
    {"setting", &Waiver::setting}, {"owner", &Waiver::owner}, {"reason", &Waiver::reason}};

Waiver ReadWaiver(const toml::table& table) {
    Waiver waiver;
    for (const auto& [key, value] : table) {
        const auto known =
            std::find_if(std::begin(waiverTexts), std::end(waiverTexts),
                         [&name = key](const auto& one) { return name == one.first; });
        const auto text = value.value<std::string>();
        if (known != std::end(waiverTexts) && text)
            waiver.*known->second = *text;
        else if (const auto date = value.value<toml::date>(); key == "until" && date)
            waiver.until = fmt::format("{:04}-{:02}-{:02}", date->year, date->month, date->day);
        else
            throw Failure(fmt::format("\"{}\" is not understood", key.str()));
    }
    if (waiver.site.empty() && waiver.rule.empty() && waiver.file.empty() && waiver.setting.empty())
        throw Failure("it has no pattern: one of site, rule, file and setting");
    if (waiver.owner.empty() || waiver.reason.empty() || waiver.until.empty())
        throw Failure("it needs an owner, a reason and a day, such as until = 2027-03-31");
    return waiver;
}

bool Matches(const std::string& pattern, const std::string& text) {
    return pattern.empty() || fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

/// Whether one of the words outside of quotation marks matches, or two of them: section and key.
bool HasWord(const std::string& pattern, const std::string& text) {
    std::string word;
    std::string last;
    bool isQuoted = false;
    for (const char c : text + ' ') {
        isQuoted = isQuoted != (c == '"');
        if (!isQuoted && std::string_view(" :,\"()[]").find(c) == std::string_view::npos) {
            word += c;
            continue;
        }
        if (word.empty())
            continue;
        if (Matches(pattern, word) || Matches(pattern, last + " " + word))
            return true;
        last = std::exchange(word, "");
    }
    return false;
}

bool Matches(const Waiver& waiver, const std::string& site, const Waivable& what) {
    if (waiver.isExpired || !Matches(waiver.site, site) || !Matches(waiver.rule, what.rule) ||
        !Matches(waiver.file, what.file))
        return false;
    if (waiver.setting.empty())
        return true;
    if (!what.key.empty())
        return Matches(waiver.setting, what.key) ||
               Matches(waiver.setting, what.section + " " + what.key);
    return HasWord(waiver.setting, what.text);
}

}  // namespace

Waivers::Waivers(const std::string& path, const std::string& today) {
    std::size_t number = 0;
    try {
        const std::string text = ReadAll(path);
        if (text.empty())
            throw Failure("it is empty or cannot be read");
        const toml::table file = toml::parse(text);
        for (const auto& [key, value] : file)
            if (key != "waiver" || !value.is_array_of_tables())
                throw Failure(
                    fmt::format("\"{}\" is not understood: a file of waivers holds "
                                "[[waiver]] alone",
                                key.str()));
        if (const toml::array* all = file["waiver"].as_array())
            for (const toml::node& one : *all) {
                ++number;
                waivers_.push_back(ReadWaiver(*one.as_table()));
                waivers_.back().isExpired = waivers_.back().until < today;
            }
    } catch (const toml::parse_error& error) {
        throw Failure(
            fmt::format("{}, line {}: {}", path, error.source().begin.line, error.description()));
    } catch (const Failure& failure) {
        throw Failure(fmt::format("{}{}: {}", path,
                                  number == 0 ? "" : fmt::format(", waiver {}", number),
                                  failure.what()));
    }
}

std::ptrdiff_t Waivers::Find(const std::string& site, const Waivable& what) const {
    const auto found = std::find_if(waivers_.begin(), waivers_.end(), [&](const Waiver& waiver) {
        return Matches(waiver, site, what);
    });
    return found == waivers_.end() ? -1 : found - waivers_.begin();
}

std::vector<std::size_t> Waivers::Take(const std::string& site,
                                       std::vector<Problem>& problems) const {
    std::vector<std::size_t> taken;
    for (Problem& problem : problems)
        std::erase_if(problem.items, [&](const ProblemItem& item) {
            const std::ptrdiff_t found = Find(site, {problem.rule, item.file, "", "", item.text});
            if (found >= 0)
                taken.push_back(static_cast<std::size_t>(found));
            return found >= 0;
        });
    std::erase_if(problems, [](const Problem& problem) { return problem.items.empty(); });
    return taken;
}

std::string Today() {
    const std::time_t now = std::time(nullptr);
    struct tm day {};
    localtime_r(&now, &day);
    std::array<char, 16> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &day);
    return text.data();
}

}  // namespace rehearse
