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

/// Directories of other device types. A name that occurs inside one of these is never copied.
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

/// Files that every new firmware brings anew.
constexpr const char* refreshedFiles[] = {"dspload.cfg", "sysmessagedb", "servicecodedb",
                                          "expansions.cfg", "voipcarriersdb"};

/// Files that steps of their own look after; they are never merged with the factory's.
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
        if (ListContains(upgrader_.defaultExtensions, name) && !isLiveExtension)
            return;
        if (ListContains(upgrader_.defaultAttendants, name) && !isLiveAttendant)
            return;
        if (isLiveExtension || isLiveAttendant) {
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

    /// Gain settings moved away in 3.0.1; the templates keep theirs.
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
        if (name == "dialplan.cfg" && upgrader_.IsVersionBelow("2.4.25"))
            upgrader_.AddSectionIds(livePath, nullptr);
        // The checks of other files use the ports that those of rtp.cfg and sip.cfg find.
        if (name == "rtp.cfg" || name == "sip.cfg")
            upgrader_.mergeList.emplace_front(livePath, defaultPath);
        else
            upgrader_.mergeList.emplace_back(livePath, defaultPath);
        report_ += "\tAdded (" + defaultPath + " & " + livePath + ") " + "to merge list\n";
    }

    /// Old sip.cfg files end without a line end, which made the first entry added behind part of
    /// the last line.
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
    std::vector<files::DirectoryId> walked_;  // of the factory tree, that the walk is in
};

}  // namespace

void ConfigUpgrader::CheckFileSet(const std::string& liveDir, const std::string& defaultDir,
                                  bool checkTemplateDirs) {
    FileSetCheck(*this).Check(liveDir, defaultDir, checkTemplateDirs);
}
