// The system extension, made from attendant 00, and the attendants that a restricted unit may have.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "app/config_root.h"
#include "app/config_upgrader.h"
#include "files/attributes.h"
#include "files/look.h"
#include "files/mirror.h"
#include "files/move.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"
#include "platform/file_utility.h"
#include "platform/string_utils.h"
#include "steps/hardware/eeprom.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Whether the shell's "*" finds something in a directory.
bool HasVisibleEntries(const std::string& directory) {
    const auto listing = files::ListDirectory(directory);
    return listing && std::any_of(listing->entries.begin(), listing->entries.end(),
                                  [](const auto& entry) { return !entry.name.starts_with('.'); });
}

/// Whether some name is a directory below `from` and something else below `to`, or the other way
/// round, at any depth. Then one cannot be copied over the other on this start or any later one.
bool DoKindsDiffer(const std::string& from, const std::string& to) {
    const auto listing = files::ListDirectory(from);
    return listing && std::any_of(listing->entries.begin(), listing->entries.end(),
                                  [&](const files::DirectoryEntry& entry) {
                                      const std::string source = from + "/" + entry.name;
                                      const std::string target = to + "/" + entry.name;
                                      if (!files::IsThere(target))
                                          return false;
                                      const bool isDirectory = files::IsOwnDirectory(source);
                                      return isDirectory != files::IsOwnDirectory(target) ||
                                             (isDirectory && DoKindsDiffer(source, target));
                                  });
}

/// cp leaves a file that it writes over its own mode, but what it wrote is the attendant's: the
/// password of a mailbox, for one.
std::string TightenFiles(const std::string& from, const std::string& to) {
    const auto listing = files::ListDirectory(from);
    if (!listing)
        return files::NotedReason(from);
    std::string error;
    for (const files::DirectoryEntry& entry : listing->entries) {
        const std::string source = from + "/" + entry.name;
        const std::string target = to + "/" + entry.name;
        if (error.empty() && files::IsOwnDirectory(target))
            error = TightenFiles(source, target);
        else if (error.empty() && files::KindOf(target) == files::Kind::Other &&
                 !files::IsLink(target))
            error = files::Tighten(target, source);
    }
    return error;
}

/// Lays the files of attendant 00 over those of the system extension: over a copy of its directory,
/// which then takes the directory's place. A copy that fails half way changes nothing.
std::string CopyAttendantToSystem(ConfigUpgrader& upgrader) {
    const std::string attendant = upgrader.configRoot + "00/";
    const std::string system = upgrader.configRoot + "system";
    const std::string command = "cp -Rf " + ShellPath(attendant) + "* ";
    const files::RefusalWatch watch;
    const bool isThere = CorrectPath(system);
    if (watch.HasSeenOne())  // cp would write into the files themselves, which the copy shares
        return "Failed: " + files::NotedReason(system);
    if (!isThere)  // cp says in its own words that there is no such directory
        return upgrader.RunWithErrorText(command + ShellPath(system));
    const std::string place = files::RealPath(system);
    const std::string copy = files::TemporaryFor(place);
    files::RemoveTree(copy);
    std::string error = files::MirrorTree(place, copy, files::By::Copying);
    std::string outcome;
    if (error.empty()) {
        outcome = upgrader.RunWithErrorText(command + ShellPath(copy));
        if (outcome == "Success" && (error = TightenFiles(attendant, copy)).empty())
            error = files::SwapDirectories(copy, place);
        else if (HasVisibleEntries(attendant) && !DoKindsDiffer(attendant, copy))
            files::NoteRefusal(EIO);  // all was fit to be copied, so the disk is to blame
    }
    if (!files::RemoveTree(copy))
        files::NoteRefusal(errno, "Can't remove: " + copy);
    return error.empty() ? outcome : "Failed: " + error;
}

/// The shares of the voice-mail storage that the extensions and attendants have, in percent; in 32
/// bits, as the shares are.
int SumMailboxPortions(ConfigUpgrader& upgrader) {
    std::uint32_t sum = 0;
    const auto add = [&](const std::string& name) {
        FlatFile mailbox =
            upgrader.OpenFlatFile(upgrader.configRoot + name + "/voicemaildb", false, true);
        if (!mailbox)
            return;
        const auto portion = mailbox->GetEntry("mail_box_portion");
        if (!portion)
            return;
        sum += static_cast<std::uint32_t>(StringToNumber<int>(*portion));
        upgrader.Trace(3, "mail_box_portion= %s.\n", portion->c_str());
    };
    for (const std::string& extension : upgrader.liveExtensions) {
        upgrader.Trace(3, "Ext: %s\n", extension.c_str());
        add(extension);
    }
    for (const std::string& attendant : upgrader.liveAttendants) {
        upgrader.Trace(3, "Att: %s\n", attendant.c_str());
        add(attendant);
    }
    upgrader.Trace(3, "SUM mail_box_portion = %d.\n", static_cast<int>(sum));
    return static_cast<int>(sum);
}

void UpdateSystemMailbox(ConfigUpgrader& upgrader, int usedPortions) {
    const std::string path = upgrader.configRoot + "system/voicemaildb";
    FlatFile mailbox = upgrader.OpenFlatFile(path, false, true);
    if (!mailbox) {
        upgrader.Trace(1, "MINOR ERROR in UpdateSystemExtension: Invalid file: %s.\n",
                       path.c_str());
        return;
    }
    const auto folder = mailbox->GetEntry("voice_data_folder");
    if (!folder)
        return;
    // The file just copied still names attendant 00's folder, and the greeting goes from there.
    const bool removed = unlink((*folder + "attwelcomerouting.wav").c_str()) == 0;
    upgrader.Trace(3, "Removed %s%s file - %s.\n", folder->c_str(), "attwelcomerouting.wav",
                   removed ? "Success" : "Failed");
    // Every "00" of the path is replaced, not only that of the folder's own name.
    mailbox->SetEntry("voice_data_folder", StringUtils::ReplaceString(*folder, "00", "system", 0));
    // With the 1 percent for this mailbox, the sum has to stay below 100.
    mailbox->SetEntry("mail_box_portion", usedPortions <= 98 ? "1" : "0");
    upgrader.Save(*mailbox);
    upgrader.Trace(3, "Update %s file.\n", path.c_str());
}

/// Nothing but an attendant's own directory, or the link that stands for it, is ever removed: no
/// file, no extension's directory, and none of those that every unit has.
bool IsAttendantDirectory(const ConfigUpgrader& upgrader, const std::string& name) {
    if (!files::IsDirectoryName(name) || ListContains(upgrader.liveExtensions, name) ||
        IsOneOf(unitDirectories, name))
        return false;
    const std::string path = upgrader.configRoot + name;
    return CorrectPath(path) || (!FileExist(path) && files::IsLink(path));
}

}  // namespace

void ConfigUpgrader::UpdateSystemExtension() {
    if (!IsVersionBelow("3.1.0"))
        return;
    Trace(3, "Starting update System extension.\n");
    const std::string outcome = CopyAttendantToSystem(*this);
    Trace(3, "Copy 00 to System done - %s.\n", outcome.c_str());
    if (outcome != "Success")
        return;
    UpdateSystemMailbox(*this, SumMailboxPortions(*this));

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

// Without a gate: what the EEPROM says holds for every version.
void ConfigUpgrader::RestrictAttendants() {
    if (GetEEPROMEntry("restriction", appliance.eeprom) != "br")
        return;
    Trace(3, "Starting update attendant for restriction.\n");
    SectionFile extensions = OpenSectionFile(configRoot + "extensiondb", false);
    if (!extensions)
        return;
    if (!extensions->GotoSection("attendant")) {
        Trace(3, "There is no \"attendant\" section!\n");
        Tell(Fact::Kind::Absent, "extensiondb", "attendant");
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
    // A directory goes only when the saved index no longer names it.
    if (!removed.empty() && Save(*extensions)) {
        for (const std::string& attendant : removed)
            if (IsAttendantDirectory(*this, attendant))
                FileUtility::RemoveDirOrFile(configRoot + attendant);
        // The database that the run holds open still lists them, and the call park step saves it:
        // they would be back.
        try {
            extensionDb = std::make_unique<MultiSectionFile>(configRoot + "extensiondb");
        } catch (const FileError& error) {
            TraceInvalidFile(configRoot + "extensiondb", error);
        }
    }
    Trace(3, "Done.\n");
}
