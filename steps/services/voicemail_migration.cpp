// Splits the shared voicemail database into one per extension, with mailbox sizes as a share of the
// storage.

#include "steps/services/voicemail_migration.h"

#include <cerrno>

#include "app/config_upgrader.h"
#include "files/look.h"
#include "files/move.h"
#include "files/refusals.h"
#include "files/remove.h"
#include "files/replace.h"
#include "files/sync.h"
#include "platform/file_utility.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

std::uint8_t MailboxPortion(std::uint64_t mailboxSize, std::uint64_t storageSize) {
    if (storageSize == 0)
        return 0;
    return static_cast<std::uint8_t>(mailboxSize * 100 / storageSize);
}

namespace {

std::uint64_t MailboxSize(MultiSectionFile& file) {
    return StringToNumber<unsigned long long>(file.GetSectionEntry("mail_box_size").value_or(""));
}

bool GotoMailboxWithSize(MultiSectionFile& file, const std::string& extension) {
    return file.GotoSection(extension) && file.GetSectionEntry("mail_box_size");
}

/// Makes a directory that everyone may use, unless it is there, and reports it.
bool EnsureDirectory(const std::string& path, ConfigUpgrader& upgrader) {
    if (FileExist(path))
        return true;
    if (!files::MakeOpenDirectory(path)) {
        upgrader.Tell(Fact::Kind::Unsaved, path);
        return false;
    }
    upgrader.report += path + " directory created\n";
    return true;
}

/// Replaces every mailbox size by its share of the storage or, where the storage's size cannot be
/// told, of the sum of all mailboxes. In memory only: the old file is never saved.
void ConvertMailboxSizes(const ConfigUpgrader& upgrader, MultiSectionFile& old,
                         const NameList& mailboxes) {
    const Appliance& appliance = upgrader.appliance;
    std::uint64_t size = appliance.voiceStorageSize(
        upgrader.storageType == "bbram" ? appliance.internalVoiceData : appliance.usbVoiceData);
    if (size == 0)
        for (const std::string& extension : mailboxes)
            if (GotoMailboxWithSize(old, extension))
                size += MailboxSize(old);
    for (const std::string& extension : mailboxes) {
        if (!GotoMailboxWithSize(old, extension))
            continue;
        const unsigned portion = MailboxPortion(MailboxSize(old), size);
        old.DeleteSectionEntry("mail_box_size");
        old.SetSectionEntry("mail_box_portion", NumberToString(portion));
    }
}

/// Gives an extension without a section in the old file the factory's template.
void CopyTemplate(ConfigUpgrader& upgrader, const std::string& extension,
                  const std::string& directory) {
    const std::string& factory = upgrader.appliance.factoryTelephony;
    const bool hasOwn = FileExist(factory + extension);
    const std::string source = factory + (hasOwn ? extension : "default") + "/voicemaildb";
    const std::string path = directory + "/voicemaildb";
    files::RemoveSpecialFile(path);
    if (ShellFailed(upgrader.CopyWhole("-p", source, path))) {
        // No blank before the number, and below no "/" between folder and number: both are meant.
        upgrader.report += "Can't copy vocemeaildb from default for extension" + extension + "\n";
        return;
    }
    // The report names the plain command; CopyWhole copies to a temporary name first.
    upgrader.report += "Copied cp -p " + ShellPath(source) + " " + ShellPath(directory) + "\n";
    if (hasOwn)
        return;
    try {
        MultiSectionFile file(path, true);
        const auto folder = file.GetEntry("voice_data_folder");
        if (!folder)
            return;
        file.SetEntry("voice_data_folder", *folder + extension);
        upgrader.Save(file);
    } catch (const FileError& error) {
        upgrader.TraceInvalidFile(path, error);
    }
}

/// Moves what the command has left behind of "*.*". The mailbox will name the new folder whatever
/// became of the command, so a greeting in the old one would not be found any more.
void MoveWhatIsLeft(ConfigUpgrader& upgrader, const std::string& parent,
                    const std::string& folder) {
    const auto listing = files::ListDirectory(parent);
    if (!listing)
        return;
    for (const files::DirectoryEntry& entry : listing->entries) {
        const std::string path = parent + entry.name;
        if (entry.name.starts_with('.') || !Contains(entry.name, ".") || path == folder)
            continue;
        const std::string error = files::MoveEntry(path, folder + "/" + entry.name);
        if (error.empty())
            continue;
        // Counts as the disk's refusal even where a name is in the way, so that the next start
        // tries again: the name may be gone by then.
        files::NoteRefusal(EIO);
        upgrader.Trace(1, "MINOR ERROR: Can't move file: %s\n", error.c_str());
        upgrader.Tell(Fact::Kind::Unsaved, path, error);
    }
}

/// The attendant's recordings used to lie directly in the voice data folder; they move into a
/// folder of their own, whose path is returned.
std::string MoveAttendantRecordings(ConfigUpgrader& upgrader, const std::string& oldFolder) {
    if (oldFolder.empty())
        return oldFolder;  // "/*.*" is not ours to move
    std::string parent = oldFolder;
    FileUtility::AdjustPath(parent, '/');
    const std::string folder = parent + upgrader.attendantExtension;
    if (!EnsureDirectory(folder, upgrader)) {
        upgrader.report += "Can't create directory " + folder + "\n";
        return folder;
    }
    const std::string command = "mv " + ShellPath(parent) + "*.* " + ShellPath(folder);
    if (ShellFailed(upgrader.RunShell(command)))
        upgrader.report += "Can't copy files to " + folder + "\n";
    else
        upgrader.report += "Made command " + command + "\n";
    MoveWhatIsLeft(upgrader, parent, folder);
    files::SyncChangesBelow(folder);  // it may lie on a file system that nothing else is written to
    return folder;
}

/// Gives an extension its own voicemaildb: its section of the old file, or the factory's template.
/// False when the old file has a section that could not be moved.
bool MoveMailbox(ConfigUpgrader& upgrader, MultiSectionFile& old, const std::string& extension) {
    const bool inOld = old.GotoSection(extension);
    if (!files::IsDirectoryName(extension))
        return !inOld;
    const std::string directory = upgrader.configRoot + extension;
    if (!EnsureDirectory(directory, upgrader)) {
        upgrader.report += "Can't create dir for extension " + extension + "\n";
        return !inOld;
    }
    upgrader.report += "Opening section " + extension + " in old voicemaildb -> ";
    if (!inOld) {
        upgrader.report += "Failed\n";
        CopyTemplate(upgrader, extension, directory);
        return true;
    }
    upgrader.report += "OK\n";
    const std::string path = directory + "/voicemaildb";
    try {
        MultiSectionFile file(path, true);
        file.InheritRights(old.Path());
        bool copied = true;
        for (const auto& [key, value] : old.SectionEntries()) {
            const bool moves =
                extension == upgrader.attendantExtension && key == "voice_data_folder";
            copied = file.SetEntry(key, moves ? MoveAttendantRecordings(upgrader, value) : value) &&
                     copied;
        }
        return upgrader.Save(file) && copied;
    } catch (const FileError& error) {
        upgrader.TraceInvalidFile(path, error);
        return false;
    }
}

}  // namespace

void ConfigUpgrader::MigrateVoicemail() {
    const std::string path = configRoot + "voicemaildb";
    ReportStep("voicemaildb check");
    report += "Opening file " + path + " -> ";
    // A missing file is opened as an empty one, and every extension then gets its template. Run
    // twice, this step would reset all mailboxes.
    SectionFile old;
    try {
        old = std::make_unique<MultiSectionFile>(path, true);
    } catch (const FileError& error) {
        TraceInvalidFile(path, error);
        return;
    }
    report += "OK\n\n";

    NameList mailboxes = liveExtensions;
    mailboxes.push_back(attendantExtension);  // last; an empty one is passed over
    if (IsVersionBelow("2.4.4"))
        ConvertMailboxSizes(*this, *old, mailboxes);
    bool allMoved = true;
    for (const std::string& extension : mailboxes)
        allMoved = MoveMailbox(*this, *old, extension) && allMoved;
    // Where attendantExtension is empty although there are attendants (ReadAttendantIndex tells
    // when), theirs are not among the mailboxes. The old file stays as long as it holds one.
    for (const std::string& attendant : liveAttendants)
        if (!ListContains(mailboxes, attendant) && old->GotoSection(attendant))
            allMoved = false;
    if (allMoved)
        files::RemoveFile(path);
    ReportDone();
}
