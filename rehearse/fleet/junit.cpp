#include "rehearse/fleet/junit.h"

#include <fmt/format.h>
#include <pugixml.hpp>
#include <set>
#include <sstream>

#include "rehearse/base/text_file.h"
#include "rehearse/verdict/outcome.h"

namespace rehearse {
namespace {

enum class CaseEnd { Passed, Failed, Error, Skipped };

CaseEnd EndOf(const GatheredSite& site, bool isCompared) {
    const SiteRow& row = site.row;
    if (isCompared)
        return row.comparedClass == "unknown" ? CaseEnd::Error
               : row.comparedClass == "regressed" || row.comparedClass == "changed" ||
                       row.comparedClass == "unstable"
                   ? CaseEnd::Failed
               : !site.waivers.empty() ? CaseEnd::Skipped
                                       : CaseEnd::Passed;
    return row.exitStatus >= 3     ? CaseEnd::Error
           : row.exitStatus != 0   ? CaseEnd::Failed
           : !site.waivers.empty() ? CaseEnd::Skipped
                                   : CaseEnd::Passed;
}

/// Its problems with place and advice, and what differs.
std::string TextOf(const GatheredSite& site) {
    constexpr std::size_t most = 50;  // lines of a kind
    std::string text = site.row.summary + "\n";
    if (!site.row.note.empty())
        text += site.row.note + "\n";
    for (std::size_t i = 0; i < std::min(most, site.differences.size()); ++i)
        text += site.differences[i] + "\n";
    for (const Problem& problem : site.problems) {
        text += fmt::format("\n{}. {}\n", problem.title, problem.means);
        for (std::size_t i = 0; i < std::min(most, problem.items.size()); ++i)
            text += "  " + ItemText(problem.items[i]) + "\n";
        text += "  > " + problem.action + "\n";
    }
    return Printable(text);
}

std::string ReasonsOf(const GatheredSite& site, const FleetResult& fleet) {
    std::string reasons;
    for (const std::size_t number :
         std::set<std::size_t>(site.waivers.begin(), site.waivers.end())) {
        const WaiverResult& waiver = fleet.waivers[number];
        reasons += fmt::format("{}{} ({}, until {})", reasons.empty() ? "" : "; ", waiver.reason,
                               waiver.owner, waiver.until);
    }
    return Printable(reasons);
}

void AddEnd(pugi::xml_node testCase, CaseEnd end, const GatheredSite& site,
            const FleetResult& fleet) {
    if (end == CaseEnd::Passed)
        return;
    if (end == CaseEnd::Skipped) {
        testCase.append_child("skipped").append_attribute("message") =
            ReasonsOf(site, fleet).c_str();
        return;
    }
    const SiteRow& row = site.row;
    const bool isCompared = !row.comparedClass.empty();
    pugi::xml_node node = testCase.append_child(end == CaseEnd::Error ? "error" : "failure");
    const std::string title = isCompared ? row.comparedClass + ": " + row.summary
                              : site.problems.empty()
                                  ? row.summary
                                  : site.problems.front().title + ": " + row.summary;
    node.append_attribute("message") = Printable(title).c_str();
    node.append_attribute("type") = isCompared              ? row.comparedClass.c_str()
                                    : site.problems.empty() ? row.result.c_str()
                                                            : site.problems.front().rule.c_str();
    node.text() = TextOf(site).c_str();
}

}  // namespace

std::string JUnit(const std::string& name, const FleetResult& fleet,
                  const std::vector<GatheredSite>& sites) {
    pugi::xml_document document;
    pugi::xml_node declaration = document.append_child(pugi::node_declaration);
    declaration.append_attribute("version") = "1.0";
    declaration.append_attribute("encoding") = "UTF-8";
    pugi::xml_node suite = document.append_child("testsuites").append_child("testsuite");
    const bool isCompared = !fleet.comparison.baseline.out.empty();
    std::map<CaseEnd, unsigned> counts;
    for (const GatheredSite& site : sites)
        ++counts[EndOf(site, isCompared)];
    const std::string suiteName = Printable(name);
    suite.append_attribute("name") = suiteName.c_str();
    suite.append_attribute("tests") = static_cast<unsigned>(sites.size());
    suite.append_attribute("failures") = counts[CaseEnd::Failed];
    suite.append_attribute("errors") = counts[CaseEnd::Error];
    suite.append_attribute("skipped") = counts[CaseEnd::Skipped];
    suite.append_attribute("time") = fmt::format("{:.3f}", fleet.seconds).c_str();
    for (const GatheredSite& site : sites) {
        pugi::xml_node testCase = suite.append_child("testcase");
        testCase.append_attribute("name") = Printable(site.row.name).c_str();
        testCase.append_attribute("classname") = suiteName.c_str();
        testCase.append_attribute("time") = fmt::format("{:.3f}", site.row.seconds).c_str();
        AddEnd(testCase, EndOf(site, isCompared), site, fleet);
    }
    std::ostringstream text;
    document.save(text, " ");
    return text.str();
}

}  // namespace rehearse
