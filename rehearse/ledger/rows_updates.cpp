// What the versioned updates of features do on purpose.

#include <algorithm>
#include <cstdlib>

#include "platform/string_utils.h"
#include "rehearse/ledger/row.h"

namespace rehearse {
namespace {

std::string LowerDelay(const Spot& spot) {
    return std::to_string(std::strtol(spot.Was().c_str(), nullptr, 10) - 80);
}

bool IsAccessRoute(const Spot& spot) {
    return spot.Sibling("emergancy") == "1" || spot.Sibling("access_code") == "1";
}

/// The time-out of "0*" is kept for "R*".
bool IsKeptTimeout(const Spot& spot) {
    if (spot.SiblingNow("pattern") != "R*")
        return false;
    for (const SettingsSection& section : spot.step.before.File(spot.file).sections)
        if (section.Holds("pattern", "0*"))
            return section.Holds("timeout", spot.Is());
    return false;
}

/// Each address of a list, as an entry of its own.
std::vector<Target> ToAddresses(const Spot& spot) {
    std::vector<Target> targets;
    for (std::string item : StringUtils::ParseCommaLine(spot.Was(), ',')) {
        const std::size_t slash = item.find('/');
        if (slash == std::string::npos)
            continue;
        item[slash] = '-';
        targets.push_back({spot.file, "*", "addr", item});
    }
    return targets;
}

/// An address of the group's list; the group is known by its other entries.
bool IsListed(const Spot& spot) {
    const std::vector<std::string> items =
        StringUtils::ParseCommaLine(spot.Sibling("address_list"), ',');
    return std::any_of(items.begin(), items.end(), [&](std::string item) {
        const std::size_t slash = item.find('/');
        if (slash != std::string::npos)
            item[slash] = '-';
        return slash != std::string::npos && item == spot.Is();
    });
}

// --- the system extension is a copy of attendant 00 ----------------------------------------------

std::string AttendantsFile(const Spot& spot) {
    return "00/" + spot.file.substr(spot.file.find('/') + 1);
}

std::string AttendantsValue(const Spot& spot) {
    return spot.step.before.Value(AttendantsFile(spot), spot.Section(), spot.key).value_or("");
}

bool HoldsAttendantsValue(const Spot& spot) {
    for (const SettingsSection& section : spot.step.before.File(AttendantsFile(spot)).sections)
        if (section.name == spot.Section() && section.Holds(spot.key, spot.Is()))
            return true;
    return false;
}

bool IsReplacedByAttendants(const Spot& spot) {
    return spot.step.before.Has(AttendantsFile(spot));
}

// --- the exchange digit --------------------------------------------------------------------------

bool IsExchangeNumber(const Spot& spot, const char* typeKey) {
    return spot.Sibling(typeKey) == "PSTN" && spot.Was().starts_with('0');
}

std::string WithoutDigit(const Spot& spot) {
    return spot.Was().substr(1);
}

bool IsExchangeTarget(const Spot& spot) {
    return spot.Was().starts_with("PSTN") && spot.Was().size() >= 6 && spot.Was()[5] == '0';
}

// --- ISDN trunks ---------------------------------------------------------------------------------

/// "isdn/trunk1" for "isdn/trunk1.cfg".
std::string TrunkDirectory(const Spot& spot) {
    return spot.file.substr(0, spot.file.rfind('.'));
}

bool IsFitted(const Spot& spot) {
    const std::string directory = TrunkDirectory(spot) + "/";
    const auto& state = spot.step.before.State();
    return std::any_of(state.begin(), state.end(), [&](const auto& file) {
        return file.first.find("/" + directory) != std::string::npos &&
               file.first.starts_with(spot.step.run.root);
    });
}

bool IsNotFitted(const Spot& spot) {
    return !IsFitted(spot);
}

std::vector<Target> ToTrunk(const Spot& spot, const std::string& key) {
    return {{TrunkDirectory(spot) + "/trunk.cfg", "trunk", key, spot.Was()}};
}

std::string RenamedRoutes(const std::string& list) {
    std::string joined;
    for (const std::string& item : StringUtils::ParseCommaLine(list, ',')) {
        const std::string route = StringUtils::Trim(item, " \t", true, true);
        joined += (joined.empty() ? "" : ",") + (route == "DestNumber" ? "RouteInbNmb" : route);
    }
    return joined;
}

/// The side's file, in one of its two sections: as it is, without blanks, or with routes renamed.
std::vector<Target> ToSide(const Spot& spot) {
    const std::string file =
        TrunkDirectory(spot) + (spot.Section() == "isdn_user" ? "/bri_user.cfg" : "/bri_net.cfg");
    const std::string key =
        spot.key == "generate_progress_tone" ? "generate_progress_tone_ip" : spot.key;
    std::vector<Target> targets;
    for (const char* section : {"level_2", "level_3"})
        for (const std::string& value :
             {spot.Was(), StringUtils::Trim(spot.Was(), " \t", true, true),
              RenamedRoutes(spot.Was())})
            targets.push_back({file, section, key, value});
    return targets;
}

/// With direct dialling in there is no terminal number.
std::vector<Target> ToNoTerminal(const Spot& spot) {
    const bool dialsIn = StringUtils::Trim(spot.Sibling("ddi_service"), " \t", true, true) == "Yes";
    const std::string file =
        TrunkDirectory(spot) + (spot.Section() == "isdn_user" ? "/bri_user.cfg" : "/bri_net.cfg");
    if (!dialsIn)
        return {};
    return {{file, "level_2", "tei_number", "0"}};
}

constexpr const char* echoDelay = "echo delays are counted from 80 less since 3.0.32";
constexpr const char* digit = "the exchange digit is kept in fxo_prefix";
constexpr const char* autoDigit = "the exchange digit is kept in auto_fxo_prefix";
constexpr const char* dialPlan = "the firmware's dial plan takes the place of the site's";
constexpr const char* trunks = "each ISDN trunk has a directory of its own";
constexpr const char* noE1 = "a BRI trunk has no such setting";
constexpr const char* notFitted = "the ISDN trunk is not fitted";
constexpr const char* system = "the system extension is made from attendant 00";
constexpr const char* oneAttendant = "units for this country have attendant 00 alone";

}  // namespace

std::vector<Row> SupplementaryRows();  // rows_supplementary.cpp

const std::vector<StepRows>& UpdateRows() {
    static const std::vector<StepRows> table = {
        {"echo delay",
         {
             On("e1t1/trunk0.cfg", "@(trunk_e1|trunk_t1)", "echoDelay")
                 .Becomes(Equals(LowerDelay), echoDelay)
                 .If(IsThere())
                 .Below("3.0.32")
                 .Due(),
             On("isdn/trunk[0-2].cfg", "trunk", "echoDelay")
                 .Becomes(Equals(LowerDelay), echoDelay)
                 .If(IsThere())
                 .Below("3.0.32")
                 .Due(),
         }},
        {"supplementary services", SupplementaryRows()},
        {"local routing",
         {
             On("*/servicesdb", "", "routing_on")
                 .Becomes(Is("1"), "calls go through the routing table for all from 3.0.0 on")
                 .If([](const Spot& spot) {
                     return spot.Before() && spot.step.run.extensions.contains(spot.Directory());
                 })
                 .Below("3.0.0")
                 .Due(),
             On("localrouttabledb", "*", "*")
                 .Goes("routes of emergency numbers and access codes are the firmware's")
                 .If(IsAccessRoute)
                 .Below("3.0.0"),
         }},
        {"dial plan",
         {
             On("dialplan.cfg", "*", "timeout")
                 .Becomes(IsKeptTimeout, "the time-out of 0* is kept for R*")
                 .Below("3.0.7"),
             On("dialplan.cfg", "*", "*").Becomes(Factory(), dialPlan).Below("3.0.7"),
             On("dialplan.cfg", "*", "*").Goes(dialPlan).Below("3.0.7"),
         }},
        {"group lists",
         {
             On("*/grouplistdb", "*", "address_list")
                 .Moves(ToAddresses, "each address has an entry of its own")
                 .If([](const Spot& spot) {
                     return spot.step.run.extensions.contains(spot.Directory()) &&
                            spot.Was().find('/') != std::string::npos;
                 })
                 .Below("3.1.0")
                 .Due(),
             On("*/grouplistdb", "*", "address_list")
                 .Goes("what has no type before a \"/\" is no address")
                 .If([](const Spot& spot) { return spot.Was().find('/') == std::string::npos; })
                 .Below("3.1.0"),
             On("*/grouplistdb", "*", "addr")
                 .Becomes(IsListed, "each address has an entry of its own")
                 .Below("3.1.0"),
         }},
        {"system extension",
         {
             On("system/voicemaildb", "", "voice_data_folder")
                 .Becomes(Equals([](const Spot& spot) {
                              return StringUtils::ReplaceString(AttendantsValue(spot), "00",
                                                                "system", 0);
                          }),
                          system)
                 .Below("3.1.0"),
             On("system/voicemaildb", "", "mail_box_portion")
                 .Becomes(IsOneOf({"0", "1"}), "it gets what is left of the storage")
                 .Below("3.1.0"),
             On("system/personaldatadb", "", "is_default").Becomes(Is("1"), system).Below("3.1.0"),
             On("system/personaldatadb", "", "scenario").Becomes(Is(""), system).Below("3.1.0"),
             On("system/*", "*", "*").Becomes(HoldsAttendantsValue, system).Below("3.1.0"),
             On("system/*", "*", "*").Goes(system).If(IsReplacedByAttendants).Below("3.1.0"),
         }},
        {"FXO prefix",
         {
             On("*/speedcalldb", "*", "user_name")
                 .Becomes(Equals(WithoutDigit), digit)
                 .If([](const Spot& spot) {
                     return IsExchangeNumber(spot, "call_type") &&
                            spot.step.run.extensions.contains(spot.Directory());
                 })
                 .Below("3.1.0")
                 .Due(),
             On("*/speedcalldb", "*", "fxo_prefix")
                 .Becomes(Is("0"), digit)
                 .If([](const Spot& spot) { return spot.SiblingNow("call_type") == "PSTN"; })
                 .Below("3.1.0"),
             On("*/servicesdb", "", "auto_dest")
                 .Becomes(Equals(WithoutDigit), autoDigit)
                 .If([](const Spot& spot) {
                     return IsExchangeNumber(spot, "auto_call_type") &&
                            spot.step.run.extensions.contains(spot.Directory());
                 })
                 .Below("3.1.0")
                 .Due(),
             On("*/servicesdb", "", "auto_fxo_prefix")
                 .Becomes(Is("0"), autoDigit)
                 .If([](const Spot& spot) { return spot.SiblingNow("auto_call_type") == "PSTN"; })
                 .Below("3.1.0"),
             On("*/supservices_*", "@(funcond|fnoanswer|fbusy)", "callto")
                 .Becomes(Equals([](const Spot& spot) { return "PSTN-" + spot.Was().substr(6); }),
                          "targets at the exchange lose the exchange digit")
                 .If(IsExchangeTarget)
                 .Below("3.1.0"),
         }},
        {"attendant restriction",
         {
             On("extensiondb", "attendant", "*").Goes(oneAttendant).If([](const Spot& spot) {
                 return spot.Was() != "00";
             }),
             On("?*/*", "*", "*").Goes(oneAttendant).If([](const Spot& spot) {
                 return spot.Directory() != "00" &&
                        spot.step.run.attendants.contains(spot.Directory());
             }),
         }},
        {"call park",
         {
             On("extensiondb", "extension", "ext_*")
                 .Moves(To({"extensiondb"}, "callpark"), "a call park position has its own list")
                 .If([](const Spot& spot) {
                     return spot.step.before.Value(spot.key.substr(4) + "/servicesdb", "",
                                                   "call_park_on") == "1";
                 })
                 .Below("3.1.25")
                 .Due(),
             On("extensiondb", "callpark", "ext_*")
                 .Becomes(Equals([](const Spot& spot) { return spot.key.substr(4); }),
                          "a call park position has its own list")
                 .Below("3.1.25"),
         }},
        {"ISDN files",
         {
             On("isdn.cfg", "trunk_[0-2]", "file_name").Goes(trunks).Below("4.1.0").Due(),
             On("isdn/trunk[0-2].cfg", "trunk", "@(line_code|frame_mode|tx_lbo|sync_clock)")
                 .Goes(noE1)
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "isdn_*", "@(D_channel_timeslot_*|passive_mode)")
                 .Goes(noE1)
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "trunk", "networkside")
                 .Moves([](const Spot& spot) { return ToTrunk(spot, "interface_type"); }, trunks)
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "trunk", "*")
                 .Moves([](const Spot& spot) { return ToTrunk(spot, spot.key); }, trunks)
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "isdn_@(user|net)", "*")
                 .Moves(ToSide, trunks)
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "isdn_@(user|net)", "tei_number")
                 .Moves(ToNoTerminal, "with direct dialling in there is no terminal number")
                 .Below("4.1.0"),
             On("isdn/trunk[0-2].cfg", "*", "*").Goes(notFitted).If(IsNotFitted).Below("4.1.0"),
             On("isdn/trunk[0-2]/trunk.cfg", "trunk", "*")
                 .Becomes(Is(""), "the old file did not have it")
                 .If([](const Spot& spot) {
                     const std::string old = spot.file.substr(0, spot.file.rfind('/')) + ".cfg";
                     return !spot.step.before.Value(
                         old, "trunk", spot.key == "interface_type" ? "networkside" : spot.key);
                 })
                 .Below("4.1.0"),
             On("isdn/trunk[0-2]/bri_*.cfg", "level_2", "tei_number")
                 .Becomes(Is("0"), "with direct dialling in there is no terminal number")
                 .Below("4.1.0"),
         }},
        {"extension length",
         {
             On("linedb", "general", "is_ext_length_defined")
                 .Becomes(Is("1"), "the length of extension numbers is set")
                 .Below("4.1.7")
                 .Due(),
         }},
    };
    return table;
}

}  // namespace rehearse
