// Splits the old extension database, one section per extension, into files in the extensions' own
// directories, and leaves an index of extension numbers.

#include <sys/stat.h>

#include <optional>

#include "app/config_upgrader.h"
#include "platform/file_utility.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Where an entry of the old layout stands.
enum class From { Extension, Line };

using Keys = std::vector<const char*>;

}  // namespace

/// A file of an extension and what goes into it, in this order. For the attendant, linedb's
/// section "attendant" takes the line's place.
struct SplitFile {
    const char* name;
    std::vector<std::pair<From, Keys>> entries;
};

namespace {

const Keys sipEntries = {"user_name",        "SIP_password",   "SIP_server",     "SIP_server_port",
                         "SIP_registration", "out_bound_host", "out_bound_port", "user_id"};

const SplitFile extensionFiles[] = {
    {"codecsdb", {{From::Line, {"codec", "special_codecs", "fax_codecs"}}}},
    {"personaldatadb",
     {{From::Extension,
       {"password", "num_of_attempts", "registration_date_and_time", "user_display_name",
        "is_ext_shared", "fn_number", "is_call_relay_allowed"}}}},
    {"pstnaccessdb", {{From::Extension, {"fxo_channel", "cas_data", "isdn_data"}}}},
    {"servicesdb",
     {{From::Line, {"special_fax_transport_on"}},
      {From::Extension,
       {"call_forwarding_type",
        "call_forwarding_mode",
        "call_forwarding_enabled",
        "many_extension_ringing_service",
        "hunt_service_on",
        "hunt_ringing_timeout",
        "hold_music",
        "hold_music_enabled",
        "dist_ring_srv",
        "mailbox_service",
        "routing_on",
        "call_waiting_enabled",
        "password_protected_for_incoming_calls",
        "password_protected_for_outgoing_calls",
        "voice_error_report_on",
        "no_answer_timeout",
        "off_hook_timeout",
        "call_block_timeout",
        "dnd_duration",
        "busy_redial_retry_interval",
        "busy_redial_period",
        "auto_call_on",
        "auto_dest",
        "auto_timeout",
        "auto_call_type"}}}},
    {"sipsettingsdb", {{From::Extension, sipEntries}}},
};

const SplitFile attendantFiles[] = {
    {"personaldatadb",
     {{From::Extension, {"user_display_name", "fn_number"}}, {From::Line, {"num_of_attempts"}}}},
    // fax_transfer_on stands here twice in every firmware; writing it again does no harm.
    {"servicesdb",
     {{From::Line,
       {"att_call_reset_seq", "extended_menu_btn", "fax_transfer_on", "ext_to_fwd_fax",
        "dir_timeout", "is_call_back_on", "special_fax_transport_on", "att_ring_min_timeout",
        "att_ring_max_timeout", "att_call_back_timeout", "att_rout_support", "fax_transfer_on"}}}},
    {"codecsdb", {{From::Line, {"codec", "fax_codecs", "special_codecs"}}}},
    {"sipsettingsdb", {{From::Extension, sipEntries}}},
};

constexpr const char* indexSections[] = {"extension", "callpark", "pickup", "paging", "sle"};

bool IsIndexSection(const std::string& name) {
    for (const char* section : indexSections)
        if (name == section)
            return true;
    return false;
}

/// The first line section that carries the extension becomes current.
bool GotoLineOf(MultiSectionFile& lineDb, const std::string& extension) {
    for (lineDb.Restart(); lineDb.GotoNextSection();)
        if (lineDb.SectionName().find("line_") != std::string::npos &&
            lineDb.GetSectionEntry("extension") == extension)
            return true;
    return false;
}

bool TakesFromExtension(const SplitFile& file) {
    for (const auto& [from, keys] : file.entries)
        if (from == From::Extension)
            return true;
    return false;
}

}  // namespace

void ConfigUpgrader::SplitExtensionDatabase() {
    ReportStep("extensiondb check");
    if (!extensionDb->GotoSection("attendant")) {
        try {
            SplitExtensions();
        } catch (const FileError& error) {
            // Half a split must not be saved by a later step: the old database stays as it is,
            // and its extensions are still this unit's.
            report += std::string("\t") + error.what() + "\n";
            extensionDb = std::make_unique<MultiSectionFile>(configRoot + "extensiondb");
            for (extensionDb->Restart(); extensionDb->GotoNextSection();) {
                const std::string extension = extensionDb->SectionName();
                if (IsOldExtension(extension) && extension != attendantExtension &&
                    !ListContains(liveExtensions, extension))
                    liveExtensions.push_back(extension);
            }
        }
    }
    ReadAttendantIndex();
    for (const char* section : indexSections) {
        if (!extensionDb->GotoSection(section))
            continue;
        for (const auto& [key, number] : extensionDb->SectionEntries()) {
            if (!FileUtility::IsDirectoryName(number))
                continue;
            if (!ListContains(liveExtensions, number))
                liveExtensions.push_back(number);
            if (std::string("extension") == section)
                routingExtensions.push_back(number);
        }
    }
}

/// The index tells which attendants there are, whatever the label says: of a tree that was split
/// before its label moved on, linedb has none any more.
void ConfigUpgrader::ReadAttendantIndex() {
    if (!extensionDb->GotoSection("attendant"))
        return;
    if (attendantExtension.empty())
        attendantExtension = extensionDb->GetSectionEntry("att_0").value_or("");
    for (const auto& [key, number] : extensionDb->SectionEntries())
        if (FileUtility::IsDirectoryName(number) && !ListContains(liveAttendants, number))
            liveAttendants.push_back(number);
}

/// A section of the old database that stands for an extension: one whose name can be a directory's
/// and, in the index, part of a key.
bool ConfigUpgrader::IsOldExtension(const std::string& section) const {
    return FileUtility::IsDirectoryName(section) && section.find('=') == std::string::npos &&
           !IsIndexSection(section);
}

void ConfigUpgrader::SplitExtensions() {
    report += "\textensiondb needs to be splited\n";
    if (attendantExtension.empty() && lineDb->GotoSection("attendant"))
        attendantExtension = lineDb->GetSectionEntry("extension").value_or("");
    bool attendantMoved = false;
    for (extensionDb->Restart(); extensionDb->GotoNextSection();) {
        const std::string extension = extensionDb->SectionName();
        if (!IsOldExtension(extension) || ListContains(liveExtensions, extension))
            continue;
        report += "\tFor extension - " + extension + "\n";
        bool moved = true;
        if (extension == attendantExtension) {
            MakeAttendantDirectory();
            const bool inLineDb = lineDb->GotoSection("attendant");
            for (const SplitFile& file : attendantFiles)
                if (inLineDb || TakesFromExtension(file))
                    moved = WriteSplitFile(extension, file, inLineDb) && moved;
            attendantMoved = moved;
        } else {
            liveExtensions.push_back(extension);
            const bool onLine = GotoLineOf(*lineDb, extension);
            for (const SplitFile& file : extensionFiles)
                moved = WriteSplitFile(extension, file, onLine) && moved;
        }
        if (moved)
            extensionDb->DeleteSection();
        report += "\t\t-- done --\n";
    }
    WriteExtensionIndex(attendantMoved);
    ReportDone();
}

void ConfigUpgrader::MakeAttendantDirectory() {
    const std::string directory = configRoot + attendantExtension;
    if (CorrectPath(directory))
        return;
    if (FileUtility::MakeDirectory(directory))
        report += " directory created\n";
    else
        report += "Can't create directory " + directory + "\n";
}

/// Fills one file from extensiondb's current section and, if `hasLine`, linedb's. An entry that its
/// source lacks is not written. False when the file could not be saved.
bool ConfigUpgrader::WriteSplitFile(const std::string& extension, const SplitFile& file,
                                    bool hasLine) {
    const std::string path = configRoot + extension + "/" + file.name;
    report += std::string("\tcreating/editing file: \"") + file.name + "\"\n";
    MultiSectionFile target(path, true);
    for (const auto& [from, keys] : file.entries) {
        if (from == From::Line && !hasLine)
            continue;
        MultiSectionFile& source = from == From::Line ? *lineDb : *extensionDb;
        for (const char* key : keys)
            if (const auto value = source.GetSectionEntry(key))
                target.SetEntry(key, *value);
    }
    if (Save(target))
        return true;
    report += "\tCan't save file: " + path + "\n";
    return false;
}

void ConfigUpgrader::WriteExtensionIndex(bool attendantMoved) {
    extensionDb->AddSection("attendant", true);
    extensionDb->SetSectionEntry("att_0", attendantExtension);
    if (!extensionDb->GotoSection("extension"))
        extensionDb->AddSection("extension", true);
    for (const std::string& extension : liveExtensions)
        extensionDb->SetSectionEntry("ext_" + extension, extension);
    if (!Save(*extensionDb)) {
        report += "\tCan't save file: " + extensionDb->Path() + "\n";
        return;
    }
    // Only now: without the index, linedb is where the next start finds the attendant.
    if (attendantMoved && lineDb->DeleteSection("attendant"))
        Save(*lineDb);
}
