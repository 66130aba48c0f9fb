#include "rehearse/fleet/compare.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <set>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/compare/compare_sites.h"
#include "rehearse/compare/difference_table.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

struct SideFile {
    ComparedSide side;
    std::string common;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(SideFile, side, common)

SideFile ReadSide(const std::string& out) {
    const Json json = Json::parse(ReadAll(out + "/side.json"), nullptr, false);
    if (!json.is_object())
        throw Failure(out + " is not the OUT of a fleet that was rehearsed to its end");
    try {
        SideFile file = json;
        file.side.out = out;
        return file;
    } catch (const Json::exception&) {
        throw Failure(out + " is the OUT of another version; rehearse it again");
    }
}

class FleetComparer {
public:
    FleetComparer(FleetRunner& runner, Gatherer& gatherer, const std::string& baseline,
                  const Waivers& waivers)
        : runner_(runner),
          gatherer_(gatherer),
          waivers_(waivers),
          baseline_(fs::weakly_canonical(baseline)) {
        const SideFile before = ReadSide(baseline_);
        comparison_.baseline = before.side;
        baselineCommon_ = before.common;
        comparison_.candidate = ReadSide(runner.Out()).side;
        comparison_.kinds = SiteClasses();
    }

    Comparison Compare(bool showsProgress) {
        std::vector<std::string> doubtful;
        for (GatheredSite& site : gatherer_.Sites()) {
            Classify(site);
            if (site.row.comparedClass == "regressed" || site.row.comparedClass == "fixed")
                doubtful.push_back(site.row.name);
        }
        runner_.RunAgain(doubtful, showsProgress);
        for (std::size_t i = 0; i < gatherer_.Sites().size(); ++i)
            Tell(i, gatherer_.Sites()[i]);
        comparison_.differences = table_.Take();
        const auto count = [&](const char* id) {
            const auto found = comparison_.counts.find(id);
            return found == comparison_.counts.end() ? std::size_t{0} : found->second;
        };
        comparison_.exitStatus = count("regressed") + count("changed") + count("unstable") != 0 ? 1
                                 : count("unknown") != 0                                        ? 4
                                                                                                : 0;
        for (const SiteClass& one : comparison_.kinds)
            if (count(one.id.c_str()) != 0)
                comparison_.summary +=
                    fmt::format("{}{} {}", comparison_.summary.empty() ? "" : ", ",
                                count(one.id.c_str()), one.id);
        return std::move(comparison_);
    }

private:
    /// What is kept now. Of a site whose process died there is nothing, which is a verdict too.
    KeptResult Candidate(const GatheredSite& site, const KeptResult& baseline) const {
        if (auto kept = ReadKeptResult(runner_.KeptOf(site.row.name)))
            return std::move(*kept);
        KeptResult dead;
        dead.summary.backup = baseline.summary.backup;
        dead.summary.verdict.result = "crashed";
        dead.summary.verdict.summary = site.row.summary;
        return dead;
    }

    SiteComparison CompareSite(const GatheredSite& site) const {
        const auto old = ReadKeptResult(baseline_ + "/sites/" + site.row.name + ".kept");
        if (!old)
            return {"unknown", "the baseline has no result of it", {}, {}};
        if (old->summary.common != baselineCommon_)  // left there by another run
            return {"unknown",
                    "the baseline's result is of another firmware, program or option",
                    {},
                    {}};
        return CompareSites(site.row.name, *old, Candidate(site, *old), waivers_);
    }

    void Classify(GatheredSite& site) const {
        const SiteComparison compared = CompareSite(site);
        site.row.comparedClass = compared.comparedClass;
        site.row.note = compared.note;
        site.waivers.insert(site.waivers.end(), compared.waived.begin(), compared.waived.end());
    }

    /// What is regressed or fixed must be so the second time.
    bool IsStable(const GatheredSite& site) const {
        const auto first = ReadKeptResult(runner_.KeptOf(site.row.name));
        const auto second = ReadKeptResult(runner_.KeptAgainOf(site.row.name));
        return first && second ? AreAlike(*first, *second) : !first && !second;
    }

    void Tell(std::size_t number, GatheredSite& site) {
        SiteRow& row = site.row;
        const bool isDoubtful = row.comparedClass == "regressed" || row.comparedClass == "fixed";
        if (isDoubtful && !IsStable(site)) {
            row.note = "rehearsed twice, it was " + row.comparedClass + " once, and otherwise once";
            row.comparedClass = "unstable";
        } else if (isDoubtful || row.comparedClass == "changed") {
            const SiteComparison compared = CompareSite(site);
            const KeptSummary kept = ReadKept(runner_.KeptOf(row.name)).value_or(KeptSummary());
            table_.Add(number, compared.differences, kept);
            DifferenceTable own;
            own.Add(number, compared.differences, kept);
            for (const FleetDifference& one : own.Take())
                site.differences.push_back((one.title.empty() ? "" : one.title + ": ") + one.text);
        }
        ++comparison_.counts[row.comparedClass];
    }

    FleetRunner& runner_;
    Gatherer& gatherer_;
    const Waivers& waivers_;
    std::string baseline_;
    std::string baselineCommon_;
    Comparison comparison_;
    DifferenceTable table_;
};

}  // namespace

Comparison CompareFleet(FleetRunner& runner, Gatherer& gatherer, const std::string& baseline,
                        const Waivers& waivers, bool showsProgress) {
    return FleetComparer(runner, gatherer, baseline, waivers).Compare(showsProgress);
}

std::vector<std::string> OnlyInBaseline(const std::string& baseline,
                                        const std::vector<std::string>& names) {
    // As fleet.json spells them.
    std::set<std::string> known;
    for (const std::string& name : names)
        known.insert(Json::parse(Text(Json(name))).get<std::string>());
    // What is kept in OUT may be of sites that were not there any more in its last run.
    const Json fleet = Json::parse(ReadAll(baseline + "/fleet.json"), nullptr, false);
    std::vector<std::string> missing;
    if (!fleet.is_object() || !fleet.contains("sites"))
        return missing;
    for (const Json& site : fleet["sites"]) {
        const bool isNamed = site.is_object() && site.contains("name") && site["name"].is_string();
        if (isNamed && !known.contains(site["name"].get<std::string>()))
            missing.push_back(site["name"]);
    }
    std::sort(missing.begin(), missing.end());
    return missing;
}

void RequireSide(const std::string& out) {
    ReadSide(out);
}

void WriteSide(const std::string& out, const ComparedSide& side, const std::string& common) {
    WriteFile(out + "/side.json", Text(SideFile{side, common}) + "\n");
}

}  // namespace rehearse
