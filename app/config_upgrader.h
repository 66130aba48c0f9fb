#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/appliance.h"
#include "platform/log_stream.h"
#include "recovery/recovery_copy.h"
#include "store/config_file.h"
#include "store/multi_section_file.h"
#include "util/lists.h"

using SectionFile = std::unique_ptr<Configuration::MultiSectionFile>;
using FlatFile = std::unique_ptr<Configuration::ConfigFile>;

/// The upgrade of one appliance: the open databases, the log, the report, what the steps learn for
/// each other, and the steps themselves. Build one, call Run once, destroy it: the destructor
/// stamps the version and writes the last of the report.
///
/// Nothing here fails to the outside. Every step reports what it found, leaves a file that it
/// cannot read as it is, and lets the next step run. All is public: the steps stand in files of
/// their own, with what only they need, and their tests look at the same fields.
class ConfigUpgrader {
public:
    explicit ConfigUpgrader(Appliance where = {});
    ~ConfigUpgrader();
    ConfigUpgrader(const ConfigUpgrader&) = delete;
    ConfigUpgrader& operator=(const ConfigUpgrader&) = delete;

    /// Performs the whole upgrade.
    void Run();

    // The report and the log.

    // The steps up to the file merge write what they find into the report, which reaches the log
    // when it is flushed. Those behind them, and every error of a file, trace straight to the log.
    // So a line of the log may stand before report text of the same step that is older.
    //
    // People and scripts search these texts. They stay word for word, with their misspellings, and
    // with their blanks, full stops and line ends, or the lack of them.

    /// Writes the report to the log and empties it; in pieces of at most 1000 bytes, so that no
    /// record of the log gets longer. Without a log the report is kept for the first flush that has
    /// one.
    void FlushReport();
    /// Writes a printf-style line straight to the log: level 3 for progress, 1 for errors. Does
    /// nothing without a log.
    void Trace(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    /// Appends a step's header line and, at its end, its closing line.
    void ReportStep(const std::string& name) { report += "\n=== " + name + " ===\n"; }
    void ReportDone() { report += "\n Done...\n"; }
    /// Tells the observer, if there is one, what the report tells in words.
    void Tell(Fact::Kind kind, std::string_view path, std::string_view reason = {});
    void Tell(Fact::Kind kind, const std::exception& error);

    // Versions.

    /// Compares the labels, sets liveVersion and, when an upgrade is due, targetVersion. True when
    /// the configuration is what the firmware expects.
    bool CheckVersion();
    /// Whether both labels can be read and say the same: then no upgrade is due, whatever linedb
    /// says. Reports nothing.
    bool AreLabelsEqual() const;
    /// The version that an upgrade would stamp; empty when a label can't be read.
    std::string VersionToStamp() const;
    /// True when liveVersion is older than `version`. Gates know the live label only.
    bool IsVersionBelow(const std::string& version) const;

    // The store.

    /// Opens a file and tells the log so; null, with an error line, when it cannot be opened.
    SectionFile OpenSectionFile(const std::string& path, bool createFlag);
    FlatFile OpenFlatFile(const std::string& path, bool createFlag, bool secondFlag);
    void CloseSectionFile(SectionFile& file) { file.reset(); }  // without saving it
    void CloseFlatFile(FlatFile& file) { file.reset(); }
    /// Saves a file and returns whether it is saved. A failure gets a level 1 line with the reason;
    /// the file on disk is then as it was. A step that reports the failure in words of its own
    /// calls the file's own Save instead: one failure, one line.
    bool Save(Configuration::MultiSectionFile& file);
    bool Save(Configuration::ConfigFile& file);
    /// Traces that a file cannot be read, without the full stop that a file that could not be
    /// created gets; the second form also why, see TraceReason.
    void TraceInvalidFile(const std::string& path);
    void TraceInvalidFile(const std::string& path, const std::exception& error);
    /// Traces why a file that is there cannot be read, behind a step's own line; once for each
    /// reason in a step, which may open a file several times. A missing one gets no line.
    void TraceReason(const std::exception& error);
    /// Traces that a file is as it was, with the reason.
    void TraceUnsaved(const std::string& path, const std::string& reason);
    /// Adds to `destination` every anonymous section of `source` whose `keyName` value no section
    /// of it has, numbered behind the largest `idKey` in use. True when one was added; nothing is
    /// saved.
    bool MergeKeyedSections(Configuration::MultiSectionFile* destination,
                            Configuration::MultiSectionFile* source, const std::string& keyName,
                            const std::string& idKey);

    // The shell.

    /// Runs a command and returns what `system` returns.
    int RunShell(const std::string& command);
    /// Runs a command whose errors are asked for: "Success", or "Failed: " and the errors.
    std::string RunWithErrorText(const std::string& command);
    /// The error text of the last command that was run so.
    const std::string& ReadLastError() const { return lastErrorText; }
    /// Copies a file or directory of the factory tree with `cp` and `options`, so that the target
    /// is whole, old or new. Returns what the shell returned; a copy that did not help is traced.
    int CopyWhole(const std::string& options, const std::string& source, const std::string& target);
    /// Puts the factory's file for this number of lines in the place of a main database, which
    /// stays until the copy is there. False when the shell could not be run; whether the copy
    /// helped shows when the file is opened.
    bool CopyFromFactory(const std::string& name);

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

    // Fields. "The run" is app/run.cpp; the numbers are of 32 bits on every machine, so that what
    // does not fit wraps alike on all.

    Appliance appliance;  // set by the caller, read everywhere

    std::string configRoot;          // ends in "/"; set by the run, read everywhere
    std::string report;              // added to everywhere, emptied by FlushReport
    std::string attendantExtension;  // set by run and split, read by line sections and voice mail
    SectionFile defaultLineDb;       // set by the run, read by line counts and the two line checks
    SectionFile defaultExtensionDb;  // set and read by the run
    SectionFile lineDb;              // set by the run, read by most steps
    SectionFile extensionDb;         // set by the run, split and attendant restriction, read by the
                                     // split and call park
    NameList liveExtensions;         // set by the split, read by nearly all steps behind it
    NameList defaultExtensions;      // set by the run, read by the file set check
    NameList routingExtensions;      // taken to be routing; set by the split, read by local routing
    NameList liveAttendants;         // set by the run and the split, read as liveExtensions
    NameList defaultAttendants;      // set by the run, read by the file set check
    // Live file, factory file; set by the file set check, read by ProcessMergeList.
    std::vector<std::pair<std::string, std::string>> mergeList;
    // By path, for all extensions; set by CheckConfigFile, emptied by ProcessMergeList.
    std::map<std::string, SectionFile> factoryFiles;
    std::string targetVersion;  // stamped unless empty; set by CheckVersion, read by the run
    std::string liveVersion;    // set by CheckVersion, read by IsVersionBelow
    std::int32_t numFxs = 4;    // set by ProbeLineCounts, read by line counts
    std::int32_t numFxo = 2;    // set by ProbeLineCounts, read by line counts and sections
    std::int32_t numIsdn = 0;   // set by ProbeHardware, read by nobody yet
    std::string linesDir;  // ends in "/"; set by ProbeLineCounts, read by run and file set check
    std::unique_ptr<LogStream> log;     // set by the run, read by FlushReport and Trace
    std::string rtpMinPort;             // set by the check of rtp.cfg, read by ConvertNatSettings
    std::string rtpMaxPort;             // the same
    std::string storageType = "bbram";  // or "usb"; set by the voice-data check, read by voice mail
    bool linesMismatch = false;         // with linedb; set by line counts, read by the run
    bool upToDate = false;              // set by the run, read by it and the file set check
    std::uint32_t extensionLength = 2;  // digits; set by the run, read by nobody yet
    bool sipNatAgentIsTwo = true;       // set by ConvertSipSettings, read by ConvertNatSettings
    std::string sipUdpPort;             // the same
    std::string sipTcpPort;             // the same
    std::string sipTlsPort;             // the same
    std::string sipTimerProfile;        // set by ConvertSipSettings, read by the per-file checks
    std::string systemLanguage;         // set by the voice-data check, read by CheckLineDatabase

    RecoveryCopy recovery{report};        // used by the run, read by CheckCallerDatabases
    bool isConverted = false;             // every step has run; set by the run, read by its end
    bool isOutOfMemory = false;           // set by opening a file and the run, read by its end
    std::unique_ptr<char[]> reserve;      // given up when memory runs out
    std::set<std::string> tracedReasons;  // of this step; set by TraceReason, emptied by the run
    std::string lastErrorText;            // set by RunWithErrorText, read by ReadLastError

private:
    void RunSteps();
    bool FinishUpgrade();
    void CloseDatabases();
};
