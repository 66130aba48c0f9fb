// What the steps of voice mail, of links, and of the per-file checks do on purpose.

#include <algorithm>
#include <cstdlib>

#include "rehearse/ledger/row.h"

namespace rehearse {
namespace {

bool IsNumber(const std::string& value) {
    return !value.empty() &&
           std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool IsNumbered(const Spot& spot) {
    return IsNumber(spot.Is());
}

/// Whether the file is among those that are brought in line with the factory's.
bool IsMerged(const Spot& spot) {
    const auto files = FactoryFiles(spot.step.run, spot.file);
    return std::any_of(files.begin(), files.end(), [&](const std::string& path) {
        return spot.step.before.State().contains(path);
    });
}

Holds Merged(Holds also) {
    return [also = std::move(also)](const Spot& spot) { return IsMerged(spot) && also(spot); };
}

bool IsKnownMailbox(const Spot& spot) {
    const std::string mailbox = spot.Section();
    return spot.step.run.extensions.contains(mailbox) ||
           spot.step.run.attendants.contains(mailbox) || mailbox == spot.step.run.attendant;
}

bool IsStrangeMailbox(const Spot& spot) {
    return !spot.Section().empty() && !IsKnownMailbox(spot);
}

std::vector<Target> ToShare(const Spot& spot) {
    const std::string file = spot.Section() + "/voicemaildb";
    const std::string share = spot.step.after.Value(file, "", "mail_box_portion").value_or("");
    if (!IsNumber(share))
        return {};
    return {{file, "", "mail_box_portion", share}};
}

/// The attendant's recordings get a folder of their own below the old one.
std::vector<Target> ToOwnFolder(const Spot& spot) {
    std::string folder = spot.Was();
    if (!folder.empty())
        folder += (folder.ends_with('/') ? "" : "/") + spot.Section();
    return {{spot.Section() + "/voicemaildb", "", spot.key, folder}};
}

std::string TemplateFolder(const Spot& spot) {
    const auto folder =
        spot.step.before.FileAt("etc/default-conf/telephony/default/voicemaildb").Section("");
    const std::string* value = folder != nullptr ? folder->Find(spot.key) : nullptr;
    return (value != nullptr ? *value : "") + spot.Directory();
}

std::string Seconds(const Spot& spot) {
    return std::to_string(std::strtoll(spot.Was().c_str(), nullptr, 10) * 60);
}

std::string FactorySeconds(const Spot& spot) {
    return std::to_string(std::strtoll(FactoryValue(spot).value_or("").c_str(), nullptr, 10) * 60);
}

std::vector<Target> ToForwardingMode(const Spot& spot) {
    const std::string mode = spot.Was() == "None" ? "Unconditional" : spot.Was();
    return {{spot.file, "", "call_forwarding_mode", mode}};
}

/// The one entry was there when the step began.
bool HadForwardingType(const Spot& spot) {
    return spot.before != nullptr && spot.before->Find("call_forwarding_type") != nullptr;
}

bool IsUseless(const Spot& spot) {
    return spot.Was() == "1" && spot.SiblingNow("zero_out_redirect_address").empty();
}

// The caller databases, with the keys under which they keep a record's type and number.
constexpr const char* numbered =
    "?(*/)?(*/)@(patterndb|blockedinnumsdb|blockedoutnumsdb|anonymousdb|distringdb|forwardlistdb|"
    "huntdb|manyextringdb|externaluserdb|speedcalldb|autologindb)";
constexpr const char* typedByCall = "?(*/)?(*/)@(anonymousdb|speedcalldb)";
constexpr const char* typedByCaller =
    "?(*/)?(*/)@(blockedinnumsdb|blockedoutnumsdb|distringdb|huntdb|manyextringdb|forwardlistdb)";

bool HadNoValue(const Spot& spot) {
    return spot.Was().empty();
}

/// The exchange digit goes before a number that the step found to be an exchange's.
Holds GetsDigit(const char* typeKey) {
    return [typeKey](const Spot& spot) {
        return spot.Sibling(typeKey).empty() && spot.SiblingNow(typeKey) == "PSTN" &&
               spot.Is() == "0" + spot.Was();
    };
}

constexpr const char* fax = "fax settings are the same for all from 3.1.0 on";
constexpr const char* mailboxes = "each extension has a mailbox file of its own";
constexpr const char* types = "untyped callers get a type, where it is plain";
constexpr const char* forwarding = "one entry became a switch and a mode";
constexpr const char* followsFirmware = "follows the firmware on every upgrade";

std::vector<Row> FileMergeRows() {
    return {
        On("rtp.cfg", "common", "call_admission_control")
            .Becomes(Is("1"), "switched on by every upgrade")
            .If(IsMerged)
            .Due(),
        On("rtp.cfg", "?*", "cng")
            .Becomes(Factory(), followsFirmware)
            .If(Merged([](const Spot& spot) { return FactoryValue(spot).has_value(); }))
            .Below("2.3.1")
            .Due(),
        On("rtp.cfg", "*", "packets_recover_count")
            .Becomes(Is("0"), "packets are not recovered any more")
            .If(Merged([](const Spot& spot) { return !spot.after || !spot.after->isTop; }))
            .Below("3.0.21")
            .Due(),
        On("stun.cfg", "", "UDP Map Time To Life")
            .Becomes(Equals(Seconds), "minutes became seconds")
            .If(Merged(IsThere()))
            .Below("2.3.29")
            .Due(),
        On("stun.cfg", "", "UDP Map Time To Life")
            .Becomes(Equals(FactorySeconds), "minutes became seconds, of the factory's value too")
            .If([](const Spot& spot) { return spot.Before() == nullptr; })
            .Below("2.3.29"),
        On("fax.cfg", "T38", "@(fax_rate|fax_udp_ec)")
            .Becomes(Factory(), followsFirmware)
            .If(Merged([](const Spot& spot) { return FactoryValue(spot).has_value(); }))
            .Due(),
        On("dialplan.cfg", "*", "*")
            .Goes("the pattern 9 is not used any more")
            .If(Merged([](const Spot& spot) { return spot.Sibling("pattern") == "9"; }))
            .Due(),
        On("dialplan.cfg", "*", "*")
            .Goes("the pattern 00 is not used any more")
            .If(Merged([](const Spot& spot) { return spot.Sibling("pattern") == "00"; }))
            .Below("2.4.51")
            .Due(),
        On("dialplan.cfg", "*", "section_id")
            .Becomes(IsNumbered, "new patterns are numbered")
            .If(HadNoValue),
        On("localrouttabledb", "*", "id")
            .Becomes(IsNumbered, "new routes are numbered")
            .If(HadNoValue)
            .Below("3.0.1"),
        On("?(*/)servicesdb", "", "call_forwarding_type")
            .Moves(ToForwardingMode, forwarding)
            .If(IsMerged)
            .Below("2.4.11")
            .Due(),
        On("?(*/)servicesdb", "", "call_forwarding_enabled")
            .Becomes(Equals([](const Spot& spot) {
                         return spot.Sibling("call_forwarding_type") == "None" ? "0" : "1";
                     }),
                     forwarding)
            .If(Merged(HadForwardingType))
            .Below("2.4.11")
            .Due(),
        On("?(*/)servicesdb", "", "call_forwarding_mode")
            .Becomes(Equals([](const Spot& spot) {
                         const std::string type = spot.Sibling("call_forwarding_type");
                         return type == "None" ? "Unconditional" : type;
                     }),
                     forwarding)
            .If(Merged(HadForwardingType))
            .Below("2.4.11")
            .Due(),
        On("?(*/)servicesdb", "", "fax_mail_service_on")
            .Becomes(Is("1"), "fax to mail is on for all from 3.0.21 on")
            .If(IsMerged)
            .Below("3.0.21")
            .Due(),
        On("?(*/)servicesdb", "", "@(special_fax_transport_on|transparent_fax_on)")
            .Becomes(Is("1"), fax)
            .If(IsMerged)
            .Below("3.1.0")
            .Due(),
        On("?(*/)servicesdb", "", "outgoing_fax_only")
            .Becomes(Is("0"), fax)
            .If(IsMerged)
            .Below("3.1.0")
            .Due(),
        On("gatewaydb", "*", "subtype")
            .Becomes(Equals([](const Spot& spot) {
                         return spot.SiblingNow("type") == "MGC" ? "onboard" : "iplocale";
                     }),
                     "gateways have a subtype from 2.5.1 on")
            .If(Merged([](const Spot& spot) { return spot.after && spot.after->Find("type"); }))
            .Below("2.5.1")
            .Due(),
        On("?(*/)*servicecodedb", "", "CallPark")
            .Becomes(Is("f5,*5"), "the code for parking changed in 3.1.3")
            .Below("3.1.3"),
        On("?(*/)voicemaildb", "", "zero_out")
            .Becomes(Is("0"), "leaving a mailbox by 0 led nowhere, and would now drop the caller")
            .If(Merged(IsUseless))
            .Below("3.1.7")
            .Due(),
        On("timerprofile.cfg", "", "timer_profile")
            .Becomes(Equals([](const Spot& spot) {
                         return spot.step.before.Value("sip.cfg", "sip-common", "timer_profile")
                             .value_or("");
                     }),
                     "comes from sip.cfg"),
        On(numbered, "*", "section_id")
            .Becomes(IsNumbered, "records are numbered anew")
            .Below("2.3.6"),
        On("autologindb", "*", "section_id")
            .Becomes(IsNumbered, "records are numbered anew")
            .Below("3.1.0"),
        On(typedByCall, "*", "call_type")
            .Becomes(IsOneOf({"IP", "PSTN", "PBX"}), types)
            .If(HadNoValue)
            .Below("2.3.1"),
        On(typedByCaller, "*", "caller_type")
            .Becomes(IsOneOf({"IP", "PSTN", "PBX"}), types)
            .If(HadNoValue)
            .Below("2.3.1"),
        On(typedByCall, "*", "user_name").Becomes(GetsDigit("call_type"), types).Below("2.3.1"),
        On(typedByCaller, "*", "@(user_name|caller)")
            .Becomes(GetsDigit("caller_type"), types)
            .Below("2.3.1"),
    };
}

}  // namespace

std::vector<Row> SipNatMergeRows();  // of the same step; they stand with the other conversions

const std::vector<StepRows>& ServiceRows() {
    static const std::vector<StepRows> table = [] {
        std::vector<Row> merge = FileMergeRows();
        const std::vector<Row> conversions = SipNatMergeRows();
        merge.insert(merge.end(), conversions.begin(), conversions.end());
        return std::vector<StepRows>{
            {"voice data and links",
             {
                 On("linedb", "general", "regional_dirs")
                     .Becomes(Is("/usr/share/regional/"), "names the place of the country's files"),
             }},
            {"voice mail",
             {
                 On("voicemaildb", "?*", "mail_box_size")
                     .Moves(ToShare, "sizes became shares of the storage")
                     .If(IsKnownMailbox)
                     .Below("2.4.4")
                     .Due(),
                 On("voicemaildb", "?*", "voice_data_folder")
                     .Moves(ToOwnFolder, "the attendant's recordings have a folder of their own")
                     .If([](const Spot& spot) { return spot.Section() == spot.step.run.attendant; })
                     .Below("2.4.9"),
                 On("voicemaildb", "?*", "*")
                     .Moves(To({"$s/voicemaildb"}), mailboxes)
                     .If(IsKnownMailbox)
                     .Below("2.4.9"),
                 On("voicemaildb", "?*", "*")
                     .Goes("the mailbox of an extension that the unit does not have")
                     .If(IsStrangeMailbox)
                     .Below("2.4.9"),
                 On("*/voicemaildb", "", "voice_data_folder")
                     .Becomes(Equals(TemplateFolder), "a new mailbox has a folder of its own")
                     .Below("2.4.9"),
             }},
            {"file merge", merge},
        };
    }();
    return table;
}

}  // namespace rehearse
