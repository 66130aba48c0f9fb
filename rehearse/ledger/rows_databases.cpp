// What the run itself and the steps of hardware and databases do on purpose.

#include <algorithm>
#include <cstdlib>

#include "rehearse/ledger/row.h"

namespace rehearse {
namespace {

/// A count of the kernel's, as the hardware probe reads it.
std::string LineCount(const Spot& spot, const char* place, const char* otherwise) {
    const auto file = spot.step.before.State().find(place);
    if (file == spot.step.before.State().end() || !file->second->content)
        return otherwise;
    const std::string& text = *file->second->content;
    constexpr std::size_t most = 4;
    if (text.empty() || text.size() > most)
        return otherwise;
    return std::to_string(std::strtol(text.c_str(), nullptr, 10));
}

std::string FxsCount(const Spot& spot) {
    return LineCount(spot, "proc/orix/fxs-number", "4");
}

std::string FxoCount(const Spot& spot) {
    return LineCount(spot, "proc/orix/fxo-number", "2");
}

bool IsFittedPort(const Spot& spot) {
    return std::strtol(spot.Section().c_str() + 4, nullptr, 10) <
           std::strtol(FxoCount(spot).c_str(), nullptr, 10);
}

bool IsUnreadable(const Spot& spot) {
    return !spot.step.before.File(spot.file).isReadable || !spot.step.before.Has(spot.file);
}

bool IsCount(const Spot& spot) {
    const std::string value = spot.Is();
    return !value.empty() &&
           std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// What the line that carries the extension says, in linedb's section of that line.
bool IsLines(const Spot& spot) {
    for (const SettingsSection& section : spot.step.before.File("linedb").sections)
        if (section.name.find("line_") != std::string::npos &&
            section.Holds("extension", spot.Directory()))
            return section.Holds(spot.key, spot.Is());
    return false;
}

std::vector<Target> ToAttendant(const Spot& spot) {
    std::vector<Target> targets;
    for (const char* file : {"servicesdb", "codecsdb", "personaldatadb", "sipsettingsdb"})
        targets.push_back({spot.step.run.attendant + "/" + file, "", spot.key, spot.Was()});
    return targets;
}

bool IsOldSection(const Spot& spot) {
    return !spot.Section().empty() && spot.Section() != "attendant" &&
           spot.Section() != "extension";
}

bool IsRefreshed(const Spot& spot) {
    return spot.step.run.isDue && !spot.IsKnownExtension() &&
           spot.step.before.State().contains(FactoryFiles(spot.step.run, spot.file)[0]);
}

bool IsUnknownExtension(const Spot& spot) {
    return !spot.Was().empty() && !spot.step.run.extensions.contains(spot.Was());
}

bool HasFactoryValue(const Spot& spot) {
    return FactoryValue(spot).has_value();
}

std::string FirstPortOfFactory(const Spot& spot) {
    for (const std::string& path : FactoryFiles(spot.step.run, spot.file))
        for (const std::string& section : {spot.Section(), std::string("fxo_0")})
            if (const SettingsSection* found = spot.step.before.FileAt(path).Section(section))
                if (const std::string* value = found->Find(spot.key))
                    return *value;
    return {};
}

std::vector<Row> RestoreRows(const char* file, const char* reason) {
    return {
        On(file, "*", "*").Becomes(Factory(), reason).If(IsUnreadable),
        On(file, "*", "*").Goes(reason).If(IsUnreadable),
    };
}

constexpr const char* refreshed = "these files follow the firmware on every upgrade";
constexpr const char* firmware = "follows the firmware on every upgrade";
constexpr const char* noLine = "the unit has no such exchange line";
constexpr const char* tail = "echo tails are counted anew from 3.1.25 on";
constexpr const char* split = "each extension has files of its own";
constexpr const char* boards = "as the boards are";

}  // namespace

const std::vector<StepRows>& DatabaseRows() {
    static const std::vector<StepRows> table = {
        {"recovery", {}},  // the ledger begins behind it
        {"hardware", {}},
        {"linedb", RestoreRows("linedb", "linedb could not be read: the factory's took its place")},
        {"version check", {}},
        {"extensiondb",
         RestoreRows("extensiondb", "extensiondb could not be read: the factory's took its place")},
        {"line counts",
         {
             On("linedb", "general", "num_of_fxs").Becomes(Equals(FxsCount), boards),
             On("linedb", "general", "num_of_fxo").Becomes(Equals(FxoCount), boards),
             On("linedb", "general", "@(supported|special)_codecs")
                 .Becomes(Factory(), firmware)
                 .If(HasFactoryValue)
                 .Due(),
             On("linedb", "fxo_*", "*").Goes(noLine).If([](const Spot& spot) {
                 return !IsFittedPort(spot);
             }),
         }},
        {"hardware record",
         {
             On("hwinfo", "", "*_installed").Becomes(IsOneOf({"0", "1"}), boards),
             On("hwinfo", "", "*").Goes(boards),
             On("linedb", "general", "@(fxo|isdn|e1t1)_on")
                 .Becomes(IsOneOf({"0", "1"}),
                          "an interface without its board gives way to one that has it"),
             On("linedb", "general", "num_of_isdn").Becomes(IsCount, boards),
         }},
        {"extension split",
         {
             On("extensiondb", "?*", "*")
                 .Moves(To({"$s/personaldatadb", "$s/sipsettingsdb", "$s/servicesdb", "$s/codecsdb",
                            "$s/pstnaccessdb"}),
                        split)
                 .If(IsOldSection),
             On("linedb", "attendant", "extension")
                 .Moves(To({"extensiondb"}, "attendant", "att_0"),
                        "extensiondb names the attendants"),
             On("linedb", "attendant", "*").Moves(ToAttendant, split),
             On("extensiondb", "attendant", "att_0")
                 .Becomes(Equals([](const Spot& spot) { return spot.step.run.attendant; }),
                          "extensiondb names the attendants"),
             On("extensiondb", "extension", "ext_*")
                 .Becomes(Equals([](const Spot& spot) { return spot.key.substr(4); }),
                          "extensiondb names the extensions"),
             On("*/codecsdb", "", "*").Becomes(IsLines, "taken over from the extension's line"),
             On("*/servicesdb", "", "special_fax_transport_on")
                 .Becomes(IsLines, "taken over from the extension's line"),
         }},
        {"file set check",
         {
             On("?(*/)@(dspload.cfg|sysmessagedb|servicecodedb|expansions.cfg|voipcarriersdb)", "*",
                "*")
                 .Becomes(Factory(), refreshed)
                 .If(IsRefreshed)
                 .Due(),
             On("?(*/)@(dspload.cfg|sysmessagedb|servicecodedb|expansions.cfg|voipcarriersdb)", "*",
                "*")
                 .Goes(refreshed)
                 .If(IsRefreshed),
             On("?(*/)gaincontrol.cfg", "*", "*")
                 .Becomes(Factory(), refreshed)
                 .If(IsRefreshed)
                 .Below("2.2.7")
                 .Due(),
             On("?(*/)gaincontrol.cfg", "*", "*").Goes(refreshed).If(IsRefreshed).Below("2.2.7"),
             On("?(*/)codecgaindb", "*", "*")
                 .Goes("gains of codecs are no settings any more")
                 .Below("3.0.1"),
             On("?(*/)dialplan.cfg", "*", "section_id")
                 .Becomes(IsCount, "patterns are numbered")
                 .Below("2.4.25"),
         }},
        {"line database",
         {
             On("linedb", "general", "sysmessages_folder")
                 .Becomes(Equals([](const Spot& spot) {
                              return "/telephony/sysmessages/" + spot.step.run.language;
                          }),
                          "the messages' language is the unit's")
                 .Below("3.0.11")
                 .Due(),
             On("linedb", "general",
                "@(CDR_db|missed_calls_db|unsuccess_calls_db|external_user_cache_db|reg_status_file|"
                "supported_codecs)")
                 .Becomes(Factory(), firmware)
                 .If(HasFactoryValue)
                 .Due(),
             On("linedb", "general", "special_codecs")
                 .Becomes(Factory(), firmware)
                 .If(HasFactoryValue)
                 .Below("2.3.11")
                 .Due(),
             On("linedb", "general", "active_interface")
                 .Becomes(Equals([](const Spot& spot) {
                              return spot.Was() +
                                     (spot.Was().find("ppp0") == std::string::npos ? ",ppp0" : "");
                          }),
                          "dial-up counts as an interface")
                 .Below("2.3.11")
                 .Due(),
             On("linedb", "*", "line_name")
                 .Becomes(Factory(), "an empty name is the factory's")
                 .If(WasOneOf({""})),
             On("linedb", "nonactive_extension_list", "*")
                 .Goes("the list is not used any more")
                 .Below("2.4.11")
                 .Due(),
             On("linedb", "general", "is_sip_to_routing_on")
                 .Becomes(Is("1"), "calls from IP go through the routing table from 3.0.1 on")
                 .Below("3.0.1")
                 .Due(),
             On("linedb", "general", "routing_prefix")
                 .Becomes(Is("R"), "the prefix is R from 3.0.7 on")
                 .Below("3.0.7")
                 .Due(),
             On("linedb", "general", "sms_text")
                 .Becomes(Factory(), firmware)
                 .If([](const Spot& spot) { return !FactoryValue(spot).value_or("").empty(); })
                 .Below("3.1.22")
                 .Due(),
         }},
        {"line sections",
         {
             On("linedb", "*line_*", "extension")
                 .Becomes(Is(""), "a new line carries no extension yet")
                 .If([](const Spot& spot) { return spot.Before() == nullptr; }),
             On("linedb", "*line_*", "extension")
                 .Becomes(Is(""), "the line named an extension that the unit does not have")
                 .If(IsUnknownExtension)
                 .Due(),
             On("linedb", "*line_*", "dsp_echo_cancel_tail")
                 .Becomes(Is("48"), tail)
                 .If([](const Spot& spot) { return spot.Before() == nullptr || spot.Was() == "6"; })
                 .Below("3.1.25")
                 .Due(),
             On("linedb", "fxo_*", "dsp_echo_cancel_tail")
                 .Becomes(Is("64"), tail)
                 .If([](const Spot& spot) {
                     return IsFittedPort(spot) && (spot.Before() == nullptr || spot.Was() == "0");
                 })
                 .Below("3.1.25")
                 .Due(),
             On("linedb", "fxo_*", "v_activity_detect_on")
                 .Becomes(Is("1"), "exchange lines detect voice from 3.1.0 on")
                 .If(IsFittedPort)
                 .Below("3.1.0")
                 .Due(),
             On("linedb", "fxo_*", "extension")
                 .Becomes(Equals([](const Spot& spot) { return spot.step.run.attendant; }),
                          "a new exchange line rings the attendant")
                 .If([](const Spot& spot) { return spot.before == nullptr; }),
             On("linedb", "fxo_*", "*")
                 .Becomes(Equals(FirstPortOfFactory),
                          "a new exchange line is like the factory's first")
                 .If([](const Spot& spot) { return spot.before == nullptr; }),
         }},
        {"stamp",
         {
             On("linedb", "general", "current_version")
                 .Becomes(Equals([](const Spot& spot) { return spot.step.run.targetVersion; }),
                          "tells the next start that the upgrade is done"),
         }},
        {"end", {}},
    };
    return table;
}

}  // namespace rehearse
