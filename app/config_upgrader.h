#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/appliance.h"
#include "platform/log_stream.h"
#include "store/config_file.h"
#include "store/multi_section_file.h"
#include "util/directory.h"
#include "util/lists.h"

using SectionFile = std::unique_ptr<Configuration::MultiSectionFile>;
using FlatFile = std::unique_ptr<Configuration::ConfigFile>;

struct PortRange;
struct SplitFile;  // one file of an extension, in the split of the extension database

/// The upgrade of one appliance: the open databases, the log, the report, what the steps learn for
/// each other, and the steps themselves. Build one, call Run once, destroy it: the destructor
/// stamps the version and writes the last of the report.
///
/// Nothing here fails to the outside. Every step reports what it found, leaves a file that it
/// cannot read as it is, and lets the next step run. All is public: the steps stand in files of
/// their own, and their tests look at the same fields.
class ConfigUpgrader {
public:
    explicit ConfigUpgrader(Appliance where = {}) : appliance(std::move(where)) {}
    ~ConfigUpgrader();
    ConfigUpgrader(const ConfigUpgrader&) = delete;
    ConfigUpgrader& operator=(const ConfigUpgrader&) = delete;

    /// Performs the whole upgrade.
    void Run();

    // The report and the log.

    /// Writes the report to the log in pieces of at most 1000 bytes and empties it. Without a log
    /// the report is kept for the first flush that has one.
    void FlushReport();
    /// Writes a printf-style line straight to the log: level 3 for progress, 1 for errors. Does
    /// nothing without a log.
    void Trace(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Appends a step's header line and, at its end, its closing line.
    void ReportStep(const std::string& name) { report += "\n=== " + name + " ===\n"; }
    void ReportDone() { report += "\n Done...\n"; }

    // Versions.

    /// Compares the labels, sets liveVersion and, when an upgrade is due, targetVersion. True when
    /// the configuration is what the firmware expects.
    bool CheckVersion();
    /// Whether both labels can be read and say the same: then no upgrade is due, whatever linedb
    /// says. Reports nothing.
    bool AreLabelsEqual() const;
    /// The version that an upgrade would stamp; empty when a label can't be read.
    std::string VersionToStamp() const;
    /// True when liveVersion is older than `version`. Gates know the live label only, never the
    /// target.
    bool IsVersionBelow(const std::string& version) const;

    // The store.

    /// Opens a file and tells the log so; null, with an error line, when it cannot be opened.
    SectionFile OpenSectionFile(const std::string& path, bool createFlag);
    FlatFile OpenFlatFile(const std::string& path, bool createFlag, bool secondFlag);
    /// Closes a file without saving it.
    void CloseSectionFile(SectionFile& file) { file.reset(); }
    void CloseFlatFile(FlatFile& file) { file.reset(); }
    /// Saves a file and returns whether it is saved. A failure gets a level 1 line with the reason;
    /// the file on disk is then as it was.
    bool Save(Configuration::MultiSectionFile& file);
    bool Save(Configuration::ConfigFile& file);
    /// Traces that a file cannot be read, without the full stop that a file that could not be
    /// created gets.
    void TraceInvalidFile(const std::string& path);
    /// Adds to `destination` every anonymous section of `source` whose `keyName` value no section
    /// of it has, numbered behind the largest `idKey` in use. True when one was added; nothing is
    /// saved.
    bool MergeKeyedSections(Configuration::MultiSectionFile* destination,
                            Configuration::MultiSectionFile* source, const std::string& keyName,
                            const std::string& idKey);

    // The shell.

    /// Runs a command and returns what `system` returns.
    int RunShell(const std::string& command);
    /// The error text of the last command that sent it to appliance.lastError.
    std::string ReadLastError() const;

    /// Copies a file or directory of the factory tree with `cp` and `options`, beside the target
    /// and renamed over it, so that no cut file ever stands there: after a copy that failed the
    /// target is as it was. Returns what the shell returned.
    int CopyWhole(const std::string& options, const std::string& source, const std::string& target);

    // The recovery copy of the live tree.

    /// Finds the copy of an upgrade that did not end and puts the tree back as it was before it.
    /// False when that failed: the tree is then half upgraded, and must not be upgraded again.
    bool PutBackInterrupted();
    /// Makes the copy, or links where there is no room, unless there is one; reports when it can't.
    void MakeRecoveryCopy();

    // Steps, in the order of the run.

    /// Reads the trunk boards; the second pass records them in hwinfo and linedb.
    void ProbeHardware(bool secondPass);
    /// Reads the numbers of FXS and FXO lines and chooses linesDir.
    void ProbeLineCounts();
    /// Records the line counts in linedb and drops the sections of surplus FXO ports.
    void UpdateLineCounts();
    /// Learns language and voice-data storage, and makes the regional link.
    void CheckVoiceDataAndLinks();
    /// Splits an old extensiondb into files an extension, and fills the lists.
    void SplitExtensionDatabase();
    /// Brings a live directory to the completeness of a factory directory, both ending in "/".
    void CheckFileSet(const std::string& liveDir, const std::string& defaultDir,
                      bool checkTemplateDirs);

    /// Adds the factory's new sections and entries to linedb and fixes its general section.
    void CheckLineDatabase();
    /// Gives every line and FXO port its section and detaches unknown extensions.
    void CheckLineSections(Configuration::MultiSectionFile& target,
                           Configuration::MultiSectionFile& source);
    /// Splits the shared voicemaildb into one per extension, with sizes as shares in percent.
    void MigrateVoicemail();
    /// Checks every queued pair of files, then numbers the caller databases.
    void ProcessMergeList();
    /// Numbers the caller databases of a directory and all below it.
    void CheckCallerDatabases(const std::string& dir, const std::string& name);
    /// Numbers a file's sections from 1; opens the file itself when `file` is null.
    void AddSectionIds(const std::string& path, Configuration::MultiSectionFile* file);
    /// Gives untyped records "IP", "PSTN" or "PBX" where it is plain. Saves nothing.
    void CheckCallerTypes(Configuration::MultiSectionFile& file, const std::string& name);
    /// Brings a live file (first) in line with its factory default (second).
    void CheckConfigFile(const std::pair<std::string, std::string>& files);
    /// Moves sip.cfg's settings into sections and learns ports, profile and NAT agent.
    void ConvertSipSettings();
    /// Moves nat.cfg's settings into sections; uses what sip.cfg and rtp.cfg gave.
    void ConvertNatSettings();
    /// Lowers the echo delay of every digital trunk by 80.
    void UpdateEchoDelay();
    /// Merges each extension's caller databases into one services file a caller.
    void MergeSupplementaryServices();
    /// Drops emergency and access-code routes, unless an extension is routing.
    void UpdateLocalRouteDB();
    /// Takes the factory's dial plan and keeps the time-out of "0*" for "R*".
    void UpdateDialPlan();
    /// Turns address lists into one entry an address.
    void UpdateGroupListDB();
    /// Makes the system extension from attendant 00.
    void UpdateSystemExtension();
    /// Takes the exchange access digit off stored numbers.
    void UpdateFxoPrefix();
    /// Moves the section entries of stun.cfg to the top level.
    void UpdateStunFile();
    /// Removes all attendants but 00 on units whose EEPROM says so.
    void RestrictAttendants();
    /// Moves call park extensions into their own index section.
    void UpdateCallPark();
    /// Folds the media unit's port ranges into those of the unit.
    void UpdateRtpPortRanges();
    /// Moves each ISDN trunk's file into a directory of its own.
    void MapIsdnFiles();
    /// Marks the extension length as defined in linedb.
    void UpdateExtensionLength();

    Appliance appliance;

    std::string configRoot;  // live telephony directory, ends in "/"
    std::string report;
    std::string attendantExtension;  // the first attendant
    SectionFile defaultLineDb;
    SectionFile defaultExtensionDb;
    SectionFile lineDb;
    SectionFile extensionDb;
    NameList liveExtensions;
    NameList defaultExtensions;
    NameList routingExtensions;  // taken to be in routing mode
    NameList liveAttendants;
    NameList defaultAttendants;
    std::deque<std::pair<std::string, std::string>> mergeList;  // live file, factory file
    std::string targetVersion;                                  // stamped at the end unless empty
    std::string liveVersion;
    std::int32_t numFxs = 4;
    std::int32_t numFxo = 2;
    std::int32_t numIsdn = 0;
    std::string linesDir;  // line-count directory of the factory tree, ends in "/"
    std::unique_ptr<LogStream> log;
    std::string rtpMinPort;
    std::string rtpMaxPort;
    std::string storageType = "bbram";  // or "usb"
    bool linesMismatch = false;         // the hardware has more lines than linedb describes
    bool upToDate = false;
    std::uint32_t extensionLength = 2;  // digits
    bool sipNatAgentIsTwo = true;
    std::string sipUdpPort;
    std::string sipTcpPort;
    std::string sipTlsPort;
    std::string sipTimerProfile;
    std::string systemLanguage;

    std::string liveTree;          // the directory configRoot names, without "/" at its end
    std::string recoveryCopy;      // the name of its copy
    bool hasRecoveryCopy = false;  // it is complete, and of the tree as it was
    bool wasRefused = false;       // it is not begun again for a failure of the disk
    unsigned failuresBefore = 0;   // DiskFailures() that are not this upgrade's

private:
    void RunSteps();
    void RunVersionedSteps();
    void FindConfigRoot();
    bool OpenLineDb();
    bool OpenExtensionDb();
    void CreateLog();
    void ReadAttendants();
    void ReadFactoryLists();
    bool FinishUpgrade();
    bool Stamp();
    bool SyncTree() const;

    void FindRecoveryCopy();
    void RemoveRecoveryCopy();
    void EndWithRecoveryCopy(bool isFinished);
    void MarkDone() const;
    bool ShouldBeginAgain() const;

    bool CopyFromFactory(const std::string& name);

    bool ReopenLineDb();
    bool AddMissingLineEntries(const std::string& section);
    void FixGeneralSection();
    bool ApplyLineDatabaseGates();

    void ReadAttendantIndex();
    bool IsOldExtension(const std::string& section) const;
    void SplitExtensions();
    void MakeAttendantDirectory();
    bool WriteSplitFile(const std::string& extension, const SplitFile& file, bool hasLine);
    void WriteExtensionIndex(bool attendantMoved);
    void ConvertMailboxSizes(Configuration::MultiSectionFile& old, const NameList& mailboxes);
    bool MoveMailbox(Configuration::MultiSectionFile& old, const std::string& extension);
    void CopyMailboxTemplate(const std::string& extension, const std::string& directory);
    std::string MoveAttendantRecordings(const std::string& oldFolder);
    void MakeRegionalLink(std::optional<std::string> country);
    std::string TakeTopLevelEntry(Configuration::MultiSectionFile& file, const std::string& key);
    bool GotoSectionOrReport(Configuration::MultiSectionFile& file, const std::string& section);
    bool EnterSection(Configuration::MultiSectionFile& file, const std::string& section);
    void ConvertOldSipSettings(Configuration::MultiSectionFile& live);
    void UpdateSipSettings(Configuration::MultiSectionFile& live, bool changed);
    void SwitchOffSipHeaderForms(Configuration::MultiSectionFile& live);
    void FillNatSections(Configuration::MultiSectionFile& live);
    void SetSelfPort(Configuration::MultiSectionFile& live, const std::string& port);
    void SetMappedHost(Configuration::MultiSectionFile& live, const std::string& host);
    void SetUseStun(Configuration::MultiSectionFile& live);
    void ReconcilePortRanges(Configuration::MultiSectionFile& nat, bool isNatOn);
    void TraceRanges(const PortRange& rtp, const PortRange& nat);

    void LowerEchoDelay(Configuration::MultiSectionFile& file, const std::string& section);
    bool MapIsdnTrunk(const std::string& trunkPath);
    void DropAccessRoutes(Configuration::MultiSectionFile& routes);
    std::string RunWithErrorText(const std::string& command);
    std::string CopyAttendantToSystem();
    bool IsAttendantDirectory(const std::string& name) const;
    int SumMailboxPortions();
    void UpdateSystemMailbox(int usedPortions);
    void UpdateSpeedDials(const std::string& path);
    void UpdateAutomaticCall(const std::string& path);
    void UpdateForwardTargets(const std::string& directory);
    void TraceInvalidFxoFile(const std::string& path);
    std::string CallerType(const std::string& number, const std::string& host) const;

    void CheckTemplate(const NameList& names, const std::string& liveDir,
                       const std::string& templateDir);
    void CheckDirectory(const std::string& name, const std::string& liveDir,
                        std::string defaultPath);
    void CheckFile(const std::string& name, const std::string& liveDir,
                   const std::string& defaultPath, bool isInDefault);
    bool IsRefreshed(const std::string& name) const;
    bool IsObsolete(const std::string& name, const std::string& liveDir) const;
    void QueueForMerge(const std::string& name, const std::string& livePath,
                       const std::string& defaultPath);
    void EndSipFile(const std::string& path);
    void ReportCommand(int result);

    std::vector<DirectoryId> walkedDirectories;  // of the factory tree, that CheckFileSet is in
    std::set<DirectoryId> callerDirectories;     // that CheckCallerDatabases has been in
};
