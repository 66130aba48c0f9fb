// Brings one live file in line with its factory default, and applies the rules that its name
// calls for.

#include <cstdint>

#include "app/config_upgrader.h"
#include "util/numbers.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// A pair under check. A rule tells whether the live file is still to be saved: some save at once.
struct CheckedFile {
    MultiSectionFile& live;
    MultiSectionFile& factory;
    const std::string& path;  // of the live file
};

/// Without a gate: every upgrade switches it on, also where the site had switched it off.
bool SwitchOnAdmissionControl(ConfigUpgrader& upgrader, CheckedFile& file) {
    if (!file.live.GotoSection("common"))
        return false;
    file.live.SetSectionEntry("call_admission_control", "1");
    if (const auto port = file.live.GetSectionEntry("min_rtp_port"))
        upgrader.rtpMinPort = *port;
    if (const auto port = file.live.GetSectionEntry("max_rtp_port"))
        upgrader.rtpMaxPort = *port;
    upgrader.report += "\t- Call admission control switched on\n";
    return true;
}

bool UpdateCodecs(ConfigUpgrader& upgrader, CheckedFile& file) {
    bool changed = false;
    for (file.live.Restart(); file.live.GotoNextSection();) {
        const std::string codec = file.live.SectionName();
        if (upgrader.IsVersionBelow("2.3.1") && file.factory.GotoSection(codec)) {
            if (const auto cng = file.factory.GetSectionEntry("cng")) {
                file.live.SetSectionEntry("cng", *cng);
                upgrader.report += "\t- CNG for codec - " + codec + " is switched " +
                                   (*cng == "1" ? "ON" : "OFF") + " (as in default conf)\n";
                changed = true;
            }
        }
        if (!upgrader.IsVersionBelow("3.0.21"))  // nor below 2.3.1, then
            break;
        if (file.live.GetSectionEntry("packets_recover_count")) {
            file.live.SetSectionEntry("packets_recover_count", "0");
            changed = true;
        }
    }
    return changed;
}

bool CheckRtp(ConfigUpgrader& upgrader, CheckedFile& file) {
    const bool switched = SwitchOnAdmissionControl(upgrader, file);
    return UpdateCodecs(upgrader, file) || switched;
}

bool CheckStun(ConfigUpgrader& upgrader, CheckedFile& file) {
    if (!upgrader.IsVersionBelow("2.3.29"))
        return false;
    const auto minutes = file.live.GetEntry("UDP Map Time To Life");
    if (!minutes)
        return false;
    // This must not happen twice. When the run is killed behind this save, the recovery copy brings
    // the minutes back.
    const std::int64_t seconds = std::int64_t{StringToNumber<int>(*minutes)} * 60;
    file.live.SetEntry("UDP Map Time To Life", NumberToString(seconds));
    upgrader.report += "\t- changing UDP Map Time To Life value from minutes to seconds\n";
    upgrader.Save(file.live);
    return false;
}

/// Without a gate: on every upgrade the site's fax rate gives way to the firmware's.
bool CheckFax(ConfigUpgrader&, CheckedFile& file) {
    if (!file.live.GotoSection("T38") || !file.factory.GotoSection("T38"))
        return false;
    for (const char* key : {"fax_rate", "fax_udp_ec"})
        if (const auto value = file.factory.GetSectionEntry(key))
            file.live.SetSectionEntry(key, *value);
    return true;
}

bool CheckDialPlan(ConfigUpgrader& upgrader, CheckedFile& file) {
    bool changed = false;
    for (file.live.Restart(); file.live.GotoNextSection();) {
        const auto pattern = file.live.GetSectionEntry("pattern");
        // "9" goes on every upgrade, from whatever version, even one that the merge has just added.
        if (pattern == "9" || (pattern == "00" && upgrader.IsVersionBelow("2.4.51"))) {
            file.live.DeleteSection();
            changed = true;
        }
    }
    return changed;
}

/// One entry that named the kind of forwarding, or "None", became a switch and a mode. The merge of
/// the supplementary services, later in the run, reads these two.
bool SplitForwardingType(ConfigUpgrader& upgrader, CheckedFile& file) {
    const auto type = file.live.GetEntry("call_forwarding_type");
    if (!type)
        return false;
    const bool on = *type != "None";
    const std::string mode = on ? *type : "Unconditional";
    file.live.SetEntry("call_forwarding_enabled", on ? "1" : "0");
    file.live.SetEntry("call_forwarding_mode", mode);
    file.live.DeleteEntry("call_forwarding_type");
    upgrader.report += "\tin file: " + file.path + "\n\tcorrecting fwd type (" + *type +
                       ") to -> mode: " + mode + ", service is: " + (on ? "ON" : "OFF") + "\n";
    return true;
}

bool CheckServices(ConfigUpgrader& upgrader, CheckedFile& file) {
    bool changed = false;
    if (upgrader.IsVersionBelow("2.4.11"))
        changed = SplitForwardingType(upgrader, file);
    if (upgrader.IsVersionBelow("3.0.21")) {
        const auto faxMail = file.live.GetEntry("fax_mail_service_on");
        if (faxMail && *faxMail != "1") {
            file.live.SetEntry("fax_mail_service_on", "1");
            upgrader.report += "\tin file: " + file.path + "\n\tset fax_mail_service_on=1\n";
            changed = true;
        }
    }
    if (upgrader.IsVersionBelow("3.1.0")) {
        // The site's own fax settings give way, also those that the split has just copied.
        file.live.SetEntry("special_fax_transport_on", "1");
        file.live.SetEntry("transparent_fax_on", "1");
        file.live.SetEntry("outgoing_fax_only", "0");
        upgrader.report += "\tin file: " + file.path + "\n\tUpdate fax parameters\n";
        upgrader.Save(file.live);
    }
    return changed;
}

bool CheckGateways(ConfigUpgrader& upgrader, CheckedFile& file) {
    if (!upgrader.IsVersionBelow("2.5.1"))
        return false;
    bool changed = false;
    for (file.live.Restart(); file.live.GotoNextSection();) {
        const auto type = file.live.GetSectionEntry("type");
        if (!type)
            continue;
        file.live.SetSectionEntry("subtype", *type == "MGC" ? "onboard" : "iplocale");
        changed = true;
    }
    return changed;
}

/// A run does not get here today: the file set check replaces this file by the factory's, and what
/// it replaces is not queued.
bool CheckServiceCodes(ConfigUpgrader& upgrader, CheckedFile& file) {
    if (!upgrader.IsVersionBelow("3.1.3"))
        return false;
    file.live.SetEntry("CallPark", "f5,*5");
    upgrader.report += "\n\tChanged CallPark=f5,*5.\n";
    upgrader.Save(file.live);
    return false;
}

/// Zero-out without anywhere to go was ignored once; now it would drop the caller.
bool CheckVoicemail(ConfigUpgrader& upgrader, CheckedFile& file) {
    if (!upgrader.IsVersionBelow("3.1.7") || file.live.GetEntry("zero_out") != "1")
        return false;
    if (!file.live.GetEntry("zero_out_redirect_address").value_or("").empty())
        return false;
    file.live.SetEntry("zero_out", "0");
    upgrader.report += "\n\tSet zero_out=0.\n";
    return true;
}

struct FileRule {
    const char* name;
    bool (*apply)(ConfigUpgrader&, CheckedFile&);
};

// A row fits when the live path contains its name, so that the copies of all extensions are met.
// The first that fits is the only one applied.
constexpr FileRule fileRules[] = {
    {"stun.cfg", CheckStun},         {"fax.cfg", CheckFax},
    {"dialplan.cfg", CheckDialPlan}, {"servicesdb", CheckServices},
    {"gatewaydb", CheckGateways},    {"servicecodedb", CheckServiceCodes},
    {"voicemaildb", CheckVoicemail}};

bool ApplyFileRules(ConfigUpgrader& upgrader, CheckedFile& file) {
    // rtp.cfg is asked on its own: a path may name it and another.
    const bool changed = Contains(file.path, "rtp.cfg") && CheckRtp(upgrader, file);
    for (const FileRule& rule : fileRules)
        if (Contains(file.path, rule.name))
            return rule.apply(upgrader, file) || changed;
    return changed;
}

/// Adds the named sections and their entries that the live file lacks. An entry with an empty value
/// is not lacking: the site may want it empty.
bool AddMissingSections(CheckedFile& file, std::string& report) {
    bool changed = false;
    for (file.factory.Restart(); file.factory.GotoNextSection();) {
        const std::string section = file.factory.SectionName();
        if (section.empty())
            continue;
        const bool exists = file.live.GotoSection(section);
        if (!exists) {
            file.live.AddSection(section, false);
            report += "\t- section \"" + section +
                      "\" doesn't exist,"
                      "- copy from default-conf will be set\n";
            changed = true;
        }
        for (const auto& [key, value] : file.factory.SectionEntries()) {
            if (exists) {
                if (file.live.GetSectionEntry(key))
                    continue;
                report += "\t- added entry \"" + key + "\" with value \"" + value +
                          "\" to section \"" + section + "\" from default-conf\n";
            }
            file.live.SetSectionEntry(key, value);
            changed = true;
        }
    }
    return changed;
}

bool AddMissingEntries(CheckedFile& file, std::string& report) {
    bool changed = false;
    for (const auto& [key, value] : file.factory.Entries()) {
        if (file.live.GetEntry(key))
            continue;
        file.live.SetEntry(key, value);
        report +=
            "\t- added entry \"" + key + "\" with value \"" + value + "\" from default-conf\n";
        changed = true;
    }
    return changed;
}

/// The factory's file, which all extensions are compared with.
MultiSectionFile& FactoryFile(ConfigUpgrader& upgrader, const std::string& path) {
    SectionFile& file = upgrader.factoryFiles[path];
    if (!file)
        file = std::make_unique<MultiSectionFile>(path, true, true);
    return *file;
}

}  // namespace

void ConfigUpgrader::CheckConfigFile(const std::pair<std::string, std::string>& files) {
    const auto& [livePath, factoryPath] = files;
    ReportStep(livePath + " check");
    SectionFile live;
    MultiSectionFile* factory = nullptr;
    const std::string* opening = &factoryPath;
    try {
        factory = &FactoryFile(*this, factoryPath);
        opening = &livePath;
        live = std::make_unique<MultiSectionFile>(livePath, true);
    } catch (const FileError& error) {
        TraceInvalidFile(*opening, error);
        return;
    }
    CheckedFile file{*live, *factory, livePath};

    bool changed = false;
    if (live->Exists()) {  // a live file that is missing gets nothing from the factory here
        if (Contains(livePath, "dialplan.cfg"))
            changed = MergeKeyedSections(live.get(), factory, "pattern", "section_id");
        else if (!Contains(livePath, "localrouttabledb"))
            changed = AddMissingSections(file, report);
        else if (IsVersionBelow("3.0.1"))
            changed = MergeKeyedSections(live.get(), factory, "dialing_template", "id");
        changed = AddMissingEntries(file, report) || changed;
    }
    changed = ApplyFileRules(*this, file) || changed;
    if (changed)
        Save(*live);

    // The conversions open the file anew, so what was added has to be saved before.
    if (Contains(livePath, "sip.cfg"))
        ConvertSipSettings();
    else if (Contains(livePath, "nat.cfg") && IsVersionBelow("2.4.16"))
        ConvertNatSettings();
    // sip.cfg stands before this file in the merge list, so its profile is known by now.
    if (Contains(livePath, "timerprofile.cfg") && !sipTimerProfile.empty()) {
        live->SetEntry("timer_profile", sipTimerProfile);
        report += "timer profile changed to: " + sipTimerProfile + ", from sip.cfg\n";
        Save(*live);
    }
    ReportDone();
}
