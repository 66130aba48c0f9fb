// Merges an extension's seven old caller databases, one per service, into one record per caller
// with a services file of its own. UpdateFxoPrefix goes through these files later in the run.

#include <algorithm>
#include <cstdint>
#include <map>

#include "app/config_upgrader.h"
#include "files/remove.h"
#include "platform/sip_address.h"
#include "util/numbers.h"

using Configuration::ConfigFile;
using Configuration::Entry;
using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// How a database says who the caller is.
enum class CallerIn {
    Parts,  // user, display name, host and port
    Whole   // the entry "caller"
};

/// What a record turns on in its services section.
enum class Effect { Switch, Block, RingPattern, Extensions, Forward };

/// One of the old databases and the service that it feeds. Forwarding has three services, and the
/// extension's forwarding mode says which.
struct OldDatabase {
    const char* name;
    const char* service;
    const char* typeKey;
    CallerIn caller;
    const char* descriptionKey;  // null: it keeps none
    const char* aliasKey;
    Effect effect;
};

constexpr OldDatabase oldDatabases[] = {
    {"anonymousdb", "clir", "call_type", CallerIn::Parts, nullptr, "H323_alias_address",
     Effect::Switch},
    {"blockedinnumsdb", "blockin", "caller_type", CallerIn::Parts, nullptr, "H323_alias_address",
     Effect::Block},
    {"blockedoutnumsdb", "blockout", "caller_type", CallerIn::Parts, nullptr, "H323_alias_address",
     Effect::Block},
    {"distringdb", "distring", "caller_type", CallerIn::Parts, "nick_name", "H323_alias_address",
     Effect::RingPattern},
    {"huntdb", "huntring", "caller_type", CallerIn::Whole, "caller_desc", "H323_alias_address",
     Effect::Extensions},
    {"manyextringdb", "manyext", "caller_type", CallerIn::Whole, "caller_desc",
     "H323_alias_address", Effect::Extensions},
    {"forwardlistdb", nullptr, "caller_type", CallerIn::Whole, "caller_desc",
     "caller_H323_alias_address", Effect::Forward},
};

constexpr const char* forwardServices[] = {"funcond", "fnoanswer", "fbusy"};  // by mode

/// The extension's old service switches.
struct ServiceFlags {
    bool distinctiveRing = false;
    bool hunt = false;
    bool manyExtensions = false;
    bool forwarding = false;
    std::size_t forwardMode = 2;  // index into forwardServices
};

/// A record of an old database: the caller and what it says of the service.
struct CallerRecord {
    std::string type;
    std::string caller;
    std::string key;  // tells callers apart
    std::string description;
    std::string alias;
};

std::string Value(MultiSectionFile& file, const char* key) {
    return file.GetSectionEntry(key).value_or("");
}

/// The address of the party that the current record names: its user name, joined with its host for
/// an IP party. Empty where it has none. `host` is only set for an IP party.
std::string ReadParty(MultiSectionFile& file, const std::string& type, std::string& host) {
    const std::string user = Value(file, "user_name");
    if (type != "SIP" && type != "IP")
        return user;
    host = Value(file, "user_host_address");
    std::string address;
    MergeSIPAddress(address, Value(file, "user_display_name"), user, host,
                    Value(file, "user_host_port"));
    return address;
}

/// The forwarding target of the current record as it stands in a services file; empty without one.
std::string ReadTarget(MultiSectionFile& file, std::string& host) {
    const std::string type = Value(file, "call_type");
    const std::string target = ReadParty(file, type, host);
    return target.empty() ? "" : type + "-" + target;
}

CallerRecord ReadRecord(MultiSectionFile& file, const OldDatabase& database, std::string& target) {
    CallerRecord record;
    std::string host;
    record.type = Value(file, database.typeKey);
    if (database.caller == CallerIn::Parts) {
        record.caller = ReadParty(file, record.type, host);
        host = Value(file, "user_host_address");
    } else {
        record.caller = Value(file, "caller");
    }
    if (database.descriptionKey != nullptr)
        record.description = Value(file, database.descriptionKey);
    if (record.type == "H323")
        record.alias = Value(file, database.aliasKey);
    if (database.effect == Effect::Forward)
        target = ReadTarget(file, host);
    // With a host, "any" is the name of a single IP party. In forwardlistdb the host is that of the
    // forwarding target, so that everybody's forwarding to an IP party is a record of its own.
    if (record.caller == "any" && host.empty()) {
        record.type.clear();
        record.key = "any";
    } else {
        record.key = record.type + "_" + record.caller;
    }
    return record;
}

void SetServiceOn(MultiSectionFile& services, const char* section, bool on) {
    if (!services.GotoSection(section))
        services.AddSection(section, false);
    services.SetSectionEntry("service_on", on ? "1" : "0");
}

void AddServiceSections(MultiSectionFile& services, const ServiceFlags& flags) {
    SetServiceOn(services, "clir", false);
    SetServiceOn(services, "blockin", false);
    SetServiceOn(services, "blockout", false);
    SetServiceOn(services, "distring", flags.distinctiveRing);
    SetServiceOn(services, "huntring", flags.hunt);
    SetServiceOn(services, "manyext", flags.manyExtensions);
    for (std::size_t mode = 0; mode < std::size(forwardServices); ++mode)
        SetServiceOn(services, forwardServices[mode],
                     flags.forwarding && flags.forwardMode == mode);
}

/// Writes what the old database's current record says into the caller's services file.
void ApplyRecord(MultiSectionFile& old, const OldDatabase& database, const ServiceFlags& flags,
                 const std::string& target, MultiSectionFile& services) {
    const bool forward = database.effect == Effect::Forward;
    if (!services.GotoSection(forward ? forwardServices[flags.forwardMode] : database.service))
        return;
    const auto copy = [&](const char* key) { services.SetSectionEntry(key, Value(old, key)); };
    // Only these two switch their service on: the others have been set by the extension's flags,
    // when the file was made.
    switch (database.effect) {
        case Effect::Switch:
            services.SetSectionEntry("service_on", "1");
            break;
        case Effect::Block:
            services.SetSectionEntry("service_on", "1");
            copy("send_message_to_calling_party");
            services.SetSectionEntry("permission",
                                     Value(old, "hide_rec") == "1" ? "admin" : "user");
            break;
        case Effect::RingPattern:
            copy("ring_pattern");
            copy("nick_name");
            break;
        case Effect::Extensions:
            copy("extensions_list");
            break;
        case Effect::Forward:
            if (!target.empty())
                services.AddSectionEntry("callto", target);
            break;
    }
}

ServiceFlags ReadServiceFlags(ConfigFile& services) {
    const auto on = [&](const char* key) { return services.GetEntry(key) == "1"; };
    const std::string mode = services.GetEntry("call_forwarding_mode").value_or("");
    ServiceFlags flags;
    flags.distinctiveRing = on("dist_ring_srv");
    flags.hunt = on("hunt_service_on");
    flags.manyExtensions = on("many_extension_ringing_service");
    flags.forwarding = on("call_forwarding_enabled");
    // Any other text, and none, means on busy.
    flags.forwardMode = mode == "Unconditional" ? 0 : mode == "Noanswer" ? 1 : 2;
    return flags;
}

void AddCaller(MultiSectionFile& patterns, const CallerRecord& record, const std::string& id) {
    patterns.AddSection(false);
    patterns.SetSectionEntry("section_id", id);
    patterns.SetSectionEntry("type", record.type);
    patterns.SetSectionEntry("address", record.caller);
    patterns.SetSectionEntry("description", record.description);
    patterns.SetSectionEntry("permission", record.key == "any" ? "system" : "user");
    // Not a slip: the readers of the file know the key in this spelling.
    if (record.type == "H323")
        patterns.SetSectionEntry("H232_alias", record.alias);
    patterns.SetSectionEntry("type", record.type);  // for the second time, which changes nothing
}

/// Gives a caller the services that only the caller "any" has settings for. A section of one entry,
/// its service_on, has none.
void InheritServices(MultiSectionFile& any, MultiSectionFile& services) {
    for (any.Restart(); any.GotoNextSection();) {
        if (any.GetSecEntryCount() <= 1)
            continue;
        if (!services.GotoSection(any.SectionName()) || services.GetSecEntryCount() > 1)
            continue;
        for (const Entry& entry : any.SectionEntries())
            services.SetSectionEntry(entry.key, entry.value);
    }
}

/// The merge of one extension: what it knows of the callers, and the file it is working on.
class ServicesMerge {
public:
    ServicesMerge(ConfigUpgrader& upgrader, std::string directory)
        : upgrader_(upgrader), directory_(std::move(directory)) {}

    void Run() {
        try {
            Merge();
        } catch (const FileError& error) {
            upgrader_.TraceInvalidFile(path_, error);
            SaveAll();
        }
    }

private:
    /// The path of one of the extension's files; kept for the message when it cannot be read.
    const std::string& At(const std::string& name) { return path_ = directory_ + name; }

    void Merge() {
        ServiceFlags flags;
        {
            // Without it nobody knows which services are on, and the extension stays as it is.
            ConfigFile services(At("servicesdb"), false);
            flags = ReadServiceFlags(services);
        }
        patterns_ = std::make_unique<MultiSectionFile>(At("addresspatterndb"), true);
        ReadKnownCallers(*patterns_);
        for (const OldDatabase& database : oldDatabases)
            MergeDatabase(database, flags, *patterns_);
        isMerged_ = true;
        upgrader_.Trace(3, "Starting merge non \"any\" callers with \"any\" caller.\n");
        const auto any = ids_.find(IdKey("any", ""));
        if (any != ids_.end())
            InheritFromAny(*patterns_, any->second);
        SaveAll();
        upgrader_.Trace(3, "Merge Done.\n");
        upgrader_.Trace(3, "Removing ald services DBs.\n");  // spelled so in every log
        // What could not be saved in its new form stays in its old one.
        if (allSaved_)
            for (const OldDatabase& database : oldDatabases)
                files::RemoveFile(At(database.name));
        upgrader_.Trace(3, "Remove Done.\n");
        upgrader_.Trace(3, "Ext Done.\n");
    }

    void Save(MultiSectionFile& file) { allSaved_ = upgrader_.Save(file) && allSaved_; }

    /// The services file of a caller that has records. It stays open until all seven databases are
    /// through, for each may have something for it, and is then saved once.
    MultiSectionFile& Services(const std::string& id) {
        const auto open = services_.find(id);
        if (open != services_.end())
            return *open->second;
        auto file = std::make_unique<MultiSectionFile>(At("supservices_" + id), true);
        return *services_.emplace(id, std::move(file)).first->second;
    }

    /// The services files go first: whoever is listed in addresspatterndb is taken to have one. So
    /// addresspatterndb is not saved at all when one of the databases could not be read.
    void SaveAll() {
        for (const auto& [id, file] : services_)
            Save(*file);
        if (isMerged_)
            Save(*patterns_);
    }

    /// Tells a caller's identifier. A value has no line end.
    static std::string IdKey(const std::string& address, const std::string& type) {
        return address + '\n' + type;
    }

    void ReadKnownCallers(MultiSectionFile& patterns) {
        for (patterns.Restart(); patterns.GotoNextSection();) {
            const std::string type = Value(patterns, "type");
            const std::string address = Value(patterns, "address");
            callerKeys_.push_back(type + (type.empty() ? "" : "_") + address);
            ids_.try_emplace(IdKey(address, type), Value(patterns, "section_id"));
            if (const auto id = patterns.GetSectionEntry("section_id"))
                nextId_ = std::max(nextId_, std::int64_t{StringToNumber<int>(*id)} + 1);
        }
    }

    void MergeDatabase(const OldDatabase& database, const ServiceFlags& flags,
                       MultiSectionFile& patterns) {
        MultiSectionFile old(At(database.name), true);  // a missing one has no sections
        for (old.Restart(); old.GotoNextSection();) {
            std::string target;
            const CallerRecord record = ReadRecord(old, database, target);
            if (record.caller.empty())
                continue;
            const bool known = ListContains(callerKeys_, record.key);
            std::string id = NumberToString(nextId_);
            if (known) {
                const auto found = ids_.find(IdKey(record.caller, record.type));
                if (found == ids_.end()) {
                    upgrader_.Trace(1,
                                    "MINOR ERROR: section not found in addresspattern file for "
                                    "caller: %s, type:%s.\n",
                                    record.caller.c_str(), record.type.c_str());
                    upgrader_.Tell(Fact::Kind::Incomplete, directory_, record.caller);
                    continue;
                }
                id = found->second;
            }
            MultiSectionFile& services = Services(id);
            services.InheritRights(old.Path());
            patterns.InheritRights(old.Path());
            if (!known) {
                AddCaller(patterns, record, id);
                callerKeys_.push_back(record.key);
                ids_.try_emplace(IdKey(record.caller, record.type), id);
                ++nextId_;
                AddServiceSections(services, flags);
            }
            ApplyRecord(old, database, flags, target, services);
        }
    }

    /// A caller whom none of the old databases named has no file open. His is saved and closed at
    /// once: there may be thousands.
    void InheritFor(const std::string& id, MultiSectionFile& any) {
        if (const auto open = services_.find(id); open != services_.end()) {
            InheritServices(any, *open->second);
            return;
        }
        MultiSectionFile services(At("supservices_" + id));
        InheritServices(any, services);
        Save(services);
    }

    void InheritFromAny(MultiSectionFile& patterns, const std::string& anyId) {
        const bool isOpen = services_.contains(anyId);
        const SectionFile read =
            isOpen ? nullptr : std::make_unique<MultiSectionFile>(At("supservices_" + anyId));
        MultiSectionFile& any = isOpen ? *services_[anyId] : *read;
        for (patterns.Restart(); patterns.GotoNextSection();) {
            const std::string id = Value(patterns, "section_id");
            if (id == anyId)
                continue;
            try {
                InheritFor(id, any);
            } catch (const FileError& error) {
                upgrader_.Trace(1, "MINOR ERROR: Invalid file: %s.\n", path_.c_str());
                upgrader_.TraceReason(error);
            }
        }
    }

    ConfigUpgrader& upgrader_;
    std::string directory_;
    std::string path_;
    SectionFile patterns_;
    bool isMerged_ = false;  // patterns_ has the callers of all seven databases
    NameList callerKeys_;
    std::map<std::string, std::string> ids_;       // by IdKey
    std::map<std::string, SectionFile> services_;  // by identifier
    std::int64_t nextId_ = 0;
    bool allSaved_ = true;
};

}  // namespace

void ConfigUpgrader::MergeSupplementaryServices() {
    if (!IsVersionBelow("3.0.1"))
        return;
    Trace(3, "Starting update Supplementary Services.\n");
    for (const std::string& extension : liveExtensions) {
        Trace(3, "Update Ext: %s\n", extension.c_str());
        ServicesMerge(*this, configRoot + extension + "/").Run();
    }
    Trace(3, "Done.\n");
}
