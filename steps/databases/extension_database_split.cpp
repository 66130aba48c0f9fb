// Splits the old extension database, one section per extension, into files in the extensions' own
// directories, and leaves an index of extension numbers.

#include "app/config_upgrader.h"
#include "files/look.h"
#include "files/replace.h"
#include "platform/file_utility.h"
#include "platform/string_utils.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Where an entry of the old layout stands.
enum class From { Extension, Line };

/// Entries that a file gets from one place, in this order, with a blank between them.
struct Entries {
    From from = From::Extension;
    const char* keys = "";
};

/// A file of an extension and what goes into it, in this order. For the attendant, linedb's
/// section "attendant" takes the line's place.
struct SplitFile {
    const char* name;
    Entries entries[2];
};

constexpr const char* sipKeys =
    "user_name SIP_password SIP_server SIP_server_port SIP_registration out_bound_host "
    "out_bound_port user_id";

constexpr SplitFile extensionFiles[] = {
    {"codecsdb", {{From::Line, "codec special_codecs fax_codecs"}}},
    {"personaldatadb",
     {{From::Extension,
       "password num_of_attempts registration_date_and_time user_display_name is_ext_shared "
       "fn_number is_call_relay_allowed"}}},
    {"pstnaccessdb", {{From::Extension, "fxo_channel cas_data isdn_data"}}},
    {"servicesdb",
     {{From::Line, "special_fax_transport_on"},
      {From::Extension,
       "call_forwarding_type call_forwarding_mode call_forwarding_enabled "
       "many_extension_ringing_service hunt_service_on hunt_ringing_timeout hold_music "
       "hold_music_enabled dist_ring_srv mailbox_service routing_on call_waiting_enabled "
       "password_protected_for_incoming_calls password_protected_for_outgoing_calls "
       "voice_error_report_on no_answer_timeout off_hook_timeout call_block_timeout dnd_duration "
       "busy_redial_retry_interval busy_redial_period auto_call_on auto_dest auto_timeout "
       "auto_call_type"}}},
    {"sipsettingsdb", {{From::Extension, sipKeys}}},
};

constexpr SplitFile attendantFiles[] = {
    {"personaldatadb",
     {{From::Extension, "user_display_name fn_number"}, {From::Line, "num_of_attempts"}}},
    // fax_transfer_on stands here twice in every firmware; writing it again does no harm.
    {"servicesdb",
     {{From::Line,
       "att_call_reset_seq extended_menu_btn fax_transfer_on ext_to_fwd_fax dir_timeout "
       "is_call_back_on special_fax_transport_on att_ring_min_timeout att_ring_max_timeout "
       "att_call_back_timeout att_rout_support fax_transfer_on"}}},
    {"codecsdb", {{From::Line, "codec fax_codecs special_codecs"}}},
    {"sipsettingsdb", {{From::Extension, sipKeys}}},
};

/// What a split database has. All these sections list extensions with a directory of their own.
constexpr const char* indexSections[] = {"extension", "callpark", "pickup", "paging", "sle"};

/// A section of the old database that stands for an extension: one whose name can be a directory's
/// and, in the index, part of a key.
bool IsOldExtension(const std::string& section) {
    return files::IsDirectoryName(section) && !Contains(section, "=") &&
           !IsOneOf(indexSections, section);
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
        if (from == From::Extension && *keys != '\0')
            return true;
    return false;
}

/// The split of one database. What it reports, it reports in the step's own words, with the reason
/// behind a file that could not be saved.
class ExtensionSplit {
public:
    explicit ExtensionSplit(ConfigUpgrader& upgrader)
        : upgrader_(upgrader), extensionDb_(*upgrader.extensionDb), lineDb_(*upgrader.lineDb) {}

    void Run() {
        upgrader_.report += "\textensiondb needs to be splited\n";
        std::string& attendant = upgrader_.attendantExtension;
        if (attendant.empty() && lineDb_.GotoSection("attendant"))
            attendant = lineDb_.GetSectionEntry("extension").value_or("");
        for (extensionDb_.Restart(); extensionDb_.GotoNextSection();) {
            const std::string extension = extensionDb_.SectionName();
            if (!IsOldExtension(extension))
                continue;
            upgrader_.report += "\tFor extension - " + extension + "\n";
            const bool isMoved =
                extension == attendant ? MoveAttendant(extension) : MoveExtension(extension);
            if (isMoved)
                extensionDb_.DeleteSection();
            upgrader_.report += "\t\t-- done --\n";
        }
        WriteIndex();
        upgrader_.ReportDone();
    }

private:
    bool MoveAttendant(const std::string& extension) {
        MakeDirectory(upgrader_.configRoot + extension);
        const bool isInLineDb = lineDb_.GotoSection("attendant");
        bool isMoved = true;
        for (const SplitFile& file : attendantFiles)
            if (isInLineDb || TakesFromExtension(file))
                isMoved = WriteFile(extension, file, isInLineDb) && isMoved;
        isAttendantMoved_ = isMoved;
        return isMoved;
    }

    bool MoveExtension(const std::string& extension) {
        // The same number twice: somebody has added a section by hand, and its values overwrite
        // those of the first.
        if (!ListContains(upgrader_.liveExtensions, extension))
            upgrader_.liveExtensions.push_back(extension);
        // Units of the old layout have a directory for each extension; only the attendant's is
        // made. Where one is missing, nothing can be saved and the old section stays.
        const bool isOnLine = GotoLineOf(lineDb_, extension);
        bool isMoved = true;
        for (const SplitFile& file : extensionFiles)
            isMoved = WriteFile(extension, file, isOnLine) && isMoved;
        return isMoved;
    }

    void MakeDirectory(const std::string& path) {
        if (CorrectPath(path))
            return;
        if (files::MakeDirectory(path)) {
            upgrader_.report += " directory created\n";
            return;
        }
        upgrader_.report += "Can't create directory " + path + "\n";
        upgrader_.Tell(Fact::Kind::Unsaved, path);
    }

    /// Fills one file from extensiondb's current section and, if `hasLine`, linedb's. An entry that
    /// its source lacks is not written. False when the file could not be saved.
    bool WriteFile(const std::string& extension, const SplitFile& file, bool hasLine) {
        upgrader_.report += std::string("\tcreating/editing file: \"") + file.name + "\"\n";
        MultiSectionFile target(upgrader_.configRoot + extension + "/" + file.name, true);
        for (const auto& [from, keys] : file.entries) {
            if (*keys == '\0' || (from == From::Line && !hasLine))
                continue;
            MultiSectionFile& source = from == From::Line ? lineDb_ : extensionDb_;
            target.InheritRights(source.Path());
            for (const std::string& key : StringUtils::ParseCommaLine(keys, ' '))
                if (const auto value = source.GetSectionEntry(key))
                    target.SetEntry(key, *value);
        }
        return SaveOrReport(target);
    }

    void WriteIndex() {
        extensionDb_.AddSection("attendant", true);
        extensionDb_.SetSectionEntry("att_0", upgrader_.attendantExtension);
        if (!extensionDb_.GotoSection("extension"))
            extensionDb_.AddSection("extension", true);
        for (const std::string& extension : upgrader_.liveExtensions)
            extensionDb_.SetSectionEntry("ext_" + extension, extension);
        // linedb loses the attendant last. Until the index is saved, nothing else names it, and a
        // next start could not find it.
        if (SaveOrReport(extensionDb_) && isAttendantMoved_ && lineDb_.DeleteSection("attendant"))
            upgrader_.Save(lineDb_);
    }

    bool SaveOrReport(MultiSectionFile& file) {
        if (file.Save())
            return true;
        upgrader_.report += "\tCan't save file: " + file.Path() + " (" + file.LastError() + ")\n";
        upgrader_.Tell(Fact::Kind::Unsaved, file.Path(), file.LastError());
        return false;
    }

    ConfigUpgrader& upgrader_;
    MultiSectionFile& extensionDb_;
    MultiSectionFile& lineDb_;
    bool isAttendantMoved_ = false;
};

/// After a split that failed on a file: opens the old database anew, so that no later step saves
/// what was half split in memory, and lists its extensions, which are still this unit's.
void TakeOldExtensions(ConfigUpgrader& upgrader) {
    upgrader.extensionDb = std::make_unique<MultiSectionFile>(upgrader.configRoot + "extensiondb");
    MultiSectionFile& old = *upgrader.extensionDb;
    for (old.Restart(); old.GotoNextSection();) {
        const std::string extension = old.SectionName();
        if (IsOldExtension(extension) && extension != upgrader.attendantExtension &&
            !ListContains(upgrader.liveExtensions, extension))
            upgrader.liveExtensions.push_back(extension);
    }
}

/// Adds the attendants of the index. Below 2.4.11 the run has looked for the attendant in linedb,
/// and finds none there when the tree was split although its label was not raised. It then leaves
/// attendantExtension empty, and so does this: below 2.4.11 the steps take whoever stands there for
/// an attendant in the old layout.
void ReadAttendantIndex(ConfigUpgrader& upgrader) {
    if (!upgrader.extensionDb->GotoSection("attendant"))
        return;
    for (const auto& [key, number] : upgrader.extensionDb->SectionEntries())
        if (files::IsDirectoryName(number) && !ListContains(upgrader.liveAttendants, number))
            upgrader.liveAttendants.push_back(number);
}

void ReadExtensionIndex(ConfigUpgrader& upgrader) {
    for (const std::string section : indexSections) {
        if (!upgrader.extensionDb->GotoSection(section))
            continue;
        for (const auto& [key, number] : upgrader.extensionDb->SectionEntries()) {
            if (!files::IsDirectoryName(number))
                continue;
            if (!ListContains(upgrader.liveExtensions, number))
                upgrader.liveExtensions.push_back(number);
            if (section == "extension")  // those of the other sections never route
                upgrader.routingExtensions.push_back(number);
        }
    }
}

}  // namespace

void ConfigUpgrader::SplitExtensionDatabase() {
    ReportStep("extensiondb check");
    if (!extensionDb->GotoSection("attendant")) {
        try {
            ExtensionSplit(*this).Run();
        } catch (const FileError& error) {
            report += std::string("\t") + error.what() + "\n";
            Tell(Fact::Kind::Unreadable, error);
            TakeOldExtensions(*this);
        }
    }
    ReadAttendantIndex(*this);
    ReadExtensionIndex(*this);
}
