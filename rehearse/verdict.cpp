// The verdict as text, and the page.

#include <algorithm>
#include <fmt/format.h>

#include "rehearse/page_asset.h"
#include "rehearse/site.h"

namespace rehearse {
namespace {

constexpr std::size_t mostItems = 3;   // told of a group
constexpr std::size_t mostLines = 30;  // told in all

/// A text in lines of at most 96 characters, the later ones indented.
void AddWrapped(std::vector<std::string>& lines, const std::string& head, const std::string& text) {
    constexpr std::size_t width = 96;
    std::string line = head;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string word = text.substr(begin, end - begin);
        if (line.size() > head.size() && line.size() + 1 + word.size() > width) {
            lines.push_back(line);
            line = std::string(head.size(), ' ');
        }
        line += (line.size() > head.size() ? " " : "") + word;
        begin = end + 1;
    }
    lines.push_back(line);
}

std::string ItemText(const Json& item) {
    if (!item["reason"].get<std::string>().empty() && item["line"] != 0)
        return fmt::format("{}, line {}: {}", item["file"].get<std::string>(),
                           item["line"].get<long>(), item["reason"].get<std::string>());
    return item["text"];
}

void AddProblem(std::vector<std::string>& lines, const Json& problem) {
    const Json& items = problem["items"];
    AddWrapped(lines, "  ! ",
               fmt::format("{} ({}). {}", problem["title"].get<std::string>(), items.size(),
                           problem["means"].get<std::string>()));
    for (std::size_t i = 0; i < std::min(items.size(), mostItems); ++i)
        lines.push_back("      " + ItemText(items[i]));
    if (items.size() > mostItems)
        lines.push_back(fmt::format("      and {} more", items.size() - mostItems));
    AddWrapped(lines, "    > ", problem["action"]);
}

/// The steps that changed most.
std::string StepsText(const Json& steps) {
    std::vector<std::pair<std::size_t, std::string>> byCount;
    for (const Json& step : steps) {
        const std::size_t count = step["changed"].get<std::size_t>() +
                                  step["added"].get<std::size_t>() +
                                  step["removed"].get<std::size_t>();
        if (count != 0)
            byCount.emplace_back(count, step["name"]);
    }
    std::stable_sort(byCount.begin(), byCount.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    constexpr std::size_t most = 6;
    std::string text;
    for (std::size_t i = 0; i < std::min(byCount.size(), most); ++i)
        text += fmt::format("{}{} ({})", i == 0 ? "" : ", ", byCount[i].second, byCount[i].first);
    return text + (byCount.size() > most ? fmt::format(" and {} more", byCount.size() - most) : "");
}

void AddFiles(std::vector<std::string>& lines, const Json& result) {
    const Json& files = result["verdict"]["files"];
    lines.push_back(fmt::format(
        "  Files:       {} changed, {} added, {} removed", files["changed"].get<std::size_t>(),
        files["added"].get<std::size_t>(), files["removed"].get<std::size_t>()));
    if (!result["program"]["binary"].is_null())
        lines.push_back("  Steps:       not told for a program of its own (--binary)");
    else if (!result["steps"].empty())
        AddWrapped(lines, "  Steps:       ", "most files by: " + StepsText(result["steps"]));
}

}  // namespace

std::string VerdictText(const Json& result) {
    const Json& verdict = result["verdict"];
    std::vector<std::string> lines;
    AddWrapped(
        lines, "",
        result["site"]["name"].get<std::string>() + ": " + verdict["summary"].get<std::string>());
    const bool isHeld = verdict["result"] != "not-held";
    if (isHeld) {
        lines.emplace_back("");
        const auto orUnknown = [](const std::string& version) {
            return version.empty() ? std::string("unknown") : version;
        };
        lines.push_back("  Version:     " + orUnknown(verdict["from"]) + " -> " +
                        orUnknown(verdict["to"]));
        AddWrapped(lines, "  Stamped:     ",
                   verdict["stamped"].get<bool>()
                       ? "yes"
                       : "no: " + verdict["stampReason"].get<std::string>());
        AddFiles(lines, result);
        AddWrapped(lines, "  Next start:  ", verdict["nextStart"]["text"]);
        lines.push_back(
            fmt::format("  Harmless:    {} messages on files that this unit never had (not listed)",
                        result["harmless"].get<std::size_t>()));
    }
    for (const Json& lack : result["lacks"])
        AddWrapped(lines, "  Not there:   ",
                   lack["what"].get<std::string>() + ": " + lack["means"].get<std::string>());
    lines.push_back(!isHeld || result["problems"].empty() ? "" : "\nTo look at, the worst first:");
    std::size_t told = 0;
    for (const Json& problem : result["problems"]) {
        if (lines.size() > mostLines - 6) {
            lines.push_back(fmt::format("  and {} kinds more: see --html or --json",
                                        result["problems"].size() - told));
            break;
        }
        AddProblem(lines, problem);
        ++told;
    }
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

std::string Page(const Json& result) {
    // The report tells of 300 extensions in megabytes, of which the steps' own show what counts.
    constexpr std::size_t mostReport = 200'000;
    Json shown = result;
    if (shown.contains("report") && shown["report"].get<std::string>().size() > mostReport)
        shown["report"] = shown["report"].get<std::string>().substr(0, mostReport) +
                          "\n...\nThe rest is left out here: --report writes it.\n";
    // Nothing in it may end the script element, or be taken for markup.
    std::string data;
    for (const char c : Text(shown, -1))
        switch (c) {
            case '<':
                data += "\\u003c";
                break;
            case '>':
                data += "\\u003e";
                break;
            case '&':
                data += "\\u0026";
                break;
            default:
                data += c;
        }
    std::string page = pageAsset;
    constexpr std::string_view place = "@DATA@</script>";
    page.replace(page.find(place), std::string_view("@DATA@").size(), data);
    return page;
}

}  // namespace rehearse
