// Brings the line database in line with the factory's: new sections and entries, and the fixes of
// its general section.

#include <new>

#include "app/config_upgrader.h"

using Configuration::Entry;
using Configuration::MultiSectionFile;

namespace {

/// Copies an entry of the source's current section into the destination's, when there is one.
void CopyEntry(MultiSectionFile& source, MultiSectionFile& destination, const char* key) {
    if (const auto value = source.GetSectionEntry(key))
        destination.SetSectionEntry(key, *value);
}

/// Only units that were sold with this entry have it.
constexpr const char* neverAdded = "modify_un";

/// General entries that always follow the firmware.
constexpr const char* firmwareEntries[] = {
    "CDR_db",          "missed_calls_db", "unsuccess_calls_db", "external_user_cache_db",
    "reg_status_file", "supported_codecs"};

/// Restores linedb from the factory when it is not open; false when that is not possible.
bool ReopenLineDb(ConfigUpgrader& upgrader) {
    const std::string path = upgrader.configRoot + "linedb";
    try {
        upgrader.lineDb = std::make_unique<MultiSectionFile>(path);
        return true;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        upgrader.report += "\tfile linedb doesn't exist or corrupted, copying from default-conf\n";
        upgrader.report += Configuration::ReasonLine(error);
    }
    if (!upgrader.CopyFromFactory("linedb")) {
        upgrader.report +=
            "\tCan't copy linedb from default-conf, probably a problem with filesystem,\n";
        return false;
    }
    try {
        upgrader.lineDb = std::make_unique<MultiSectionFile>(path);
        return true;
    } catch (const std::exception& error) {
        upgrader.report += std::string("\t") + error.what() + "\n";
        return false;
    }
}

/// Adds to linedb's current section what the factory's current section has more.
bool AddMissingEntries(ConfigUpgrader& upgrader, const std::string& section) {
    MultiSectionFile& lineDb = *upgrader.lineDb;
    bool changed = false;
    for (const auto& [key, value] : upgrader.defaultLineDb->SectionEntries()) {
        const std::string what = "entry \"" + key + "\" with value \"" + value +
                                 "\" to section \"" + section + "\" from default-conf\n";
        if (const auto live = lineDb.GetSectionEntry(key)) {
            // An empty value is a setting like any other. Only a line's name is filled.
            if (key != "line_name" || value.empty() || !live->empty())
                continue;
            upgrader.report += "\t- update empty " + what;
        } else {
            if (key == neverAdded)
                continue;
            upgrader.report += "\t- added " + what;
        }
        lineDb.SetSectionEntry(key, value);
        changed = true;
    }
    return changed;
}

/// Adds the factory's current section as a whole. The sections of lines and ports follow the
/// hardware and have a check of their own; nonactive_extension_list was given up in 2.4.11.
bool AddMissingSection(ConfigUpgrader& upgrader, const std::string& section) {
    if (section == "nonactive_extension_list" || Contains(section, "line_") ||
        Contains(section, "fxo_"))
        return false;
    // No blank behind the comma: report texts stay as they are known.
    upgrader.report += "\t- section \"" + section +
                       "\" doesn't exist,"
                       "- copy from default-conf will be set\n";
    upgrader.lineDb->AddSection(section, true);
    for (const Entry& entry : upgrader.defaultLineDb->SectionEntries())
        if (entry.key != neverAdded)
            upgrader.lineDb->SetSectionEntry(entry.key, entry.value);
    return true;
}

/// Works on the current sections of both files, which are "general".
void FixGeneralSection(ConfigUpgrader& upgrader) {
    MultiSectionFile& lineDb = *upgrader.lineDb;
    MultiSectionFile& factory = *upgrader.defaultLineDb;
    if (upgrader.IsVersionBelow("3.0.11")) {  // the voice-data check has learned the language
        const std::string folder = "/telephony/sysmessages/" + upgrader.systemLanguage;
        lineDb.SetSectionEntry("sysmessages_folder", folder);
        upgrader.report += "\tSet sysmessages_folder = " + folder + "\n";
    }
    for (const char* key : firmwareEntries)
        CopyEntry(factory, lineDb, key);
    if (upgrader.IsVersionBelow("2.3.11")) {
        CopyEntry(factory, lineDb, "special_codecs");
        // An absent list becomes ",ppp0"; the readers of the entry skip the empty item.
        std::string interfaces = lineDb.GetSectionEntry("active_interface").value_or("");
        if (!Contains(interfaces, "ppp0")) {
            interfaces += ",";
            interfaces += "ppp0";
            lineDb.SetSectionEntry("active_interface", interfaces);
        }
    }
}

bool ApplyGates(ConfigUpgrader& upgrader) {
    MultiSectionFile& lineDb = *upgrader.lineDb;
    bool changed = false;
    if (upgrader.IsVersionBelow("2.4.11") && lineDb.DeleteSection("nonactive_extension_list"))
        changed = true;
    if (upgrader.IsVersionBelow("3.0.1") && lineDb.GotoSection("general") &&
        lineDb.GetSectionEntry("is_sip_to_routing_on") != "1") {
        lineDb.SetSectionEntry("is_sip_to_routing_on", "1");
        changed = true;
    }
    // The dial plan that the same version brings has its pattern "R*" for this prefix.
    if (upgrader.IsVersionBelow("3.0.7") && lineDb.GotoSection("general")) {
        lineDb.SetSectionEntry("routing_prefix", "R");
        changed = true;
    }
    if (upgrader.IsVersionBelow("3.1.22") && lineDb.GotoSection("general") &&
        upgrader.defaultLineDb->GotoSection("general")) {
        const std::string text = upgrader.defaultLineDb->GetSectionEntry("sms_text").value_or("");
        if (!text.empty()) {  // an empty one would take away what the site has set
            lineDb.SetSectionEntry("sms_text", text);
            upgrader.Trace(3, "\"sms_text\" field has been updated from default.\n");
            changed = true;
        }
    }
    return changed;
}

}  // namespace

void ConfigUpgrader::CheckLineDatabase() {
    ReportStep("linedb check");
    if (!lineDb && !ReopenLineDb(*this))
        return;
    bool changed = false;
    for (defaultLineDb->Restart(); defaultLineDb->GotoNextSection();) {
        const std::string section = defaultLineDb->SectionName();
        if (section.empty())
            continue;
        const bool exists = lineDb->GotoSection(section);
        if (exists ? AddMissingEntries(*this, section) : AddMissingSection(*this, section))
            changed = true;
        if (section == "general") {
            FixGeneralSection(*this);
            changed = true;
        }
    }
    changed = ApplyGates(*this) || changed;
    if (changed)
        Save(*lineDb);
    ReportDone();
}
