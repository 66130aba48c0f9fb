// Makes the per-line sections of a line database match the hardware and the extensions.

#include "app/config_upgrader.h"
#include "util/numbers.h"

using Configuration::Entry;
using Configuration::MultiSectionFile;

namespace {

bool IsLine(const std::string& section) {
    return Contains(section, "line_");
}

/// Adds the source's current section to the target, attached to no extension: the factory's own
/// extension may be another one's here, or be attached to another line.
void AddLine(MultiSectionFile& target, const MultiSectionFile& source, const std::string& section,
             std::string& report) {
    report += "\t/////////adding section " + section + " /////////\n";
    report += "\t       ---------adding entries-------\n";
    report += "\t__________________________________________\n";
    report += "\t\ttoken\t\t\tvalue\n";
    target.AddSection(section, true);
    for (const auto& [key, value] : source.SectionEntries()) {
        target.SetSectionEntry(key, value);
        report += "\t" + key + "\t\t\t" + value + "\n";
    }
    if (const auto extension = target.GetSectionEntry("extension")) {
        report += "\tclearing extension entry(" + *extension + ")\n";
        target.SetSectionEntry("extension", "");
    }
    report += "\t///////Done///////\n\n";
}

/// Sets an entry of the target's current section and reports it.
void Change(MultiSectionFile& target, const std::string& section, const std::string& key,
            const std::string& value, std::string& report) {
    target.SetSectionEntry(key, value);
    report += "\t- value of entry \"" + key + "\" changed to \"" + value + "\" in section \"" +
              section + "\"\n";
}

}  // namespace

void ConfigUpgrader::CheckLineSections(MultiSectionFile& target, MultiSectionFile& source) {
    ReportStep("Lines sections check...");
    bool changed = false;
    for (source.Restart(); source.GotoNextSection();) {
        const std::string section = source.SectionName();
        if (!IsLine(section) || target.GotoSection(section))
            continue;
        AddLine(target, source, section, report);
        changed = true;
    }

    // Echo tails go from 6 to 48 on lines, from 0 to 64 on FXO ports. The difference is meant.
    const bool tailsChange = IsVersionBelow("3.1.25");
    for (target.Restart(); target.GotoNextSection();) {
        const std::string section = target.SectionName();
        if (!IsLine(section))
            continue;
        const auto extension = target.GetSectionEntry("extension");
        // A line that is attached to nothing has an empty entry, and gets the report line too.
        if (extension && !ListContains(liveExtensions, *extension)) {
            report += "\tfound unknown extension attached to line \"" + section +
                      "\" in linedb, it's being deleted\n";
            target.SetSectionEntry("extension", "");
            changed = true;
        }
        if (tailsChange && target.GetSectionEntry("dsp_echo_cancel_tail") == "6") {
            Change(target, section, "dsp_echo_cancel_tail", "48", report);
            changed = true;
        }
    }

    for (std::int32_t port = 0; port < numFxo; ++port) {
        const std::string section = "fxo_" + NumberToString(port);
        if (!target.GotoSection(section)) {
            report += "\tadding section " + section + "\n";
            target.AddSection(section, true);
            // The unit may have more ports than the factory file: port 0 is the model for those.
            if (source.GotoSection(section) || source.GotoSection("fxo_0"))
                for (const Entry& entry : source.SectionEntries())
                    target.SetSectionEntry(entry.key, entry.value);
            target.SetSectionEntry("extension", attendantExtension);  // who answers on new ports
            changed = true;
        }
        if (IsVersionBelow("3.1.0")) {
            Change(target, section, "v_activity_detect_on", "1", report);
            changed = true;
        }
        if (tailsChange && target.GetSectionEntry("dsp_echo_cancel_tail") == "0") {
            Change(target, section, "dsp_echo_cancel_tail", "64", report);
            changed = true;
        }
    }
    if (changed)
        Save(target);
    ReportDone();
}
