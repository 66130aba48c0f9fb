// The digital trunk files: a lower echo delay, and a directory per ISDN trunk.

#include "steps/updates/trunk_files.h"

#include <cstdint>
#include <optional>
#include <stdexcept>

#include "app/config_upgrader.h"
#include "platform/file_utility.h"
#include "platform/string_utils.h"
#include "util/numbers.h"

using Configuration::MultiSectionFile;

namespace {

constexpr int isdnTrunks = 3;

std::string TrunkPath(const std::string& configRoot, int trunk) {
    return configRoot + "isdn/trunk" + NumberToString(trunk);
}

std::string Trimmed(const std::string& text) {
    return StringUtils::Trim(text, " \t", true, true);
}

std::string RenamedRoute(const std::string& route) {
    return route == "DestNumber" ? "RouteInbNmb" : route;
}

/// A comma list with its items trimmed and renamed. A list without items has no last comma to take
/// off: like the file's other readers do, this ends the conversion.
std::string RenamedRoutes(const std::string& list) {
    std::string joined;
    for (const std::string& item : StringUtils::ParseCommaLine(list, ','))
        joined += RenamedRoute(Trimmed(item)) + ",";
    if (joined.empty())
        throw std::out_of_range("basic_string::_M_check");
    joined.pop_back();
    return joined;
}

/// The trunk's own settings. line_code, frame_mode, tx_lbo and sync_clock (1 to 4) are dropped: a
/// BRI trunk has none.
void MapTrunkKeys(MultiSectionFile& old, MultiSectionFile& target) {
    if (!old.GotoSection("trunk") || !target.GotoSection("trunk"))
        return;
    for (std::size_t i = 0; i < std::size(src_patterns); ++i)
        if (i == 0 || i > 4)
            target.SetSectionEntry(dest_patterns[i],
                                   old.GetSectionEntry(src_patterns[i]).value_or(""));
    if (const auto passiveMode = old.GetSectionEntry(isdn_l3_src_patterns[20]))
        target.SetSectionEntry(isdn_l3_src_patterns[20], *passiveMode);
}

/// One side's settings: `old` is in the side's section.
void MapSideKeys(MultiSectionFile& old, MultiSectionFile& target) {
    target.GotoSection("level_2");
    for (std::size_t i = 2; i < std::size(isdn_l2_src_patterns); ++i)  // no D channel time slots
        if (const auto value = old.GetSectionEntry(isdn_l2_src_patterns[i]))
            target.SetSectionEntry(isdn_l2_src_patterns[i], *value);

    target.GotoSection("level_3");
    for (std::size_t i = 0; i < 20; ++i) {
        const std::string key = isdn_l3_src_patterns[i];
        const auto value = old.GetSectionEntry(key);
        if (!value)
            continue;
        const bool renamed = key == "generate_progress_tone";
        target.SetSectionEntry(renamed ? "generate_progress_tone_ip" : key,
                               key == "route_call" ? RenamedRoute(*value) : *value);
    }
    for (std::size_t i = 0; i < std::size(isdn_bri_patterns); ++i) {
        const auto value = old.GetSectionEntry(isdn_bri_patterns[i]);
        if (!value)
            continue;
        const bool isList = i >= 3 && i <= 5;
        target.SetSectionEntry(isdn_bri_patterns[i],
                               isList ? RenamedRoutes(*value) : Trimmed(*value));
    }
    if (Trimmed(old.GetSectionEntry("ddi_service").value_or("")) == "Yes" &&
        target.GotoSection("level_2"))
        target.SetSectionEntry("tei_number", "0");
}

}  // namespace

/// Lowers the echo delay of the named section by 80, when both are there.
void ConfigUpgrader::LowerEchoDelay(MultiSectionFile& file, const std::string& section) {
    if (!file.GotoSection(section))
        return;
    const auto delay = file.GetSectionEntry("echoDelay");
    if (!delay)
        return;
    const std::string lower = NumberToString(std::int64_t{StringToNumber<int>(*delay)} - 80);
    file.SetSectionEntry("echoDelay", lower);
    Trace(3, "Set echoDelay from %s to %s.\n", delay->c_str(), lower.c_str());
}

void ConfigUpgrader::UpdateEchoDelay() {
    if (!IsVersionBelow("3.0.32"))
        return;
    Trace(3, "Starting update e1t1 & isdn cfg files\n");
    if (SectionFile trunk = OpenSectionFile(configRoot + "e1t1/trunk0.cfg", false)) {
        LowerEchoDelay(*trunk, "trunk_e1");
        LowerEchoDelay(*trunk, "trunk_t1");
        Save(*trunk);
        Trace(3, "Updated.\n");
    }
    for (int i = 0; i < isdnTrunks; ++i) {
        SectionFile trunk = OpenSectionFile(TrunkPath(configRoot, i) + ".cfg", false);
        if (!trunk)
            continue;
        LowerEchoDelay(*trunk, "trunk");
        Save(*trunk);
        Trace(3, "Updated.\n");
    }
    Trace(3, "Done.\n");
}

void ConfigUpgrader::MapIsdnFiles() {
    if (!IsVersionBelow("4.1.0"))
        return;
    Trace(3, "Mapping isdn config files\n");
    SectionFile index = OpenSectionFile(configRoot + "isdn.cfg", false);
    if (!index)
        return;
    try {
        for (int i = 0; i < isdnTrunks; ++i)
            if (index->GotoSection("trunk_" + NumberToString(i)))
                index->DeleteSectionEntry("file_name");
        Save(*index);
        CloseSectionFile(index);
        for (int i = 0; i < isdnTrunks; ++i)
            if (!MapIsdnTrunk(TrunkPath(configRoot, i)))
                break;
    } catch (const std::exception& error) {
        Trace(1, "%s", error.what());
        return;
    }
    Trace(3, "Updated.\n");
}

/// Moves one trunk's file into its directory; false when there is no old file.
bool ConfigUpgrader::MapIsdnTrunk(const std::string& trunkPath) {
    SectionFile old = OpenSectionFile(trunkPath + ".cfg", false);
    if (!old)
        return false;
    const std::string directory = trunkPath + "/";
    bool saved = false;
    if (SectionFile trunk = OpenSectionFile(directory + "trunk.cfg", true)) {
        MapTrunkKeys(*old, *trunk);
        saved = Save(*trunk);
    }
    const std::pair<const char*, const char*> sides[] = {{"isdn_user", "bri_user.cfg"},
                                                         {"isdn_net", "bri_net.cfg"}};
    for (const auto& [section, name] : sides) {
        SectionFile side = OpenSectionFile(directory + name, true);
        if (!side) {
            saved = false;
            continue;
        }
        if (old->GotoSection(section))
            MapSideKeys(*old, *side);
        saved = Save(*side) && saved;
    }
    // A trunk without its directory is not fitted any more, and its settings go. Where there is
    // one, they go only when they are saved in it.
    if (saved || !CorrectPath(directory))
        FileUtility::RemoveDirOrFile(trunkPath + ".cfg");
    return true;
}
