#include "rehearse/page/shorten.h"

#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <string>
#include <utility>

namespace rehearse {
namespace {

// A site of 400 extensions is told whole.
constexpr std::size_t mostAlike = 400;
constexpr std::size_t mostOfChange = 400;    // of a change
constexpr std::size_t mostReport = 200'000;  // bytes
constexpr std::size_t mostLog = 60'000;      // of a step

void ShortenText(Json& text, std::size_t most) {
    auto& all = text.get_ref<std::string&>();
    if (all.size() > most)
        all = all.substr(0, all.rfind('\n', most) + 1) +
              "...\nThe rest is left out here: --report writes it.\n";
}

void ShortenLines(Json& lines) {
    if (lines.size() <= mostOfChange)
        return;
    const std::size_t more = lines.size() - mostOfChange;
    auto& all = lines.get_ref<Json::array_t&>();
    all.resize(mostOfChange);
    all.emplace_back(fmt::format("... and {} lines more: --diff writes them", more));
}

/// Takes out the changes behind the first ones of a place; returns how many.
std::size_t TakeOut(Json::array_t& changes) {
    std::map<std::string, std::size_t> counts;
    const std::size_t all = changes.size();
    std::erase_if(changes, [&](const Json& change) {
        std::string place;
        for (const char* part : {"step", "kind", "pattern", "where"})
            place += change[part].get_ref<const std::string&>() + "\n";
        return ++counts[place] > mostAlike;
    });
    return all - changes.size();
}

/// Keeps the first files of each change, and their paths alone.
void ShortenFiles(Json& site) {
    Json files = Json::array();
    std::map<std::size_t, std::size_t> places;
    for (Json& change : site["changes"]) {
        auto& members = change["files"].get_ref<Json::array_t&>();
        change["count"] = members.size();
        members.resize(std::min(members.size(), mostAlike));
        for (const Json& member : members)
            places.emplace(member.get<std::size_t>(), 0);
    }
    for (auto& [file, place] : places) {
        place = files.size();
        files.push_back(std::move(site["files"][file]));
    }
    for (Json& change : site["changes"])
        for (Json& member : change["files"])
            member = places[member.get<std::size_t>()];
    site["fileCount"] = site["files"].size();
    site["files"] = std::move(files);
}

}  // namespace

void Shorten(Json& site) {
    ShortenText(site["report"], mostReport);
    for (Json& step : site["steps"])
        ShortenText(step["log"], mostLog);
    for (Json& group : site["ledger"]["groups"]) {
        auto& ways = group["ways"].get_ref<Json::array_t&>();
        ways.resize(std::min(ways.size(), mostAlike));
    }
    site["leftOut"] = TakeOut(site["changes"].get_ref<Json::array_t&>());
    for (Json& change : site["changes"])
        ShortenLines(change["lines"]);
    ShortenFiles(site);
}

}  // namespace rehearse
