#include "steps/sipnat/sections.h"

using Configuration::MultiSectionFile;

std::string TakeTopLevelEntry(MultiSectionFile& file, const std::string& key) {
    const std::string value = file.GetEntry(key).value_or("");
    file.DeleteEntry(key);
    return value;
}

bool GotoSectionOrReport(ConfigUpgrader& upgrader, MultiSectionFile& file,
                         const std::string& section) {
    if (file.GotoSection(section))
        return true;
    upgrader.report += "\tNo section \"" + section + "\" found, nothing done there\n";
    return false;
}

bool EnterSection(ConfigUpgrader& upgrader, MultiSectionFile& file, const std::string& section) {
    if (!GotoSectionOrReport(upgrader, file, section))
        return false;
    upgrader.report += "\tin section \"" + section + "\"...\n";
    return true;
}
