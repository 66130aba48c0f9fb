// Splits the shared voicemail database into one per extension, with mailbox sizes as a share of the
// storage.

#include "steps/services/voicemail_migration.h"

#include <sys/stat.h>
#include <unistd.h>

#include "app/config_upgrader.h"
#include "platform/file_utility.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

std::uint64_t MailboxSize(MultiSectionFile& file) {
    return StringToNumber<unsigned long long>(file.GetSectionEntry("mail_box_size").value_or(""));
}

bool GotoMailboxWithSize(MultiSectionFile& file, const std::string& extension) {
    return file.GotoSection(extension) && file.GetSectionEntry("mail_box_size");
}

/// Makes a directory that everyone may use, unless it is there, and reports it.
bool EnsureDirectory(const std::string& path, std::string& report) {
    if (FileExist(path))
        return true;
    if (!FileUtility::MakeOpenDirectory(path))
        return false;
    report += path + " directory created\n";
    return true;
}

}  // namespace

std::uint8_t MailboxPortion(std::uint64_t mailboxSize, std::uint64_t storageSize) {
    if (storageSize == 0)
        return 0;
    return static_cast<std::uint8_t>(mailboxSize * 100 / storageSize);
}

void ConfigUpgrader::MigrateVoicemail() {
    const std::string path = configRoot + "voicemaildb";
    ReportStep("voicemaildb check");
    report += "Opening file " + path + " -> ";
    SectionFile old;
    try {
        old = std::make_unique<MultiSectionFile>(path, true);
    } catch (const FileError&) {
        TraceInvalidFile(path);
        return;
    }
    report += "OK\n\n";

    NameList mailboxes = liveExtensions;
    mailboxes.push_back(attendantExtension);
    if (IsVersionBelow("2.4.4"))
        ConvertMailboxSizes(*old, mailboxes);
    bool allMoved = true;
    for (const std::string& extension : mailboxes)
        allMoved = MoveMailbox(*old, extension) && allMoved;
    if (allMoved)
        FileUtility::RemoveFile(path);
    ReportDone();
}

/// Replaces every mailbox size by its share of the storage or, where the storage's size cannot be
/// told, of the sum of all mailboxes. In memory only: the old file is never saved.
void ConfigUpgrader::ConvertMailboxSizes(MultiSectionFile& old, const NameList& mailboxes) {
    std::uint64_t size = appliance.voiceStorageSize(
        storageType == "bbram" ? appliance.internalVoiceData : appliance.usbVoiceData);
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

/// Gives an extension its own voicemaildb: its section of the old file, or the factory's template.
/// False when the old file has a section that could not be moved.
bool ConfigUpgrader::MoveMailbox(MultiSectionFile& old, const std::string& extension) {
    const bool inOld = old.GotoSection(extension);
    if (!FileUtility::IsDirectoryName(extension))
        return !inOld;
    const std::string directory = configRoot + extension;
    if (!EnsureDirectory(directory, report)) {
        report += "Can't create dir for extension " + extension + "\n";
        return !inOld;
    }
    report += "Opening section " + extension + " in old voicemaildb -> ";
    if (!inOld) {
        report += "Failed\n";
        CopyMailboxTemplate(extension, directory);
        return true;
    }
    report += "OK\n";
    const std::string path = directory + "/voicemaildb";
    try {
        MultiSectionFile file(path, true);
        bool copied = true;
        for (const auto& [key, value] : old.SectionEntries()) {
            const bool moves = extension == attendantExtension && key == "voice_data_folder";
            copied = file.SetEntry(key, moves ? MoveAttendantRecordings(value) : value) && copied;
        }
        return Save(file) && copied;
    } catch (const FileError&) {
        TraceInvalidFile(path);
        return false;
    }
}

void ConfigUpgrader::CopyMailboxTemplate(const std::string& extension,
                                         const std::string& directory) {
    const bool hasOwn = FileExist(appliance.factoryTelephony + extension);
    const std::string own = (hasOwn ? extension : "default") + "/voicemaildb";
    const std::string source = appliance.factoryTelephony + own;
    const std::string path = directory + "/voicemaildb";
    FileUtility::RemoveSpecialFile(path);
    if (ShellFailed(CopyWhole("-p", source, path))) {
        report += "Can't copy vocemeaildb from default for extension" + extension + "\n";
        return;
    }
    report += "Copied cp -p " + ShellPath(source) + " " + ShellPath(directory) + "\n";
    if (hasOwn)
        return;
    try {
        MultiSectionFile file(path, true);
        const auto folder = file.GetEntry("voice_data_folder");
        if (!folder)
            return;
        file.SetEntry("voice_data_folder", *folder + extension);
        Save(file);
    } catch (const FileError&) {
        TraceInvalidFile(path);
    }
}

/// The attendant's recordings used to lie directly in the voice data folder; they move into a
/// folder of their own, whose path is returned.
std::string ConfigUpgrader::MoveAttendantRecordings(const std::string& oldFolder) {
    if (oldFolder.empty())
        return oldFolder;  // "/*.*" is not ours to move
    std::string parent = oldFolder;
    FileUtility::AdjustPath(parent, '/');
    const std::string folder = parent + attendantExtension;
    if (!EnsureDirectory(folder, report)) {
        report += "Can't create directory " + folder + "\n";
        return folder;
    }
    const std::string command = "mv " + ShellPath(parent) + "*.* " + ShellPath(folder);
    if (ShellFailed(RunShell(command)))
        report += "Can't copy files to " + folder + "\n";
    else
        report += "Made command " + command + "\n";
    FileUtility::SyncFileSystem(folder);  // it may be another than those synced before the stamp
    return folder;
}
