// Brings the line database in line with the factory's: new sections and entries, and the fixes of
// its general section.

#include "app/config_upgrader.h"

using Configuration::Entry;
using Configuration::MultiSectionFile;

namespace {

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

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

}  // namespace

void ConfigUpgrader::CheckLineDatabase() {
    ReportStep("linedb check");
    if (!lineDb && !ReopenLineDb())
        return;

    bool changed = false;
    for (defaultLineDb->Restart(); defaultLineDb->GotoNextSection();) {
        const std::string section = defaultLineDb->SectionName();
        if (section.empty())
            continue;
        if (lineDb->GotoSection(section)) {
            changed = AddMissingLineEntries(section) || changed;
        } else {
            // The sections of lines and ports follow the hardware and have a check of their own.
            if (section == "nonactive_extension_list" || Contains(section, "line_") ||
                Contains(section, "fxo_"))
                continue;
            report += "\t- section \"" + section +
                      "\" doesn't exist,"
                      "- copy from default-conf will be set\n";
            lineDb->AddSection(section, true);
            for (const Entry& entry : defaultLineDb->SectionEntries())
                if (entry.key != neverAdded)
                    lineDb->SetSectionEntry(entry.key, entry.value);
            changed = true;
        }
        if (section == "general") {
            FixGeneralSection();
            changed = true;
        }
    }
    changed = ApplyLineDatabaseGates() || changed;
    if (changed)
        Save(*lineDb);
    ReportDone();
}

/// Restores linedb from the factory when it is not open; false when that is not possible.
bool ConfigUpgrader::ReopenLineDb() {
    try {
        lineDb = std::make_unique<MultiSectionFile>(configRoot + "linedb");
        return true;
    } catch (const std::exception&) {
        report += "\tfile linedb doesn't exist or corrupted, copying from default-conf\n";
    }
    if (!CopyFromFactory("linedb")) {
        report += "\tCan't copy linedb from default-conf, probably a problem with filesystem,\n";
        return false;
    }
    try {
        lineDb = std::make_unique<MultiSectionFile>(configRoot + "linedb");
        return true;
    } catch (const std::exception& error) {
        report += std::string("\t") + error.what() + "\n";
        return false;
    }
}

/// Adds to linedb's current section what the factory's current section has more.
bool ConfigUpgrader::AddMissingLineEntries(const std::string& section) {
    bool changed = false;
    for (const auto& [key, value] : defaultLineDb->SectionEntries()) {
        const std::string what = "entry \"" + key + "\" with value \"" + value +
                                 "\" to section \"" + section + "\" from default-conf\n";
        if (const auto live = lineDb->GetSectionEntry(key)) {
            if (key != "line_name" || value.empty() || !live->empty())
                continue;
            report += "\t- update empty " + what;
        } else {
            if (key == neverAdded)
                continue;
            report += "\t- added " + what;
        }
        lineDb->SetSectionEntry(key, value);
        changed = true;
    }
    return changed;
}

/// Works on the current sections of both files, which are "general".
void ConfigUpgrader::FixGeneralSection() {
    if (IsVersionBelow("3.0.11")) {
        const std::string folder = "/telephony/sysmessages/" + systemLanguage;
        lineDb->SetSectionEntry("sysmessages_folder", folder);
        report += "\tSet sysmessages_folder = " + folder + "\n";
    }
    for (const char* key : firmwareEntries)
        CopyEntry(*defaultLineDb, *lineDb, key);
    if (IsVersionBelow("2.3.11")) {
        CopyEntry(*defaultLineDb, *lineDb, "special_codecs");
        // An absent list becomes ",ppp0"; the readers of the entry skip the empty item.
        std::string interfaces = lineDb->GetSectionEntry("active_interface").value_or("");
        if (!Contains(interfaces, "ppp0")) {
            interfaces += ",";
            interfaces += "ppp0";
            lineDb->SetSectionEntry("active_interface", interfaces);
        }
    }
}

bool ConfigUpgrader::ApplyLineDatabaseGates() {
    bool changed = false;
    if (IsVersionBelow("2.4.11") && lineDb->DeleteSection("nonactive_extension_list"))
        changed = true;
    if (IsVersionBelow("3.0.1") && lineDb->GotoSection("general") &&
        lineDb->GetSectionEntry("is_sip_to_routing_on") != "1") {
        lineDb->SetSectionEntry("is_sip_to_routing_on", "1");
        changed = true;
    }
    if (IsVersionBelow("3.0.7") && lineDb->GotoSection("general")) {
        lineDb->SetSectionEntry("routing_prefix", "R");
        changed = true;
    }
    if (IsVersionBelow("3.1.22") && lineDb->GotoSection("general") &&
        defaultLineDb->GotoSection("general")) {
        const std::string text = defaultLineDb->GetSectionEntry("sms_text").value_or("");
        if (!text.empty()) {
            lineDb->SetSectionEntry("sms_text", text);
            Trace(3, "\"sms_text\" field has been updated from default.\n");
            changed = true;
        }
    }
    return changed;
}
