// The system extension, made from attendant 00, and the attendants that a restricted unit may have.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "app/config_upgrader.h"
#include "platform/disk_failures.h"
#include "platform/eeprom.h"
#include "platform/file_utility.h"
#include "platform/string_utils.h"
#include "store/file_io.h"
#include "store/tree_mirror.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

void ConfigUpgrader::UpdateSystemExtension() {
    if (!IsVersionBelow("3.1.0"))
        return;
    Trace(3, "Starting update System extension.\n");
    const std::string outcome = CopyAttendantToSystem();
    Trace(3, "Copy 00 to System done - %s.\n", outcome.c_str());
    if (outcome != "Success")
        return;
    UpdateSystemMailbox(SumMailboxPortions());

    const std::string path = configRoot + "system/personaldatadb";
    if (FlatFile personal = OpenFlatFile(path, false, true)) {
        personal->SetEntry("is_default", "1");
        personal->SetEntry("scenario", "");
        Save(*personal);
        Trace(3, "Update %s file.\n", path.c_str());
    } else {
        Trace(1, "MINOR ERROR in UpdateSystemExtension: Invalid file: %s.\n", path.c_str());
    }
    Trace(3, "Done.\n");
}

/// Lays the files of attendant 00 over those of the system extension. They are gathered beside it
/// first: a copy that fails half way changes nothing.
std::string ConfigUpgrader::CopyAttendantToSystem() {
    const std::string system = configRoot + "system";
    const std::string gathered = system + Configuration::temporarySuffix;
    FileUtility::RemoveDirOrFile(gathered);
    const bool isGathered = CorrectPath(system);
    if (isGathered)
        FileUtility::MakeDirectory(gathered);  // where it can't be made, cp says so
    const std::string outcome = RunWithErrorText("cp -Rf " + ShellPath(configRoot + "00/") + "* " +
                                                 ShellPath(isGathered ? gathered : system));
    if (outcome == "Success" && isGathered) {
        const std::string error = Configuration::MoveInto(gathered, system);
        if (!error.empty())
            Trace(1, "MINOR ERROR: Can't save file: %s (%s)\n", system.c_str(), error.c_str());
    }
    FileUtility::RemoveDirOrFile(gathered);
    const auto files = ListDirectory(configRoot + "00");
    if (outcome != "Success" && isGathered && files && !files->names.empty())
        CountDiskFailure(EIO);  // nothing but the disk keeps it from being made
    return outcome;
}

/// The shares of the voice-mail storage that the extensions and attendants have, in percent.
int ConfigUpgrader::SumMailboxPortions() {
    std::uint32_t sum = 0;
    const auto add = [&](const std::string& name) {
        FlatFile mailbox = OpenFlatFile(configRoot + name + "/voicemaildb", false, true);
        if (!mailbox)
            return;
        const auto portion = mailbox->GetEntry("mail_box_portion");
        if (!portion)
            return;
        sum += static_cast<std::uint32_t>(StringToNumber<int>(*portion));
        Trace(3, "mail_box_portion= %s.\n", portion->c_str());
    };
    for (const std::string& extension : liveExtensions) {
        Trace(3, "Ext: %s\n", extension.c_str());
        add(extension);
    }
    for (const std::string& attendant : liveAttendants) {
        Trace(3, "Att: %s\n", attendant.c_str());
        add(attendant);
    }
    Trace(3, "SUM mail_box_portion = %d.\n", static_cast<int>(sum));
    return static_cast<int>(sum);
}

void ConfigUpgrader::UpdateSystemMailbox(int usedPortions) {
    const std::string path = configRoot + "system/voicemaildb";
    FlatFile mailbox = OpenFlatFile(path, false, true);
    if (!mailbox) {
        Trace(1, "MINOR ERROR in UpdateSystemExtension: Invalid file: %s.\n", path.c_str());
        return;
    }
    const auto folder = mailbox->GetEntry("voice_data_folder");
    if (!folder)
        return;
    const bool removed = unlink((*folder + "attwelcomerouting.wav").c_str()) == 0;
    Trace(3, "Removed %s%s file - %s.\n", folder->c_str(), "attwelcomerouting.wav",
          removed ? "Success" : "Failed");
    mailbox->SetEntry("voice_data_folder", StringUtils::ReplaceString(*folder, "00", "system", 0));
    mailbox->SetEntry("mail_box_portion", usedPortions <= 98 ? "1" : "0");
    Save(*mailbox);
    Trace(3, "Update %s file.\n", path.c_str());
}

/// Nothing but an attendant's own directory is ever removed: no file, no extension's directory, and
/// none of those that every unit has.
bool ConfigUpgrader::IsAttendantDirectory(const std::string& name) const {
    constexpr const char* unitDirectories[] = {"default", "defatt", "system", "isdn", "e1t1"};
    if (!FileUtility::IsDirectoryName(name) || ListContains(liveExtensions, name))
        return false;
    return std::find(std::begin(unitDirectories), std::end(unitDirectories), name) ==
               std::end(unitDirectories) &&
           CorrectPath(configRoot + name);
}

void ConfigUpgrader::RestrictAttendants() {
    if (GetEEPROMEntry("restriction", appliance.eeprom) != "br")
        return;
    Trace(3, "Starting update attendant for restriction.\n");
    SectionFile extensions = OpenSectionFile(configRoot + "extensiondb", false);
    if (!extensions)
        return;
    if (!extensions->GotoSection("attendant")) {
        Trace(3, "There is no \"attendant\" section!\n");
        return;
    }
    std::vector<std::string> removed;
    for (extensions->RestartSection(); extensions->GotoSecNextEntry();) {
        const std::string attendant = extensions->GetSecCurrentEntry()->value;
        if (attendant == "00")
            continue;
        extensions->DeleteSecCurrentEntry();
        Trace(3, "\tRemove Attendant: %s\n", attendant.c_str());
        removed.push_back(attendant);
    }
    if (!removed.empty() && Save(*extensions)) {
        for (const std::string& attendant : removed)
            if (IsAttendantDirectory(attendant))
                FileUtility::RemoveDirOrFile(configRoot + attendant);
        // The database held open still has them; a later save must not bring them back.
        try {
            extensionDb = std::make_unique<MultiSectionFile>(configRoot + "extensiondb");
        } catch (const FileError&) {
            TraceInvalidFile(configRoot + "extensiondb");
        }
    }
    Trace(3, "Done.\n");
}
