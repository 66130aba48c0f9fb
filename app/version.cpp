#include "app/version.h"

#include <algorithm>
#include <cstdlib>

#include "app/config_upgrader.h"
#include "files/read.h"
#include "platform/string_utils.h"

namespace {

constexpr std::size_t labelBuffer = 50;  // a label that fills it is none

std::string CantOpenLabel(const std::string& path) {
    return "\tcan't open " + path + " version of current configuration can't be checked\n" +
           "\tnow we gonna to play a little with it... he-he\n";
}

}  // namespace

Label ReadLabel(const std::string& path) {
    Label label;
    label.text = files::ReadStart(path, labelBuffer);
    if (!label.text)
        return label;
    label.tooLong = label.text->size() == labelBuffer;
    if (!label.text->empty()) {
        label.last = label.text->back();
        label.text->pop_back();
    }
    label.text->resize(std::min(label.text->size(), label.text->find('\0')));
    return label;
}

bool ConfigUpgrader::AreLabelsEqual() const {
    const Label factory = ReadLabel(appliance.factoryLabel);
    const Label live = ReadLabel(appliance.liveLabel);
    return factory.IsUsable() && factory.text == live.text;
}

std::string ConfigUpgrader::VersionToStamp() const {
    const Label factory = ReadLabel(appliance.factoryLabel);
    const Label live = ReadLabel(appliance.liveLabel);
    return factory.IsUsable() && live.IsUsable() ? *factory.text : "";
}

bool ConfigUpgrader::CheckVersion() {
    ReportStep("version check");
    const Label factory = ReadLabel(appliance.factoryLabel);
    if (!factory.text)
        report += CantOpenLabel(appliance.factoryLabel);
    if (!factory.IsUsable()) {
        return false;
    }
    const Label live = ReadLabel(appliance.liveLabel);
    if (!live.text)
        report += CantOpenLabel(appliance.liveLabel);
    if (!live.IsUsable()) {
        return false;
    }
    liveVersion = *live.text;

    if (*factory.text == liveVersion) {
        report += "\tUp-to-date\n";
        return true;
    }
    // A tree that was upgraded once and whose label was not rewritten carries the stamp instead.
    if (lineDb && lineDb->GotoSection("general")) {
        char stamp[labelBuffer];
        if (lineDb->GetSectionEntry("current_version", stamp, sizeof stamp) &&
            *factory.text == stamp) {
            liveVersion = stamp;
            report += "\tConfigurarion already checked.\n";
            return true;
        }
    }
    report += "\tcurrent configuration version is not up-to-date (" + liveVersion + ")\n";
    targetVersion = *factory.text;
    return false;
}

bool ConfigUpgrader::IsVersionBelow(const std::string& version) const {
    return IsOlderVersion(liveVersion, version);
}

bool IsOlderVersion(const std::string& live, const std::string& version) {
    const auto liveFields = StringUtils::ParseCommaLine(live, '.');
    const auto fields = StringUtils::ParseCommaLine(version, '.');
    if (liveFields.size() != fields.size())
        return liveFields.size() <= 2;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const long liveNumber = std::strtol(liveFields[i].c_str(), nullptr, 10);
        const long number = std::strtol(fields[i].c_str(), nullptr, 10);
        if (liveNumber != number)
            return liveNumber < number;
    }
    return false;
}

bool IsNewerLabel(const std::string& label, const std::string& than) {
    const auto fields = StringUtils::ParseCommaLine(label, '.');
    const auto others = StringUtils::ParseCommaLine(than, '.');
    const auto number = [](const std::vector<std::string>& list, std::size_t i) {
        return i < list.size() ? std::strtol(list[i].c_str(), nullptr, 10) : 0;
    };
    for (std::size_t i = 0; i < std::max(fields.size(), others.size()); ++i)
        if (number(fields, i) != number(others, i))
            return number(fields, i) > number(others, i);
    return false;
}
