// The digital trunk files: a lower echo delay, and a directory per ISDN trunk.

#include "steps/updates/trunk_files.h"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <utility>

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

/// A comma list with its items trimmed and renamed. An empty list has no last comma to take off,
/// and ends the conversion of all trunks with the text of a string's range error. People know that
/// line of the log, and it keeps the trunk's old file: do not mend it into an empty list.
std::string RenamedRoutes(const std::string& list) {
    std::string joined;
    for (const std::string& item : StringUtils::ParseCommaLine(list, ','))
        joined += RenamedRoute(Trimmed(item)) + ",";
    if (joined.empty())
        throw std::out_of_range("basic_string::_M_check");
    joined.pop_back();
    return joined;
}

std::string MappedValue(const std::string& value, TrunkValue kind) {
    switch (kind) {
        case TrunkValue::Route:
            return RenamedRoute(value);
        case TrunkValue::Trimmed:
            return Trimmed(value);
        case TrunkValue::Routes:
            return RenamedRoutes(value);
        case TrunkValue::AsIs:
        case TrunkValue::Dropped:
            break;
    }
    return value;
}

/// Writes the keys that the old file's current section has into the new file's.
template <std::size_t N>
void MapKeys(const TrunkKey (&keys)[N], MultiSectionFile& old, MultiSectionFile& target) {
    for (const TrunkKey& key : keys) {
        const auto value = old.GetSectionEntry(key.from);
        if (value && key.value != TrunkValue::Dropped)
            target.SetSectionEntry(key.to, MappedValue(*value, key.value));
    }
}

/// The trunk's own settings. The section to write to comes with the factory's file, which the file
/// set check has copied.
void MapTrunk(MultiSectionFile& old, MultiSectionFile& target) {
    if (!old.GotoSection("trunk") || !target.GotoSection("trunk"))
        return;
    for (const TrunkKey& key : src_patterns)
        if (key.value != TrunkValue::Dropped)
            target.SetSectionEntry(key.to, old.GetSectionEntry(key.from).value_or(""));
    // In the table this key is one of the sides', but it stands in the old file's trunk section
    // and belongs into the new one's. Unlike those above, it is not written when it is absent.
    if (const auto passiveMode = old.GetSectionEntry("passive_mode"))
        target.SetSectionEntry("passive_mode", *passiveMode);
}

/// One side's settings: `old` is in the side's section. Here too the factory's file brings the
/// sections.
void MapSide(MultiSectionFile& old, MultiSectionFile& target) {
    target.GotoSection("level_2");
    MapKeys(isdn_l2_src_patterns, old, target);
    target.GotoSection("level_3");
    MapKeys(isdn_l3_src_patterns, old, target);
    MapKeys(isdn_bri_patterns, old, target);
    if (Trimmed(old.GetSectionEntry("ddi_service").value_or("")) == "Yes" &&
        target.GotoSection("level_2"))
        target.SetSectionEntry("tei_number", "0");  // over the one that was copied above
}

/// Lowers the echo delay of the named section by 80, when both are there.
void LowerEchoDelay(ConfigUpgrader& upgrader, MultiSectionFile& file, const std::string& section) {
    if (!file.GotoSection(section))
        return;
    const auto delay = file.GetSectionEntry("echoDelay");
    if (!delay)
        return;
    // Whatever is no number counts as 0 and becomes -80.
    const std::string lower = NumberToString(std::int64_t{StringToNumber<int>(*delay)} - 80);
    file.SetSectionEntry("echoDelay", lower);
    upgrader.Trace(3, "Set echoDelay from %s to %s.\n", delay->c_str(), lower.c_str());
}

/// Moves one trunk's file into its directory; false when there is no old file.
bool MapIsdnTrunk(ConfigUpgrader& upgrader, const std::string& trunkPath) {
    SectionFile old = upgrader.OpenSectionFile(trunkPath + ".cfg", false);
    if (!old)
        return false;
    const std::string directory = trunkPath + "/";
    const bool isFitted = CorrectPath(directory);
    bool saved = false;
    if (SectionFile trunk = upgrader.OpenSectionFile(directory + "trunk.cfg", true)) {
        trunk->InheritRights(old->Path());
        MapTrunk(*old, *trunk);
        saved = isFitted && upgrader.Save(*trunk);
    }
    const std::pair<const char*, const char*> sides[] = {{"isdn_user", "bri_user.cfg"},
                                                         {"isdn_net", "bri_net.cfg"}};
    for (const auto& [section, name] : sides) {  // also where the old file has no such side
        SectionFile side = upgrader.OpenSectionFile(directory + name, true);
        if (!side) {
            saved = false;
            continue;
        }
        side->InheritRights(old->Path());
        if (old->GotoSection(section))
            MapSide(*old, *side);
        saved = isFitted && upgrader.Save(*side) && saved;
    }
    // A trunk without its directory is not fitted any more, and its settings go. Where there is
    // one, they go only when they are saved in it.
    if (saved || !isFitted)
        FileUtility::RemoveDirOrFile(trunkPath + ".cfg");
    return true;
}

}  // namespace

void ConfigUpgrader::UpdateEchoDelay() {
    if (!IsVersionBelow("3.0.32"))
        return;
    Trace(3, "Starting update e1t1 & isdn cfg files\n");
    if (SectionFile trunk = OpenSectionFile(configRoot + "e1t1/trunk0.cfg", false)) {
        LowerEchoDelay(*this, *trunk, "trunk_e1");
        LowerEchoDelay(*this, *trunk, "trunk_t1");
        Save(*trunk);
        // The line also stands where there was nothing to lower.
        Trace(3, "Updated.\n");
    }
    for (int i = 0; i < isdnTrunks; ++i) {
        SectionFile trunk = OpenSectionFile(TrunkPath(configRoot, i) + ".cfg", false);
        if (!trunk)
            continue;
        LowerEchoDelay(*this, *trunk, "trunk");
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
            if (!MapIsdnTrunk(*this, TrunkPath(configRoot, i)))
                break;  // unlike for the echo delay, those behind a missing one stay as they are
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        Trace(1, "%s", error.what());  // without a line end, as it is known
        Tell(Fact::Kind::Incomplete, "isdn", error.what());
        return;
    }
    Trace(3, "Updated.\n");
}
