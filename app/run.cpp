// The order of the run, and the restore paths of the two main databases.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "app/config_upgrader.h"
#include "platform/disk_failures.h"
#include "platform/thread.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::MultiSectionFile;

namespace {

/// One versioned step. Each step tests its own gates; only the voice-mail migration is gated here.
struct VersionedStep {
    void (*run)(ConfigUpgrader&);
    bool flushAfterwards;
    const char* onlyBelow = nullptr;
};

// The order is part of what the steps rely on: a step finds what those before it left. A gate
// compares with the label of the live tree alone, so a new step whose gate is not above every
// label already shipped would be jumped over on those units.
const VersionedStep versionedSteps[] = {
    {[](ConfigUpgrader& u) { u.CheckLineDatabase(); }, true},
    {[](ConfigUpgrader& u) { u.CheckLineSections(*u.lineDb, *u.defaultLineDb); }, true},
    {[](ConfigUpgrader& u) { u.MigrateVoicemail(); }, true, "2.4.9"},
    {[](ConfigUpgrader& u) { u.ProcessMergeList(); }, true},
    {[](ConfigUpgrader& u) { u.UpdateEchoDelay(); }, false},
    {[](ConfigUpgrader& u) { u.MergeSupplementaryServices(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateLocalRouteDB(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateDialPlan(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateGroupListDB(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateSystemExtension(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateFxoPrefix(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateStunFile(); }, false},
    {[](ConfigUpgrader& u) { u.RestrictAttendants(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateCallPark(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateRtpPortRanges(); }, false},
    {[](ConfigUpgrader& u) { u.MapIsdnFiles(); }, false},
    {[](ConfigUpgrader& u) { u.UpdateExtensionLength(); }, false},
};

/// Appends the values of a section's entries to a list. An empty value is no extension number, nor
/// is one that would lead out of the telephony directory: the steps take them for directory names.
void AppendValues(MultiSectionFile& file, const std::string& section, NameList& list) {
    if (!file.GotoSection(section))
        return;
    for (const Configuration::Entry& entry : file.SectionEntries())
        if (FileUtility::IsDirectoryName(entry.value))
            list.push_back(entry.value);
}

/// Opens a main database. What the disk did not give is asked for once more: the price of giving up
/// is the factory's database in its place.
SectionFile OpenMainDatabase(const std::string& path) {
    const unsigned failures = DiskFailures();
    try {
        return std::make_unique<MultiSectionFile>(path);
    } catch (const Configuration::FileError&) {
        if (DiskFailures() == failures)
            throw;
    }
    return std::make_unique<MultiSectionFile>(path);
}

}  // namespace

void ConfigUpgrader::Run() {
    try {
        RunSteps();
    } catch (const std::exception& error) {
        // A start with more memory left may end well.
        if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr)
            CountDiskFailure(ENOMEM);
        report += std::string("\t") + error.what() + "\n";
        report += "\nexiting setupmend... may the Lord help us!\n";
        FlushReport();
    }
}

void ConfigUpgrader::RunSteps() {
    failuresBefore = DiskFailures();
    FindConfigRoot();
    if (!PutBackInterrupted()) {
        CreateLog();
        FlushReport();
        return;
    }
    ProbeHardware(false);
    ProbeLineCounts();
    FlushReport();
    if (!OpenLineDb())
        return;
    upToDate = CheckVersion();
    if (!upToDate)
        MakeRecoveryCopy();
    FlushReport();
    CreateLog();
    FlushReport();
    if (!OpenExtensionDb())
        return;
    const std::string factoryDir = appliance.factoryTelephony + linesDir;
    defaultLineDb = std::make_unique<MultiSectionFile>(factoryDir + "linedb", false, true);
    defaultExtensionDb =
        std::make_unique<MultiSectionFile>(factoryDir + "extensiondb", false, true);
    ReadAttendants();
    if (lineDb->GotoSection("general"))
        if (const auto length = lineDb->GetSectionEntry("extension_length"))
            extensionLength = StringToNumber<unsigned>(*length);
    ReadFactoryLists();
    UpdateLineCounts();
    FlushReport();
    ProbeHardware(true);
    FlushReport();
    CheckVoiceDataAndLinks();
    FlushReport();
    SplitExtensionDatabase();
    FlushReport();
    ReportStep("cfg files existence check");
    CheckFileSet(configRoot, appliance.factoryTelephony, false);
    ReportDone();
    FlushReport();
    if (!upToDate) {
        RunVersionedSteps();
    } else if (linesMismatch) {
        report += "Number of fxo or fxs lines is less than lines data in linedb!\n";
        CheckLineSections(*lineDb, *defaultLineDb);
        FlushReport();
    }
}

void ConfigUpgrader::RunVersionedSteps() {
    for (const VersionedStep& step : versionedSteps) {
        if (step.onlyBelow != nullptr && !IsVersionBelow(step.onlyBelow))
            continue;
        step.run(*this);
        if (step.flushAfterwards)
            FlushReport();
    }
}

void ConfigUpgrader::FindConfigRoot() {
    // An empty argument names no directory.
    if (Thread::GetCommandLine(configRoot) != 1 || configRoot.empty()) {
        // An ORIX_PATH without a separator at its end names a sibling, /xtelephony/ for /x: the
        // start scripts set it with one.
        const char* root = std::getenv("ORIX_PATH");
        configRoot = (root != nullptr ? root : appliance.liveConf) + "telephony/";
    }
    FileUtility::AdjustPath(configRoot, '/');
}

/// Replaces a main database by the factory's for this number of lines. False when the shell could
/// not be run; whether the copy helped shows when the file is opened.
bool ConfigUpgrader::CopyFromFactory(const std::string& name) {
    const std::string path = configRoot + name;
    // A bad file stays until the copy takes its place; what cp could not write over goes first.
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode))
        unlink(path.c_str());
    return !ShellFailed(CopyWhole("-p", appliance.factoryTelephony + linesDir + name, path));
}

bool ConfigUpgrader::OpenLineDb() {
    const std::string path = configRoot + "linedb";
    try {
        lineDb = OpenMainDatabase(path);
        return true;
    } catch (...) {
        report += "\tfile linedb doesn't exist or corrupted, copying from default-conf\n";
        FlushReport();
    }
    if (!AreLabelsEqual())  // what the disk could not give this time may be there the next
        MakeRecoveryCopy();
    if (!CopyFromFactory("linedb"))
        return false;
    lineDb = std::make_unique<MultiSectionFile>(path);
    return true;
}

bool ConfigUpgrader::OpenExtensionDb() {
    const std::string path = configRoot + "extensiondb";
    try {
        extensionDb = OpenMainDatabase(path);
        return true;
    } catch (const std::exception& error) {
        report += std::string("\t") + error.what() + "\n";
        report += "\tfile extensiondb copying from default-conf\n";
        FlushReport();
    }
    if (!CopyFromFactory("extensiondb"))
        return false;
    extensionDb = std::make_unique<MultiSectionFile>(path);
    return true;
}

void ConfigUpgrader::CreateLog() {
    constexpr int everyLevel = 2147483647;
    try {
        log = std::make_unique<LogStream>(appliance.log, true, false, everyLevel, 1, 2048, false);
    } catch (const std::exception& error) {
        report += std::string("\t") + error.what() + "\n";
    }
}

void ConfigUpgrader::ReadAttendants() {
    if (!upToDate && IsVersionBelow("2.4.11")) {  // the attendant still lives in linedb
        if (!lineDb->GotoSection("attendant"))
            return;
        attendantExtension = lineDb->GetSectionEntry("extension").value_or("");
        if (FileUtility::IsDirectoryName(attendantExtension))
            liveAttendants.push_back(attendantExtension);
        return;
    }
    if (!extensionDb->GotoSection("attendant"))
        return;
    attendantExtension = extensionDb->GetSectionEntry("att_0").value_or("");
    AppendValues(*extensionDb, "attendant", liveAttendants);
}

void ConfigUpgrader::ReadFactoryLists() {
    defaultAttendants.clear();
    AppendValues(*defaultExtensionDb, "attendant", defaultAttendants);
    defaultExtensions.clear();
    AppendValues(*defaultExtensionDb, "extension", defaultExtensions);
    AppendValues(*defaultExtensionDb, "sle", defaultExtensions);
}

/// Brings everything the steps changed to the disk, on each file system that they write to. False
/// when the telephony directory's could not.
bool ConfigUpgrader::SyncTree() const {
    bool synced = false;  // what the last one, configRoot, says
    for (const std::string& path :
         {appliance.usbVoiceData, appliance.internalVoiceData, configRoot})
        synced = FileUtility::SyncFileSystem(path);
    return synced;
}

/// Brings the upgrade to its end, in this order: all changes are durable, the stamp is durable, the
/// recovery copy goes. A power cut may cost the stamp, never leave it on a half-upgraded tree.
/// False when the next start has to begin again.
bool ConfigUpgrader::FinishUpgrade() {
    if (upToDate)
        return true;
    if (ShouldBeginAgain())
        return false;
    if (!SyncTree()) {
        Trace(1, "MINOR ERROR: Can't sync: %s\n", configRoot.c_str());
        return false;
    }
    MarkDone();
    return Stamp();
}

/// Writes the version that the tree now has; false when it can't be saved.
bool ConfigUpgrader::Stamp() {
    if (targetVersion.empty() || !lineDb || !lineDb->GotoSection("general"))
        return true;
    if (!lineDb->SetSectionEntry("current_version", targetVersion)) {  // a label of two lines
        TraceInvalidFile(appliance.factoryLabel);
        return true;  // nor will it be on the next start
    }
    if (!Save(*lineDb))
        return false;
    report += "\n=====Current configuration version: " + targetVersion + " is set in linedb\n";
    return true;
}

ConfigUpgrader::~ConfigUpgrader() {
    try {
        for (const std::string& text : TakeDiskFailureTexts())
            Trace(1, "MINOR ERROR: Can't read: %s\n", text.c_str());
        EndWithRecoveryCopy(FinishUpgrade());
        FlushReport();
    } catch (const std::exception&) {  // out of memory: nothing can be written any more
    }
    defaultLineDb.reset();
    defaultExtensionDb.reset();
    lineDb.reset();
    extensionDb.reset();
}
