// What telephony hardware the unit has, and how linedb and hwinfo record it.

#include <cstdlib>
#include <optional>

#include "app/config_upgrader.h"
#include "files/read.h"
#include "platform/string_utils.h"
#include "steps/hardware/hw_info.h"
#include "util/numbers.h"

using Configuration::ConfigFile;
using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// The text between a key and the next line end. The kernel writes the key with a blank or a "="
/// behind it; the blank is looked for first. It has to be looked for with the key: STUFFED_FXO_FXO
/// begins with STUFFED_FXO.
std::optional<std::string> HwValue(const std::string& hwInfo, const std::string& key) {
    for (const char* separator : {" ", "="}) {
        const std::string start = key + separator;
        const std::size_t at = hwInfo.find(start);
        if (at == std::string::npos)
            continue;
        const std::size_t begin = at + start.size();
        const std::size_t end = hwInfo.find('\n', begin);
        return hwInfo.substr(begin, end == std::string::npos ? end : end - begin);
    }
    return std::nullopt;
}

/// A count of boards or ports. A key that is absent and a value that is not all digits mean the
/// same as 0: there are none.
std::int32_t HwNumber(const std::string& hwInfo, const std::string& key) {
    const std::string text = HwValue(hwInfo, key).value_or("");
    if (!StringUtils::IsNumeric(text, false, false))
        return 0;
    return StringToNumber<std::int32_t>(text);
}

enum class Answer { None, Yes, No };

Answer HwAnswer(const std::string& hwInfo, const std::string& key) {
    const std::string text = HwValue(hwInfo, key).value_or("");
    if (text.find("YES") != std::string::npos)
        return Answer::Yes;
    if (text.find("NO") != std::string::npos)
        return Answer::No;
    return Answer::None;
}

/// E1/T1: a counted number of boards decides; without one STUFFED_E1 does, and STUFFED_T1 is only
/// asked when STUFFED_E1 says NO. Without any STUFFED_E1, a STUFFED_T1 counts for nothing.
bool HasE1T1(const std::string& hwInfo) {
    if (HwNumber(hwInfo, "STUFFED_E1T1_CO") != 0)
        return true;
    const Answer e1 = HwAnswer(hwInfo, "STUFFED_E1");
    if (e1 != Answer::No)
        return e1 == Answer::Yes;
    return HwAnswer(hwInfo, "STUFFED_T1") == Answer::Yes;
}

struct Switch {
    const char* entry;
    bool present;
};

/// Switches an interface off that is on without its board, and on the first of the other two that
/// has one. True when it did.
bool ReplaceAbsentInterface(MultiSectionFile& lineDb, const Switch& absent, const Switch& first,
                            const Switch& second) {
    if (absent.present || lineDb.GetSectionEntry(absent.entry) != "1")
        return false;
    lineDb.SetSectionEntry(absent.entry, "0");
    if (first.present)
        lineDb.SetSectionEntry(first.entry, "1");
    else if (second.present)
        lineDb.SetSectionEntry(second.entry, "1");
    return true;
}

const char* Digit(bool on) {
    return on ? "1" : "0";
}

}  // namespace

HwFacts ParseHwInfo(const std::string& hwInfo) {
    HwFacts facts;
    facts.e1t1 = HasE1T1(hwInfo);
    const Answer board = HwAnswer(hwInfo, "STUFFED_FXO");
    const Answer combined = HwAnswer(hwInfo, "STUFFED_FXO_FXO");
    facts.fxo = board == Answer::Yes || combined == Answer::Yes;
    facts.fxoTold = board != Answer::None || combined != Answer::None;
    facts.isdn = HwNumber(hwInfo, "STUFFED_ISDN");
    facts.isdnTotal = static_cast<std::uint32_t>(facts.isdn) +
                      static_cast<std::uint32_t>(HwNumber(hwInfo, "STUFFED_FXO_ISDN"));
    return facts;
}

void ConfigUpgrader::ProbeHardware(bool secondPass) {
    const files::ReadResult hwInfo = files::ReadFile(appliance.hwInfo);
    if (!hwInfo.bytes) {
        report += "\tcan't open " + appliance.hwInfo + "\n";
        Tell(Fact::Kind::Absent, appliance.hwInfo);
        return;
    }
    const HwFacts facts = ParseHwInfo(*hwInfo.bytes);
    numIsdn = facts.isdn;
    if (!secondPass)  // linedb is not open yet
        return;

    try {
        ConfigFile file(configRoot + "hwinfo", true);
        file.ClearAll();  // a fact that the kernel no longer tells must not stay
        file.SetEntry("e1t1_installed", Digit(facts.e1t1));
        if (facts.fxoTold)
            file.SetEntry("fxo_installed", Digit(facts.fxo));
        file.SetEntry("isdn_installed", Digit(facts.isdnTotal != 0));
        Save(file);
    } catch (const FileError& error) {
        TraceInvalidFile(configRoot + "hwinfo", error);
    }

    if (!lineDb->GotoSection("general"))
        return;
    const Switch fxo{"fxo_on", facts.fxo};
    const Switch isdn{"isdn_on", facts.isdnTotal != 0};
    const Switch e1t1{"e1t1_on", facts.e1t1};
    // What one call switches on has its board, so none of the next switches it off.
    bool changed = ReplaceAbsentInterface(*lineDb, fxo, isdn, e1t1);
    changed = ReplaceAbsentInterface(*lineDb, isdn, fxo, e1t1) || changed;
    changed = ReplaceAbsentInterface(*lineDb, e1t1, fxo, isdn) || changed;
    if (isdn.present) {  // without ISDN the old number stays: isdn_on says that it is off
        lineDb->SetSectionEntry("num_of_isdn", NumberToString(facts.isdnTotal));
        changed = true;
    }
    if (changed)
        Save(*lineDb);
}

namespace {

/// Reads a kernel line count into `number`; false, having said why, when it keeps its default.
bool ProbeLineCount(const std::string& path, const std::string& kind, std::int32_t& number,
                    std::string& report) {
    constexpr std::size_t mostBytes = 4;  // three digits and the line end
    const std::string keptDefault =
        path + " number of " + kind + " is set " + NumberToString(number) + "(default)\n";
    auto text = files::ReadStart(path, mostBytes + 1);
    if (!text) {
        report += "\tcan't open " + keptDefault;
        return false;
    }
    if (text->empty() || text->size() > mostBytes) {
        report += "\tcan't read " + keptDefault;
        return false;
    }
    text->pop_back();  // the line end
    number = static_cast<std::int32_t>(std::strtol(text->c_str(), nullptr, 10));
    report += "\tnumber of " + kind + " is set " + *text + "\n";
    return true;
}

/// Whether the text of an old line count is below what the hardware has.
bool IsBelowCount(const std::string& oldCount, std::int32_t count) {
    return StringToNumber<unsigned long>(oldCount) < static_cast<std::uint32_t>(count);
}

}  // namespace

void ConfigUpgrader::ProbeLineCounts() {
    if (!ProbeLineCount(appliance.fxsNumber, "fxs", numFxs, report))
        Tell(Fact::Kind::Absent, appliance.fxsNumber);
    if (!ProbeLineCount(appliance.fxoNumber, "fxo", numFxo, report))
        Tell(Fact::Kind::Absent, appliance.fxoNumber);
    // The four-line files serve every other number of lines, 0 included.
    linesDir = numFxs == 2 ? "02-lines/" : numFxs == 16 ? "16-lines/" : "04-lines/";
    report += "\tNum of FXS lines depending cfg path is " + linesDir + "\n";
}

void ConfigUpgrader::UpdateLineCounts() {
    if (!lineDb->GotoSection("general"))
        return;
    if (const auto old = lineDb->GetSectionEntry("num_of_fxs")) {
        report += "Number of FXS lines was set " + *old + "\n";
        if (IsBelowCount(*old, numFxs))
            linesMismatch = true;
    }
    lineDb->SetSectionEntry("num_of_fxs", NumberToString(static_cast<std::uint32_t>(numFxs)));
    // FXO never had a report line, and the texts of the report do not change.
    if (const auto old = lineDb->GetSectionEntry("num_of_fxo"))
        if (IsBelowCount(*old, numFxo))
            linesMismatch = true;
    lineDb->SetSectionEntry("num_of_fxo", NumberToString(static_cast<std::uint32_t>(numFxo)));

    // Which codecs there are is the firmware's to say, so this is copied on every start.
    if (defaultLineDb->GotoSection("general"))
        for (const char* codecs : {"supported_codecs", "special_codecs"})
            if (const auto value = defaultLineDb->GetSectionEntry(codecs))
                lineDb->SetSectionEntry(codecs, *value);

    // The sections of ports that the hardware does not have. Ports are numbered without gaps, so
    // the first missing one ends it.
    for (std::int32_t port = numFxo; lineDb->DeleteSection("fxo_" + NumberToString(port)); ++port) {
    }
    Save(*lineDb);
}
