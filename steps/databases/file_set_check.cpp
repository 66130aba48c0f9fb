// Makes the live directory complete: what the factory tree has and the live tree lacks is copied,
// what exists on both sides is queued for the per-file checks.

#include <unistd.h>

#include <algorithm>

#include "app/config_upgrader.h"
#include "platform/file_utility.h"
#include "store/file_io.h"
#include "util/directory.h"
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

template <std::size_t N>
bool IsOneOf(const char* const (&names)[N], const std::string& name) {
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool Contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

bool IsDeviceTypePart(const std::string& name) {
    return std::any_of(std::begin(deviceTypeDirs), std::end(deviceTypeDirs),
                       [&](const char* dir) { return Contains(dir, name.c_str()); });
}

bool StartsWith(const std::string& text, const char* start) {
    return text.rfind(start, 0) == 0;
}

/// A device directory whose files are laid over the live top level: one of a family with several
/// line counts, and inside the device path.
bool IsDeviceSubTree(const std::string& name, const std::string& linesDir) {
    const bool family = StartsWith(name, "tesserarpl") || StartsWith(name, "petitrpl") ||
                        StartsWith(name, "02-lines") || StartsWith(name, "26-lines");
    return family && linesDir.find(name) != std::string::npos;
}

/// The device directory itself: `linesDir` without its "/" begins the name.
bool IsDeviceDir(const std::string& name, const std::string& linesDir) {
    return !linesDir.empty() &&
           name.compare(0, linesDir.size() - 1, linesDir, 0, linesDir.size() - 1) == 0;
}

}  // namespace

/// Puts a command's success word directly behind the message before it.
void ConfigUpgrader::ReportCommand(int result) {
    report += ShellFailed(result) ? "- Failed!!!!\n" : "- Done!\n";
}

void ConfigUpgrader::CheckFileSet(const std::string& liveDir, const std::string& defaultDir,
                                  bool checkTemplateDirs) {
    report += "\t====entering...\n";
    const auto listing = ListDirectory(defaultDir);
    // A link of the factory tree that leads back into it must not send the walk in circles.
    if (listing && std::find(walkedDirectories.begin(), walkedDirectories.end(), listing->id) ==
                       walkedDirectories.end()) {
        walkedDirectories.push_back(listing->id);
        for (const std::string& name : listing->names) {
            // An up-to-date start does little else: one look at each file.
            const std::string path = defaultDir + name;
            const FileUtility::Kind kind = FileUtility::KindOf(path);
            if (kind == FileUtility::Kind::Directory)
                CheckDirectory(name, liveDir, path);
            else
                CheckFile(name, liveDir, path, kind != FileUtility::Kind::Missing);
        }
        walkedDirectories.pop_back();
    }
    if (checkTemplateDirs) {
        report += "\n\n\tChecking non-default extensions dirs.\n\n ";
        CheckTemplate(liveExtensions, liveDir, defaultDir + "default" + "/");
        report += "\n\n\tChecking non-default attendants dirs.\n\n ";
        CheckTemplate(liveAttendants, liveDir, defaultDir + "defatt" + "/");
    }
    report += "\t====exiting...\n";
}

void ConfigUpgrader::CheckTemplate(const NameList& names, const std::string& liveDir,
                                   const std::string& templateDir) {
    for (const std::string& name : names) {
        CheckFileSet(liveDir + name + "/", templateDir, false);
        FlushReport();
    }
}

/// A directory of the factory tree: walk into it, lay it over the live top level when it is this
/// device's, or make it when the live tree lacks it.
void ConfigUpgrader::CheckDirectory(const std::string& name, const std::string& liveDir,
                                    std::string defaultPath) {
    if (IsDeviceSubTree(name, linesDir)) {
        defaultPath += "/";
        CheckFileSet(liveDir, defaultPath, false);
        FlushReport();
    }
    if (IsDeviceDir(name, linesDir)) {
        defaultPath += "/";
        CheckFileSet(liveDir, defaultPath, true);
        FlushReport();
        return;
    }
    if (CorrectPath(liveDir + name)) {
        CheckFileSet(liveDir + name + "/", defaultPath + "/", false);
        FlushReport();
        return;
    }
    if (IsDeviceTypePart(name))
        return;

    const bool isLiveExtension = ListContains(liveExtensions, name);
    const bool isLiveAttendant = ListContains(liveAttendants, name);
    if (ListContains(defaultExtensions, name) && !isLiveExtension)
        return;
    if (ListContains(defaultAttendants, name) && !isLiveAttendant)
        return;
    if (isLiveExtension || isLiveAttendant) {
        report += "\tdir  " + name + " is created for extension " + name;
        ReportCommand(RunShell("mkdir " + ShellPath(liveDir + "/" + name)));
    } else {
        report += "\tdir  " + name + " is copied from default-conf ";
        ReportCommand(CopyWhole("-p -r", defaultPath, liveDir + name));
    }
}

/// A file of the factory tree: refresh it, queue it for the per-file checks, remove it, or copy it
/// when the live tree lacks it.
void ConfigUpgrader::CheckFile(const std::string& name, const std::string& liveDir,
                               const std::string& defaultPath, bool isInDefault) {
    const std::string livePath = liveDir + name;
    if (isInDefault) {
        const bool exists = FileExist(livePath);
        if (exists && !upToDate && IsObsolete(name, liveDir)) {
            FileUtility::RemoveFile(livePath);
            report += "\tRemoving file " + livePath + "\n";
            return;
        }
        if (!exists || (!upToDate && IsRefreshed(name))) {
            if (PathInList(liveExtensions, livePath) || PathInList(liveAttendants, livePath)) {
                report += "\tfile  " + livePath + " is belong to extension, skipped copying.\n ";
                return;
            }
            FileUtility::RemoveSpecialFile(livePath);
            report += "\tfile " + name + " is copied from default-conf ";
            ReportCommand(CopyWhole("-p -r", defaultPath, livePath));
        } else if (!upToDate && !IsOneOf(neverMerged, name) && !Contains(name, "supservices_")) {
            QueueForMerge(name, livePath, defaultPath);
        }
    }
    if (name == "sip.cfg" && IsVersionBelow("2.3.9"))
        EndSipFile(livePath);
}

bool ConfigUpgrader::IsRefreshed(const std::string& name) const {
    return IsOneOf(refreshedFiles, name) || (name == "gaincontrol.cfg" && IsVersionBelow("2.2.7"));
}

/// Gain settings moved away in 3.0.1; the templates keep theirs.
bool ConfigUpgrader::IsObsolete(const std::string& name, const std::string& liveDir) const {
    return name == "codecgaindb" && IsVersionBelow("3.0.1") && !Contains(liveDir, "default") &&
           !Contains(liveDir, "defatt");
}

void ConfigUpgrader::QueueForMerge(const std::string& name, const std::string& livePath,
                                   const std::string& defaultPath) {
    if (name == "dialplan.cfg" && IsVersionBelow("2.4.25"))
        AddSectionIds(livePath, nullptr);
    // The checks of other files use the ports that those of rtp.cfg and sip.cfg find.
    if (name == "rtp.cfg" || name == "sip.cfg")
        mergeList.emplace_front(livePath, defaultPath);
    else
        mergeList.emplace_back(livePath, defaultPath);
    report += "\tAdded (" + defaultPath + " & " + livePath + ") " + "to merge list\n";
}

/// Old sip.cfg files end without a line end, which made the first entry added behind part of the
/// last line.
void ConfigUpgrader::EndSipFile(const std::string& path) {
    const Configuration::ReadResult file = Configuration::ReadFile(path);
    if (!file.bytes) {
        report += "\n\n\t\tsip.cfg open error!!!\n\n ";
        return;
    }
    const std::string error = Configuration::ReplaceFile(path, *file.bytes + "\n");
    if (!error.empty())
        Trace(1, "MINOR ERROR: Can't save file: %s (%s)\n", path.c_str(), error.c_str());
}
