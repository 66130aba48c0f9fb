// Takes the exchange access digit off stored numbers and keeps it as the FXO prefix. A second time
// it would take off a 0 that belongs to the number.

#include <optional>

#include "app/config_upgrader.h"

using Configuration::ConfigFile;
using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

bool IsPstnWithDigit(const std::optional<std::string>& type,
                     const std::optional<std::string>& number) {
    return type == "PSTN" && number && number->starts_with('0');
}

/// "PSTN-0555" becomes "PSTN-555"; nothing for what has no such digit. Whatever stands between
/// "PSTN" and the digit becomes a hyphen: this is meant. No entry keeps the digit here.
std::optional<std::string> WithoutAccessDigit(const std::string& callTo) {
    if (!callTo.starts_with("PSTN") || callTo.size() < 6 || callTo[5] != '0')
        return std::nullopt;
    return "PSTN-" + callTo.substr(6);
}

bool UpdateCallTargets(MultiSectionFile& services) {
    bool changed = false;
    for (services.RestartSection(); services.GotoSecNextEntry();) {
        const auto entry = services.GetSecCurrentEntry();
        if (entry->key != "callto")
            continue;
        if (const auto target = WithoutAccessDigit(entry->value)) {
            services.SetSecCurrentEntry(*target);
            changed = true;
        }
    }
    return changed;
}

void TraceInvalidFxoFile(ConfigUpgrader& upgrader, const std::string& path,
                         const FileError& error) {
    upgrader.Trace(1, "MINOR ERROR in UpdateFxoPrefix: Invalid file: %s\n", path.c_str());
    upgrader.TraceReason(error);
}

void UpdateSpeedDials(ConfigUpgrader& upgrader, const std::string& path) {
    upgrader.Trace(3, "Update speedcalldb.\n");
    try {
        MultiSectionFile dials(path, false);
        bool changed = false;
        for (dials.Restart(); dials.GotoNextSection();) {
            const auto number = dials.GetSectionEntry("user_name");
            if (!IsPstnWithDigit(dials.GetSectionEntry("call_type"), number))
                continue;
            dials.SetSectionEntry("user_name", number->substr(1));
            dials.SetSectionEntry("fxo_prefix", "0");
            changed = true;
        }
        if (changed)
            upgrader.Save(dials);
    } catch (const FileError& error) {
        TraceInvalidFxoFile(upgrader, path, error);
    }
}

void UpdateAutomaticCall(ConfigUpgrader& upgrader, const std::string& path) {
    upgrader.Trace(3, "Update servicesdb.\n");
    try {
        ConfigFile services(path, false, true);
        const auto number = services.GetEntry("auto_dest");
        if (!IsPstnWithDigit(services.GetEntry("auto_call_type"), number))
            return;
        services.SetEntry("auto_dest", number->substr(1));
        services.SetEntry("auto_fxo_prefix", "0");
        upgrader.Save(services);
    } catch (const FileError& error) {
        TraceInvalidFxoFile(upgrader, path, error);
    }
}

void UpdateForwardTargets(ConfigUpgrader& upgrader, const std::string& directory) {
    upgrader.Trace(3, "Update supservices_x files.\n");
    SectionFile patterns = upgrader.OpenSectionFile(directory + "addresspatterndb", false);
    if (!patterns) {  // the extension has none of its own, and follows the shared ones
        const std::string shared = upgrader.configRoot + "default" + "/" + "addresspatterndb";
        patterns = upgrader.OpenSectionFile(shared, false);
        if (!patterns) {
            upgrader.Trace(1, "MINOR ERROR in UpdateFxoPrefix: Invalid file: %s.\n",
                           shared.c_str());
            return;
        }
    }
    for (patterns->Restart(); patterns->GotoNextSection();) {
        const std::string id = patterns->GetSectionEntry("section_id").value_or("");
        upgrader.Trace(3, "\tUpdate supservices_%s.\n", id.c_str());
        const std::string path = directory + "supservices_" + id;
        try {
            MultiSectionFile services(path, false);
            for (const char* section : {"funcond", "fnoanswer", "fbusy"})
                if (services.GotoSection(section) && UpdateCallTargets(services))
                    upgrader.Save(services);
        } catch (const FileError& error) {
            TraceInvalidFxoFile(upgrader, path, error);
        }
    }
}

}  // namespace

void ConfigUpgrader::UpdateFxoPrefix() {
    if (!IsVersionBelow("3.1.0"))
        return;
    Trace(3, "Starting update Fxo prefix.\n");
    for (const std::string& extension : liveExtensions) {
        const std::string directory = configRoot + extension + "/";
        Trace(3, "Update for extension %s.\n", extension.c_str());
        UpdateSpeedDials(*this, directory + "speedcalldb");
        UpdateAutomaticCall(*this, directory + "servicesdb");
        UpdateForwardTargets(*this, directory);
    }
    Trace(3, "Done.\n");
}
