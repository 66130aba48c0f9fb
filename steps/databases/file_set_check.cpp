// Makes the live directory complete: what the factory tree has and the live tree lacks is copied,
// what exists on both sides is queued for the per-file checks.

#include <algorithm>
#include <vector>

#include "app/config_upgrader.h"
#include "files/look.h"
#include "files/read.h"
#include "files/remove.h"
#include "files/replace.h"
#include "platform/file_utility.h"
#include "util/shell.h"

namespace {

/// Directories of the factory tree that are for one device type. A directory whose name occurs
/// anywhere in one of these is not copied, for "fxsgw/16-lines/" is met as "fxsgw" first. Nor is
/// one made for an extension named 16.
constexpr const char* deviceTypeDirs[] = {"02-lines/",
                                          "04-lines/",
                                          "16-lines/",
                                          "petitrpl/02-lines/",
                                          "tesserarpl/02-lines/",
                                          "tesserarpl/26-lines/",
                                          "grandippbx/",
                                          "k4ippbx/",
                                          "fxogw/",
                                          "fxogwrpl/",
                                          "fxoippbx/",
                                          "isdngw/",
                                          "isdnippbx/",
                                          "ippbx/",
                                          "fxsgw/04-lines/",
                                          "fxsgw/16-lines/",
                                          "fxsgw/26-lines/",
                                          "conference/",
                                          "lvt/"};

/// Files that follow the firmware: an upgrade replaces them even where the site has changed them.
constexpr const char* refreshedFiles[] = {"dspload.cfg", "sysmessagedb", "servicecodedb",
                                          "expansions.cfg", "voipcarriersdb"};

/// Files that are never merged with the factory's. Steps of their own look after most of them;
/// Makefile and dialplan.xml are in no form that could be merged.
constexpr const char* neverMerged[] = {
    "speedcalldb",    "anonymousdb",  "blockedinnumsdb", "blockedoutnumsdb", "distringdb",
    "forwardlistdb",  "huntdb",       "linedb",          "extensiondb",      "Makefile",
    "externaluserdb", "dialplan.xml", "manyextringdb",   "addresspatterndb"};

bool IsDeviceTypePart(const std::string& name) {
    return std::any_of(std::begin(deviceTypeDirs), std::end(deviceTypeDirs),
                       [&](const char* dir) { return Contains(dir, name); });
}

/// A device directory whose files are laid over the live top level: one of a family with several
/// line counts, and inside the device path.
bool IsDeviceSubTree(const std::string& name, const std::string& linesDir) {
    const bool family = name.starts_with("tesserarpl") || name.starts_with("petitrpl") ||
                        name.starts_with("02-lines") || name.starts_with("26-lines");
    return family && Contains(linesDir, name);
}

/// The device directory itself: `linesDir` without its "/" begins the name.
bool IsDeviceDir(const std::string& name, const std::string& linesDir) {
    return !linesDir.empty() &&
           name.compare(0, linesDir.size() - 1, linesDir, 0, linesDir.size() - 1) == 0;
}

/// The walk over the factory tree.
class FileSetCheck {
public:
    explicit FileSetCheck(ConfigUpgrader& upgrader)
        : upgrader_(upgrader), report_(upgrader.report) {}

    void Check(const std::string& liveDir, const std::string& defaultDir, bool checkTemplateDirs) {
        report_ += "\t====entering...\n";
        const auto listing = files::ListDirectory(defaultDir);
        // A link of the factory tree that leads back into it must not send the walk in circles.
        if (listing && std::find(walked_.begin(), walked_.end(), listing->id) == walked_.end()) {
            walked_.push_back(listing->id);
            CheckEntries(*listing, liveDir, defaultDir);
            walked_.pop_back();
        }
        // The templates lie in the device's directory, so only the walk over that one has them.
        if (checkTemplateDirs) {
            report_ += "\n\n\tChecking non-default extensions dirs.\n\n ";
            CheckTemplate(upgrader_.liveExtensions, liveDir, defaultDir + "default" + "/");
            report_ += "\n\n\tChecking non-default attendants dirs.\n\n ";
            CheckTemplate(upgrader_.liveAttendants, liveDir, defaultDir + "defatt" + "/");
        }
        report_ += "\t====exiting...\n";
    }

private:
    void CheckEntries(const files::DirectoryListing& listing, const std::string& liveDir,
                      const std::string& defaultDir) {
        for (const files::DirectoryEntry& entry : listing.entries)
            CheckEntry(entry, liveDir, defaultDir);
    }

    void CheckEntry(const files::DirectoryEntry& entry, const std::string& liveDir,
                    const std::string& defaultDir) {
        // An up-to-date start does little else: the listing tells most kinds.
        const files::Kind kind = files::KindOf(defaultDir, entry);
        const std::string path = defaultDir + entry.name;
        if (kind == files::Kind::Directory)
            CheckDirectory(entry.name, liveDir, path);
        else
            CheckFile(entry.name, liveDir, path, kind != files::Kind::Missing);
    }

    void CheckTemplate(const NameList& names, const std::string& liveDir,
                       const std::string& templateDir) {
        // One listing serves all: there may be thousands of extensions.
        const auto listing = names.size() == 0 ? std::nullopt : files::ListDirectory(templateDir);
        for (const std::string& name : names) {
            report_ += "\t====entering...\n";
            if (listing)
                CheckEntries(*listing, liveDir + name + "/", templateDir);
            report_ += "\t====exiting...\n";
            upgrader_.FlushReport();
        }
    }

    /// Puts a command's success word directly behind the message before it.
    void ReportCommand(int result) {
        report_ += ShellFailed(result) ? "- Failed!!!!\n" : "- Done!\n";
    }

    /// A directory of the factory tree: walk into it, lay it over the live top level when it is
    /// this device's, or make it when the live tree lacks it.
    void CheckDirectory(const std::string& name, const std::string& liveDir,
                        std::string defaultPath) {
        // On a two-line unit both conditions hold for "02-lines". Its files are then walked and
        // queued twice, so the per-file checks must be able to bear a second round on them.
        if (IsDeviceSubTree(name, upgrader_.linesDir)) {
            defaultPath += "/";
            Check(liveDir, defaultPath, false);
            upgrader_.FlushReport();
        }
        if (IsDeviceDir(name, upgrader_.linesDir)) {
            defaultPath += "/";  // a second one behind a device sub-tree's; it does no harm
            Check(liveDir, defaultPath, true);
            upgrader_.FlushReport();
            return;
        }
        if (CorrectPath(liveDir + name)) {
            Check(liveDir + name + "/", defaultPath + "/", false);
            upgrader_.FlushReport();
            return;
        }
        if (!IsDeviceTypePart(name))
            MakeLiveDirectory(name, liveDir, defaultPath);
    }

    void MakeLiveDirectory(const std::string& name, const std::string& liveDir,
                           const std::string& defaultPath) {
        const bool isLiveExtension = ListContains(upgrader_.liveExtensions, name);
        const bool isLiveAttendant = ListContains(upgrader_.liveAttendants, name);
        // A factory extension that the site has deleted must not come back.
        if (ListContains(upgrader_.defaultExtensions, name) && !isLiveExtension)
            return;
        if (ListContains(upgrader_.defaultAttendants, name) && !isLiveAttendant)
            return;
        if (isLiveExtension || isLiveAttendant) {  // it stays empty, see CopyFile
            report_ += "\tdir  " + name + " is created for extension " + name;
            ReportCommand(upgrader_.RunShell("mkdir " + ShellPath(liveDir + "/" + name)));
        } else {
            report_ += "\tdir  " + name + " is copied from default-conf ";
            ReportCommand(upgrader_.CopyWhole("-p -r", defaultPath, liveDir + name));
        }
    }

    /// A file of the factory tree: refresh it, queue it for the per-file checks, remove it, or copy
    /// it when the live tree lacks it.
    void CheckFile(const std::string& name, const std::string& liveDir,
                   const std::string& defaultPath, bool isInDefault) {
        const std::string livePath = liveDir + name;
        if (isInDefault) {
            const bool exists = FileExist(livePath);
            if (exists && !upgrader_.upToDate && IsObsolete(name, liveDir)) {
                files::RemoveFile(livePath);
                report_ += "\tRemoving file " + livePath + "\n";
                return;
            }
            if (!exists || (!upgrader_.upToDate && IsRefreshed(name))) {
                if (!CopyFile(name, livePath, defaultPath))
                    return;
            } else if (!upgrader_.upToDate && !IsOneOf(neverMerged, name) &&
                       !Contains(name, "supservices_")) {
                QueueForMerge(name, livePath, defaultPath);
            }
        }
        if (name == "sip.cfg" && upgrader_.IsVersionBelow("2.3.9"))
            EndSipFile(livePath);
    }

    bool IsRefreshed(const std::string& name) const {
        return IsOneOf(refreshedFiles, name) ||
               (name == "gaincontrol.cfg" && upgrader_.IsVersionBelow("2.2.7"));
    }

    /// Gain settings moved away in 3.0.1; the templates keep theirs. At the top level, the next
    /// start copies the file anew as a missing one where the firmware still brings it.
    bool IsObsolete(const std::string& name, const std::string& liveDir) const {
        return name == "codecgaindb" && upgrader_.IsVersionBelow("3.0.1") &&
               !Contains(liveDir, "default") && !Contains(liveDir, "defatt");
    }

    /// False for a file in the directory of an extension or attendant, which is never copied.
    bool CopyFile(const std::string& name, const std::string& livePath,
                  const std::string& defaultPath) {
        if (PathInList(upgrader_.liveExtensions, livePath) ||
            PathInList(upgrader_.liveAttendants, livePath)) {
            report_ += "\tfile  " + livePath + " is belong to extension, skipped copying.\n ";
            return false;
        }
        files::RemoveSpecialFile(livePath);
        report_ += "\tfile " + name + " is copied from default-conf ";
        ReportCommand(upgrader_.CopyWhole("-p -r", defaultPath, livePath));
        return true;
    }

    void QueueForMerge(const std::string& name, const std::string& livePath,
                       const std::string& defaultPath) {
        // The merge numbers new patterns behind the old ones, which had no numbers before 2.4.25.
        if (name == "dialplan.cfg" && upgrader_.IsVersionBelow("2.4.25"))
            upgrader_.AddSectionIds(livePath, nullptr);
        // rtp.cfg and sip.cfg go first: the checks of other files use the ports found in these.
        const bool goesFirst = name == "rtp.cfg" || name == "sip.cfg";
        auto& list = upgrader_.mergeList;
        list.emplace(goesFirst ? list.begin() : list.end(), livePath, defaultPath);
        report_ += "\tAdded (" + defaultPath + " & " + livePath + ") " + "to merge list\n";
    }

    /// Old sip.cfg files may lack their last line end, and what is appended to such a file becomes
    /// part of its last line. One that has its line end gets a blank line, which does no harm.
    void EndSipFile(const std::string& path) {
        const files::ReadResult file = files::ReadFile(path);
        if (!file.bytes) {
            report_ += "\n\n\t\tsip.cfg open error!!!\n\n ";
            upgrader_.Tell(Fact::Kind::Absent, path, file.error);
            return;
        }
        const std::string error = files::ReplaceFile(path, *file.bytes + "\n");
        if (!error.empty())
            upgrader_.TraceUnsaved(path, error);
    }

    ConfigUpgrader& upgrader_;
    std::string& report_;
    std::vector<files::DirectoryId> walked_;  // factory directories from the top down to this one
};

}  // namespace

void ConfigUpgrader::CheckFileSet(const std::string& liveDir, const std::string& defaultDir,
                                  bool checkTemplateDirs) {
    FileSetCheck(*this).Check(liveDir, defaultDir, checkTemplateDirs);
}
