// The end of a run: the label, the stamp, the recovery copy, the last of the report.

#include "app/config_upgrader.h"
#include "app/version.h"
#include "files/read.h"
#include "files/refusals.h"
#include "files/replace.h"
#include "files/sync.h"
#include "platform/file_utility.h"

namespace {

/// A label in the tree itself, for start scripts that keep one: it says what the tree was converted
/// to, and goes with it into a backup. The stamp does not tell that, for a run that ended early is
/// stamped as well. Only a label that the scripts have made is raised; none is made here.
constexpr const char* treeLabel = "mend-label";

/// Raises the tree's own label after an upgrade that came to its end; false when it can't be saved.
bool RaiseTreeLabel(const ConfigUpgrader& upgrader) {
    const std::string& version = upgrader.targetVersion;
    const std::string path = upgrader.configRoot + treeLabel;
    if (!upgrader.isConverted || version.empty() || Contains(version, "\n") || !FileExist(path))
        return true;
    const std::string old = files::ReadFile(path).bytes.value_or("");
    // After a fall-back to older firmware the tree is still what the newer one made of it.
    return old == version + "\n" || IsNewerLabel(old, version) ||
           files::ReplaceFile(path, version + "\n").empty();
}

/// Writes the version that the tree now has; false when it can't be saved.
bool Stamp(ConfigUpgrader& upgrader) {
    const std::string& version = upgrader.targetVersion;
    if (version.empty() || !upgrader.lineDb || !upgrader.lineDb->GotoSection("general"))
        return true;
    if (!upgrader.lineDb->SetSectionEntry("current_version", version)) {  // a label of two lines
        upgrader.TraceInvalidFile(upgrader.appliance.factoryLabel);
        return true;  // the next start could not save it either
    }
    if (!upgrader.Save(*upgrader.lineDb))
        return false;
    upgrader.report += "\n=====Current configuration version: " + version + " is set in linedb\n";
    upgrader.Tell(Fact::Kind::Stamped, "", version);
    return true;
}

}  // namespace

/// Brings the upgrade to its end, in this order: all changes are durable, the stamp is durable, the
/// recovery copy goes. A power cut may cost the stamp, never leave it on a half-upgraded tree.
/// False when the next start has to begin again.
bool ConfigUpgrader::FinishUpgrade() {
    // Also where the next start may begin again: it puts the old label back with the tree, unless
    // the tree was changed meanwhile and stays what this run has made of it.
    const bool isLabelled = upToDate || RaiseTreeLabel(*this);
    if (recovery.ShouldBeginAgain())
        return false;
    // Recordings may have moved there. Not every unit has both, so a failure holds nothing up.
    if (!upToDate)
        for (const std::string& path : {appliance.usbVoiceData, appliance.internalVoiceData})
            files::SyncFileSystem(path);
    if (!isLabelled)
        return false;
    if ((!upToDate || recovery.Stands()) && !recovery.SyncTree()) {
        Trace(1, "MINOR ERROR: Can't sync: %s\n", configRoot.c_str());
        Tell(Fact::Kind::Refused, configRoot, "can't sync");
        return false;
    }
    if (upToDate)
        return true;
    recovery.MarkDone();
    return Stamp(*this);
}

ConfigUpgrader::~ConfigUpgrader() {
    try {
        for (const std::string& text : files::TakeRefusalTexts()) {
            Trace(1, "MINOR ERROR: %s\n", text.c_str());
            Tell(Fact::Kind::Refused, "", text);
        }
        const bool isTakenBack = isOutOfMemory && recovery.Stands();
        const bool isFinished = !isTakenBack && FinishUpgrade();
        if (!isFinished) {  // reading the tree, or putting it back, takes memory, too
            reserve.reset();
            CloseDatabases();
        }
        if (isTakenBack)
            recovery.TakeBack();
        else
            recovery.End(isFinished);
        FlushReport();
        appliance.afterStep("stamp");
    } catch (const std::exception&) {  // out of memory: nothing can be written any more
    }
    CloseDatabases();
}

void ConfigUpgrader::CloseDatabases() {
    factoryFiles.clear();
    mergeList.clear();
    defaultLineDb.reset();
    defaultExtensionDb.reset();
    lineDb.reset();
    extensionDb.reset();
}
