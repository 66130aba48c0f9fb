// How a record of the seven old caller databases becomes a caller of the address pattern file, and
// entries of the services file that the caller points to.

#include <algorithm>

#include "platform/sip_address.h"
#include "rehearse/ledger/row.h"

namespace rehearse {
namespace {

/// An old database: the section of the services file that it feeds, and the keys of its records.
struct OldDatabase {
    const char* name;
    const char* service;  // empty: what the forwarding mode says
    const char* typeKey;
    const char* callerKey;  // empty: the parts of an address
    const char* descriptionKey;
};

constexpr OldDatabase oldDatabases[] = {
    {"anonymousdb", "clir", "call_type", "", ""},
    {"blockedinnumsdb", "blockin", "caller_type", "", ""},
    {"blockedoutnumsdb", "blockout", "caller_type", "", ""},
    {"distringdb", "distring", "caller_type", "", "nick_name"},
    {"huntdb", "huntring", "caller_type", "caller", "caller_desc"},
    {"manyextringdb", "manyext", "caller_type", "caller", "caller_desc"},
    {"forwardlistdb", "", "caller_type", "caller", "caller_desc"},
};

const OldDatabase* DatabaseNamed(const std::string& name) {
    const auto* found = std::find_if(std::begin(oldDatabases), std::end(oldDatabases),
                                     [&](const OldDatabase& row) { return row.name == name; });
    return found == std::end(oldDatabases) ? nullptr : found;
}

std::string ValueOf(const SettingsSection& section, const std::string& key) {
    const std::string* value = section.Find(key);
    return value != nullptr ? *value : "";
}

/// A party's number or, of an IP party, its whole address.
std::string PartyOf(const SettingsSection& record, const std::string& type) {
    const std::string user = ValueOf(record, "user_name");
    if (type != "SIP" && type != "IP")
        return user;
    std::string address;
    MergeSIPAddress(address, ValueOf(record, "user_display_name"), user,
                    ValueOf(record, "user_host_address"), ValueOf(record, "user_host_port"));
    return address;
}

struct Caller {
    std::string type;
    std::string address;
};

Caller CallerOf(const SettingsSection& record, const OldDatabase& database) {
    Caller caller{ValueOf(record, database.typeKey), ""};
    const bool isWhole = *database.callerKey != '\0';
    caller.address = isWhole ? ValueOf(record, database.callerKey) : PartyOf(record, caller.type);
    const bool isForward = *database.service == '\0';
    const std::string target = isForward ? ValueOf(record, "call_type") : "";
    const bool hasHost = isForward ? (target == "SIP" || target == "IP") : !isWhole;
    const std::string host = hasHost ? ValueOf(record, "user_host_address") : "";
    if (caller.address == "any" && host.empty())
        caller.type.clear();
    return caller;
}

/// The caller's section in the address pattern file, as the step left it.
const SettingsSection* PatternOf(const Spot& spot, const Caller& caller) {
    for (const SettingsSection& section :
         spot.step.after.File(spot.Directory() + "/addresspatterndb").sections)
        if (section.Holds("address", caller.address) && ValueOf(section, "type") == caller.type)
            return &section;
    return nullptr;
}

/// The section of the services file that a forwarding record feeds, by the extension's mode.
std::string ForwardService(const Spot& spot) {
    const std::string mode =
        spot.step.before.Value(spot.Directory() + "/servicesdb", "", "call_forwarding_mode")
            .value_or("");
    return mode == "Unconditional" ? "funcond" : mode == "Noanswer" ? "fnoanswer" : "fbusy";
}

/// Where an entry of a record went, by what it says.
std::vector<Target> ToServices(const Spot& spot) {
    const OldDatabase* database = DatabaseNamed(spot.FileName());
    if (database == nullptr || spot.before == nullptr)
        return {};
    const Caller caller = CallerOf(*spot.before, *database);
    const SettingsSection* pattern = PatternOf(spot, caller);
    if (pattern == nullptr)
        return {};
    const std::string patterns = spot.Directory() + "/addresspatterndb";
    const std::string services =
        spot.Directory() + "/supservices_" + ValueOf(*pattern, "section_id");
    const bool isForward = *database->service == '\0';
    const std::string service = isForward ? ForwardService(spot) : database->service;
    const auto in = [&](const std::string& key, const std::string& value) {
        return std::vector<Target>{{patterns, pattern->Title(), key, value}};
    };
    if (spot.key == database->typeKey)
        return in("type", caller.type);
    if (spot.key == database->callerKey)
        return in("address", caller.address);
    std::vector<Target> targets;
    if (spot.key == database->descriptionKey)
        targets = in("description", spot.Was());
    if (spot.key == "nick_name" || spot.key == "extensions_list" || spot.key == "ring_pattern" ||
        spot.key == "send_message_to_calling_party")
        targets.push_back({services, service, spot.key, spot.Was()});
    if (spot.key == "hide_rec")
        targets.push_back({services, service, "permission", spot.Was() == "1" ? "admin" : "user"});
    if (spot.key.ends_with("H323_alias_address"))
        targets = in("H232_alias", spot.Was());
    if (spot.key.starts_with("user_") || (isForward && spot.key == "call_type")) {
        const std::string type = isForward ? ValueOf(*spot.before, "call_type") : caller.type;
        const std::string party = PartyOf(*spot.before, type);
        if (isForward && !party.empty())
            return {{services, service, "callto", type + "-" + party}};
        if (!isForward)
            return in("address", caller.address);
    }
    return targets;
}

bool HasNoCaller(const Spot& spot) {
    const OldDatabase* database = DatabaseNamed(spot.FileName());
    return database != nullptr && spot.before != nullptr &&
           CallerOf(*spot.before, *database).address.empty();
}

/// Only H.323 callers have an alias.
bool HasOtherType(const Spot& spot) {
    const OldDatabase* database = DatabaseNamed(spot.FileName());
    return database != nullptr && spot.Sibling(database->typeKey) != "H323";
}

/// A forwarding record without a target says nothing.
bool HasNoTarget(const Spot& spot) {
    return spot.before != nullptr && spot.FileName() == "forwardlistdb" &&
           PartyOf(*spot.before, ValueOf(*spot.before, "call_type")).empty();
}

/// Records of one caller in one database follow each other; the last one counts.
bool IsTakenOver(const Spot& spot) {
    const OldDatabase* database = DatabaseNamed(spot.FileName());
    if (database == nullptr || spot.before == nullptr)
        return false;
    const Caller caller = CallerOf(*spot.before, *database);
    bool isBehind = false;
    for (const SettingsSection& record : spot.step.before.File(spot.file).sections) {
        const Caller other = CallerOf(record, *database);
        if (isBehind && other.address == caller.address && other.type == caller.type)
            return true;
        isBehind = isBehind || &record == spot.before;
    }
    return false;
}

/// Description and alias of the first record that names the caller are kept.
bool IsNamedBefore(const Spot& spot) {
    const OldDatabase* own = DatabaseNamed(spot.FileName());
    if (own == nullptr || spot.before == nullptr ||
        (spot.key != own->descriptionKey && !spot.key.ends_with("H323_alias_address")))
        return false;
    const Caller caller = CallerOf(*spot.before, *own);
    for (const OldDatabase& database : oldDatabases)
        for (const SettingsSection& record :
             spot.step.before.File(spot.Directory() + "/" + database.name).sections) {
            if (&record == spot.before)
                return false;
            const Caller other = CallerOf(record, database);
            if (other.address == caller.address && other.type == caller.type)
                return true;
        }
    return false;
}

// --- what the services files say
// ------------------------------------------------------------------

/// The callers of the services file: more than one when the tree had two of one number.
std::vector<Caller> CallersOfFile(const Spot& spot) {
    const std::string id = spot.FileName().substr(std::string("supservices_").size());
    std::vector<Caller> callers;
    for (const SettingsSection& section :
         spot.step.after.File(spot.Directory() + "/addresspatterndb").sections)
        if (section.Holds("section_id", id))
            callers.push_back({ValueOf(section, "type"), ValueOf(section, "address")});
    return callers;
}

/// The services file of the caller "any".
const SettingsSection* AnysSection(const Spot& spot) {
    const SettingsSection* any = PatternOf(spot, {"", "any"});
    return any == nullptr
               ? nullptr
               : spot.step.after
                     .File(spot.Directory() + "/supservices_" + ValueOf(*any, "section_id"))
                     .Section(spot.Section());
}

bool HasRecord(const Spot& spot, const std::string& database, const Caller& caller) {
    const OldDatabase* row = DatabaseNamed(database);
    for (const SettingsSection& record :
         spot.step.before.File(spot.Directory() + "/" + database).sections) {
        const Caller other = CallerOf(record, *row);
        if (!other.address.empty() && other.address == caller.address && other.type == caller.type)
            return true;
    }
    return false;
}

std::string FlagOf(const Spot& spot) {
    const auto services = [&](const char* key) {
        return spot.step.before.Value(spot.Directory() + "/servicesdb", "", key) == "1" ? "1" : "0";
    };
    const std::string service = spot.Section();
    if (service == "distring")
        return services("dist_ring_srv");
    if (service == "huntring")
        return services("hunt_service_on");
    if (service == "manyext")
        return services("many_extension_ringing_service");
    return ForwardService(spot) == service ? services("call_forwarding_enabled") : "0";
}

bool IsSwitch(const Spot& spot) {
    const std::string service = spot.Section();
    std::string expected;
    const auto* database =
        std::find_if(std::begin(oldDatabases), std::end(oldDatabases),
                     [&](const OldDatabase& row) { return row.service == service; });
    const bool isByRecord = service == "clir" || service == "blockin" || service == "blockout";
    if (isByRecord) {
        const std::vector<Caller> callers = CallersOfFile(spot);
        expected = std::any_of(callers.begin(), callers.end(),
                               [&](const Caller& caller) {
                                   return HasRecord(spot, database->name, caller);
                               })
                       ? "1"
                       : "0";
    } else {
        expected = FlagOf(spot);
    }
    return spot.Is() == expected;
}

/// What a caller has no setting of its own for, it has from the caller "any".
bool IsInherited(const Spot& spot) {
    const SettingsSection* any = AnysSection(spot);
    return any != nullptr && any != spot.after && any->Holds(spot.key, spot.Is());
}

/// A number for each caller, no two of which have the same.
bool IsFreeNumber(const Spot& spot) {
    if (spot.Is().empty() || spot.Is().find_first_not_of("0123456789") != std::string::npos)
        return false;
    const auto& sections = spot.step.after.File(spot.file).sections;
    return std::count_if(sections.begin(), sections.end(), [&](const SettingsSection& section) {
               return section.Holds("section_id", spot.Is());
           }) == 1;
}

/// The caller's own type, once more, behind the other entries.
bool IsOwnType(const Spot& spot) {
    return spot.Is() == spot.SiblingNow("type");
}

bool IsPermission(const Spot& spot) {
    return spot.Is() == (spot.SiblingNow("address") == "any" ? "system" : "user");
}

constexpr const char* onePattern =
    "a caller has one address pattern, and one services file for all services";
constexpr const char* oldFiles =
    "*/@(anonymousdb|blockedinnumsdb|blockedoutnumsdb|distringdb|huntdb|"
    "manyextringdb|forwardlistdb)";

}  // namespace

std::vector<Row> SupplementaryRows() {
    return {
        On(oldFiles, "*", "section_id").Goes("callers are numbered anew").Below("3.0.1"),
        On(oldFiles, "*", "*")
            .Goes("a record that names no caller says nothing")
            .If(HasNoCaller)
            .Below("3.0.1"),
        On(oldFiles, "*", "*").Moves(ToServices, onePattern).Below("3.0.1"),
        On(oldFiles, "*", "*")
            .Moves(ToServices, onePattern)
            .If([](const Spot& spot) {
                return spot.step.run.extensions.contains(spot.Directory()) && !spot.Was().empty();
            })
            .Below("3.0.1")
            .Due(),
        On(oldFiles, "*", "@(call_type|user_*|*_alias_address)")
            .Goes("a forwarding without a target says nothing")
            .If(HasNoTarget)
            .Below("3.0.1"),
        On(oldFiles, "*", "*")
            .Goes("the last record of a caller counts")
            .If(IsTakenOver)
            .Below("3.0.1"),
        On(oldFiles, "*", "call_H323_alias_address")
            .Goes("the target of a forwarding has no alias any more")
            .Below("3.0.1"),
        On(oldFiles, "*", "*H323_alias_address")
            .Goes("an alias is that of an H.323 caller")
            .If(HasOtherType)
            .Below("3.0.1"),
        On(oldFiles, "*", "@(caller_desc|nick_name|*H323_alias_address)")
            .Goes("description and alias of the first record that names the caller are kept")
            .If(IsNamedBefore)
            .Below("3.0.1"),
        On("*/supservices_*", "*", "service_on")
            .Becomes(IsSwitch, "as the extension's switches were")
            .Below("3.0.1"),
        On("*/supservices_*", "*", "*")
            .Becomes(IsInherited, "comes from the caller \"any\"")
            .Below("3.0.1"),
        On("*/supservices_*", "@(blockin|blockout)", "permission")
            .Becomes(Is("user"), onePattern)
            .Below("3.0.1"),
        On("*/addresspatterndb", "*", "section_id")
            .Becomes(IsFreeNumber, "callers are numbered anew")
            .Below("3.0.1"),
        On("*/addresspatterndb", "*", "permission")
            .Becomes(IsPermission, "the site may change its own callers")
            .Below("3.0.1"),
        On("*/addresspatterndb", "*", "type").Becomes(IsOwnType, onePattern).Below("3.0.1"),
    };
}

}  // namespace rehearse
