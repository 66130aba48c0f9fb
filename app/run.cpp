// The order of the run, and the restore paths of the two main databases.

#include "app/run.h"

#include <new>
#include <optional>
#include <set>
#include <utility>

#include "app/config_root.h"
#include "app/config_upgrader.h"
#include "files/look.h"
#include "files/refusals.h"
#include "platform/file_utility.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// What the last lines of a report and the put-back of a tree take: 32 KB for each open directory.
/// It is never touched, so it takes addresses, not memory.
constexpr std::size_t reserveSize = 524288;

// The order is part of what the steps rely on. Voice mail makes the shares that the system
// extension sums up. The file merge gives sip.cfg, nat.cfg and servicesdb the form that later steps
// read. The echo delay is lowered while the ISDN trunks still have their old files. The
// supplementary services make the files that the FXO prefix goes through.
//
// A gate compares with the label of the live tree alone, so a new step whose gate is not above
// every label already shipped would be jumped over on those units.
const VersionedStep versionedSteps[] = {
    {"line database", [](ConfigUpgrader& u) { u.CheckLineDatabase(); }, true},
    {"line sections", [](ConfigUpgrader& u) { u.CheckLineSections(*u.lineDb, *u.defaultLineDb); },
     true},
    {"voice mail", [](ConfigUpgrader& u) { u.MigrateVoicemail(); }, true, "2.4.9"},
    {"file merge", [](ConfigUpgrader& u) { u.ProcessMergeList(); }, true},
    {"echo delay", [](ConfigUpgrader& u) { u.UpdateEchoDelay(); }, false},
    {"supplementary services", [](ConfigUpgrader& u) { u.MergeSupplementaryServices(); }, false},
    {"local routing", [](ConfigUpgrader& u) { u.UpdateLocalRouteDB(); }, false},
    {"dial plan", [](ConfigUpgrader& u) { u.UpdateDialPlan(); }, false},
    {"group lists", [](ConfigUpgrader& u) { u.UpdateGroupListDB(); }, false},
    {"system extension", [](ConfigUpgrader& u) { u.UpdateSystemExtension(); }, false},
    {"FXO prefix", [](ConfigUpgrader& u) { u.UpdateFxoPrefix(); }, false},
    {"STUN file", [](ConfigUpgrader& u) { u.UpdateStunFile(); }, false},
    {"attendant restriction", [](ConfigUpgrader& u) { u.RestrictAttendants(); }, false},
    {"call park", [](ConfigUpgrader& u) { u.UpdateCallPark(); }, false},
    {"RTP port ranges", [](ConfigUpgrader& u) { u.UpdateRtpPortRanges(); }, false},
    {"ISDN files", [](ConfigUpgrader& u) { u.MapIsdnFiles(); }, false},
    {"extension length", [](ConfigUpgrader& u) { u.UpdateExtensionLength(); }, false},
};

constexpr const char* notCopied = "the factory's file could not be copied";

/// Appends the values of a section's entries to a list. An empty value is no extension number, nor
/// is one that would lead out of the telephony directory: the steps take them for directory names.
void AppendValues(MultiSectionFile& file, const std::string& section, NameList& list) {
    if (!file.GotoSection(section))
        return;
    for (const Configuration::Entry& entry : file.SectionEntries())
        if (files::IsDirectoryName(entry.value))
            list.push_back(entry.value);
}

void CreateLog(ConfigUpgrader& upgrader) {
    constexpr int everyLevel = 2147483647;
    try {
        upgrader.log = std::make_unique<LogStream>(upgrader.appliance.log, true, false, everyLevel);
    } catch (const std::exception& error) {
        upgrader.report += std::string("\t") + error.what() + "\n";
    }
}

/// For a run that ends before its log is due: the report says why.
void EndWithLog(ConfigUpgrader& upgrader) {
    CreateLog(upgrader);
    upgrader.FlushReport();
}

/// Opens a main database. After an I/O error it is read a second time, for giving up is dear: the
/// factory's database takes its place.
SectionFile OpenMainDatabase(const std::string& path) {
    const files::RefusalWatch watch;
    try {
        return std::make_unique<MultiSectionFile>(path);
    } catch (const FileError&) {
        if (!watch.HasSeenOne())
            throw;
    }
    return std::make_unique<MultiSectionFile>(path);
}

/// The names of the directories at the tree's top that steps go into: those that the factory has,
/// and those of extensions and attendants, in the old layout or the new.
std::set<std::string> UpgradedDirectories(const ConfigUpgrader& upgrader) {
    std::set<std::string> names = {"system"};
    const std::string& factory = upgrader.appliance.factoryTelephony;
    for (const std::string& path : {factory, factory + upgrader.linesDir})
        if (const auto listing = files::ListDirectory(path))
            for (const files::DirectoryEntry& entry : listing->entries)
                if (files::KindOf(path, entry) == files::Kind::Directory)
                    names.insert(entry.name);
    for (const char* database : {"extensiondb", "linedb"}) {
        try {
            MultiSectionFile file(upgrader.configRoot + database);
            for (file.Restart(); file.GotoNextSection();) {
                names.insert(file.SectionName());
                for (const Configuration::Entry& entry : file.SectionEntries())
                    names.insert(entry.value);
            }
        } catch (const FileError&) {  // its own opening reports it
        }
    }
    return names;
}

/// False when there is no room for one, which ends the run.
bool MakeRecoveryCopy(ConfigUpgrader& upgrader, const std::string& version) {
    const std::set<std::string> names = UpgradedDirectories(upgrader);
    const std::string& factory = upgrader.appliance.factoryTelephony;
    // A name with a "/" is one further down, where the factory's tree tells what is upgraded.
    const bool canBegin = upgrader.recovery.Make(version, [&](const std::string& name) {
        if (!Contains(name, "/"))
            return names.contains(name);
        return CorrectPath(factory + name) || CorrectPath(factory + upgrader.linesDir + name);
    });
    if (!canBegin)
        upgrader.Tell(Fact::Kind::EndedEarly, upgrader.configRoot, "no room for a recovery copy");
    return canBegin;
}

/// Compares the versions and, when an upgrade is due, makes what protects it. False when the
/// upgrade must not begin. There is no version to stamp until it has begun: whatever ends the run
/// before, the next start must find it due.
bool BeginUpgrade(ConfigUpgrader& upgrader) {
    upgrader.upToDate = upgrader.CheckVersion();
    const std::string version = std::exchange(upgrader.targetVersion, {});
    upgrader.Tell(upgrader.upToDate ? Fact::Kind::UpToDate
                  : version.empty() ? Fact::Kind::NoLabel
                                    : Fact::Kind::Due,
                  upgrader.liveVersion, version);
    if (!upgrader.upToDate && !MakeRecoveryCopy(upgrader, version))
        return false;
    upgrader.targetVersion = version;
    return true;
}

bool OpenLineDb(ConfigUpgrader& upgrader) {
    const std::string path = upgrader.configRoot + "linedb";
    try {
        upgrader.lineDb = OpenMainDatabase(path);
        return true;
    } catch (const std::bad_alloc&) {
        throw;  // the file is not to blame
    } catch (const std::exception& error) {
        upgrader.report += "\tfile linedb doesn't exist or corrupted, copying from default-conf\n";
        upgrader.report += Configuration::ReasonLine(error);
        upgrader.Tell(Fact::Kind::Restored, error);
        upgrader.FlushReport();
    }
    // The copy is made before the factory's file takes the place of this one: what the disk could
    // not give this time may be there the next.
    if (!upgrader.AreLabelsEqual() && !MakeRecoveryCopy(upgrader, upgrader.VersionToStamp())) {
        EndWithLog(upgrader);
        return false;
    }
    if (!upgrader.CopyFromFactory("linedb")) {
        upgrader.Tell(Fact::Kind::EndedEarly, "linedb", notCopied);
        return false;
    }
    upgrader.lineDb = std::make_unique<MultiSectionFile>(path);
    return true;
}

bool OpenExtensionDb(ConfigUpgrader& upgrader) {
    const std::string path = upgrader.configRoot + "extensiondb";
    try {
        upgrader.extensionDb = OpenMainDatabase(path);
        return true;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        upgrader.report += std::string("\t") + error.what() + "\n";
        upgrader.report += "\tfile extensiondb copying from default-conf\n";
        upgrader.Tell(Fact::Kind::Restored, error);
        upgrader.FlushReport();
    }
    if (!upgrader.CopyFromFactory("extensiondb")) {
        upgrader.Tell(Fact::Kind::EndedEarly, "extensiondb", notCopied);
        return false;
    }
    upgrader.extensionDb = std::make_unique<MultiSectionFile>(path);
    return true;
}

void OpenFactoryDatabases(ConfigUpgrader& upgrader) {
    const std::string directory = upgrader.appliance.factoryTelephony + upgrader.linesDir;
    upgrader.defaultLineDb = std::make_unique<MultiSectionFile>(directory + "linedb", false, true);
    upgrader.defaultExtensionDb =
        std::make_unique<MultiSectionFile>(directory + "extensiondb", false, true);
}

void ReadAttendants(ConfigUpgrader& upgrader) {
    std::string& first = upgrader.attendantExtension;
    MultiSectionFile& lineDb = *upgrader.lineDb;
    if (!upgrader.upToDate && upgrader.IsVersionBelow("2.4.11")) {  // it still lives in linedb
        if (!lineDb.GotoSection("attendant"))
            return;
        first = lineDb.GetSectionEntry("extension").value_or("");
        if (files::IsDirectoryName(first))
            upgrader.liveAttendants.push_back(first);
        return;
    }
    MultiSectionFile& extensionDb = *upgrader.extensionDb;
    if (!extensionDb.GotoSection("attendant"))
        return;
    first = extensionDb.GetSectionEntry("att_0").value_or("");
    AppendValues(extensionDb, "attendant", upgrader.liveAttendants);
}

void ReadExtensionLength(ConfigUpgrader& upgrader) {
    if (upgrader.lineDb->GotoSection("general"))
        if (const auto length = upgrader.lineDb->GetSectionEntry("extension_length"))
            upgrader.extensionLength = StringToNumber<unsigned>(*length);
}

void ReadFactoryLists(ConfigUpgrader& upgrader) {
    MultiSectionFile& factory = *upgrader.defaultExtensionDb;
    upgrader.defaultAttendants.clear();
    AppendValues(factory, "attendant", upgrader.defaultAttendants);
    upgrader.defaultExtensions.clear();
    AppendValues(factory, "extension", upgrader.defaultExtensions);
    AppendValues(factory, "sle", upgrader.defaultExtensions);
}

void RunVersionedSteps(ConfigUpgrader& upgrader) {
    for (const VersionedStep& step : versionedSteps) {
        if (step.onlyBelow != nullptr && !upgrader.IsVersionBelow(step.onlyBelow))
            continue;
        upgrader.tracedReasons.clear();
        step.run(upgrader);
        if (step.flushAfterwards)
            upgrader.FlushReport();
        upgrader.appliance.afterStep(step.name);
    }
    upgrader.isConverted = true;
}

}  // namespace

std::span<const VersionedStep> VersionedSteps() {
    return versionedSteps;
}

ConfigUpgrader::ConfigUpgrader(Appliance where)
    : appliance(std::move(where)), reserve(new char[reserveSize]) {}

void ConfigUpgrader::Run() {
    try {
        RunSteps();
    } catch (const std::exception& error) {
        if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
            isOutOfMemory = true;
            reserve.reset();
            if (!log)
                CreateLog(*this);
        }
        report += std::string("\t") + error.what() + "\n";
        report += "\nexiting setupmend... may the Lord help us!\n";
        Tell(Fact::Kind::EndedEarly, error);
        FlushReport();
    }
}

void ConfigUpgrader::RunSteps() {
    const auto endStep = [this](const char* name) {
        FlushReport();
        appliance.afterStep(name);
        tracedReasons.clear();
    };
    PrepareForCommands();
    configRoot = FindConfigRoot(appliance.liveConf);
    const files::RefusalWatch labelWatch;
    std::optional<std::string> version = VersionToStamp();
    if (labelWatch.HasSeenOne())
        version.reset();
    if (!recovery.Resume(configRoot, version, appliance.log)) {
        Tell(Fact::Kind::EndedEarly, {}, "an interrupted upgrade can't be put back");
        EndWithLog(*this);
        return;
    }
    appliance.afterStep("recovery");
    ProbeHardware(false);
    ProbeLineCounts();
    endStep("hardware");
    if (!OpenLineDb(*this))
        return;
    appliance.afterStep("linedb");
    if (!BeginUpgrade(*this)) {
        EndWithLog(*this);
        return;
    }
    FlushReport();
    CreateLog(*this);
    endStep("version check");
    if (!OpenExtensionDb(*this))
        return;
    // The split is a conversion that is due whatever the labels say, and must not be left half
    // done.
    if (upToDate && !extensionDb->GotoSection("attendant") && !MakeRecoveryCopy(*this, "")) {
        FlushReport();
        return;
    }
    appliance.afterStep("extensiondb");
    OpenFactoryDatabases(*this);
    ReadAttendants(*this);
    ReadExtensionLength(*this);
    ReadFactoryLists(*this);
    UpdateLineCounts();
    endStep("line counts");
    ProbeHardware(true);
    endStep("hardware record");
    CheckVoiceDataAndLinks();
    endStep("voice data and links");
    SplitExtensionDatabase();
    endStep("extension split");
    ReportStep("cfg files existence check");
    CheckFileSet(configRoot, appliance.factoryTelephony, false);
    ReportDone();
    endStep("file set check");
    if (!upToDate) {
        RunVersionedSteps(*this);
    } else if (linesMismatch) {
        report += "Number of fxo or fxs lines is less than lines data in linedb!\n";
        CheckLineSections(*lineDb, *defaultLineDb);
        endStep("line sections");
    }
}
