// Gives the records of old caller databases the type of their caller, where it is plain.

#include <algorithm>
#include <iterator>

#include "app/config_upgrader.h"
#include "platform/string_utils.h"

namespace {

/// Under which keys a caller database keeps the type and the number of a record. The others of
/// these databases keep no type.
struct CallerKeys {
    const char* database;
    const char* type;
    const char* number;
};

constexpr CallerKeys callerKeys[] = {
    {"anonymousdb", "call_type", "user_name"},
    {"blockedinnumsdb", "caller_type", "user_name"},
    {"blockedoutnumsdb", "caller_type", "user_name"},
    {"distringdb", "caller_type", "user_name"},
    {"huntdb", "caller_type", "caller"},
    {"manyextringdb", "caller_type", "caller"},
    {"forwardlistdb", "caller_type", "caller"},
    {"speedcalldb", "call_type", "user_name"},
};

/// "PBX", "IP" or "PSTN"; empty where nothing tells.
std::string CallerType(const ConfigUpgrader& upgrader, const std::string& number,
                       const std::string& host) {
    if (number.empty() || number == "any")
        return "";
    if (ListContains(upgrader.liveExtensions, number) ||
        ListContains(upgrader.liveAttendants, number))
        return "PBX";
    if (!host.empty() || Contains(number, "@"))
        return "IP";
    return StringUtils::IsNumeric(number, false, false) ? "PSTN" : "";
}

}  // namespace

void ConfigUpgrader::CheckCallerTypes(Configuration::MultiSectionFile& file,
                                      const std::string& name) {
    ReportStep("services check for " + name);
    const auto* keys = std::find_if(std::begin(callerKeys), std::end(callerKeys),
                                    [&](const CallerKeys& row) { return name == row.database; });
    if (keys != std::end(callerKeys)) {
        for (file.Restart(); file.GotoNextSection();) {
            if (!file.GetSectionEntry(keys->type).value_or("").empty())
                continue;
            const std::string number = file.GetSectionEntry(keys->number).value_or("");
            const std::string host = file.GetSectionEntry("user_host_address").value_or("");
            const std::string type = CallerType(*this, number, host);
            if (type.empty())
                continue;
            file.SetSectionEntry(keys->type, type);
            // The digit that dials out. From 3.1.0 on a speed dial has it in an entry of its own,
            // where UpdateFxoPrefix puts it later in the run.
            if (type == "PSTN")
                file.SetSectionEntry(keys->number, "0" + number);
            report += "\tcaller " + number + " is set to type " + type + "\n";
        }
    }
    ReportDone();
}
