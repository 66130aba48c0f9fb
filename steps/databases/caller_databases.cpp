// Hands the queued files to the per-file checks, and numbers the records of the caller databases.

#include <algorithm>

#include "app/config_upgrader.h"
#include "platform/file_utility.h"
#include "util/numbers.h"

using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

constexpr const char* callerDatabases[] = {"patterndb",   "blockedinnumsdb", "blockedoutnumsdb",
                                           "anonymousdb", "distringdb",      "forwardlistdb",
                                           "huntdb",      "manyextringdb",   "externaluserdb",
                                           "speedcalldb", "autologindb"};

}  // namespace

void ConfigUpgrader::ProcessMergeList() {
    for (const auto& files : mergeList)
        CheckConfigFile(files);
    if (IsVersionBelow("2.3.6"))
        CheckCallerDatabases(configRoot, "");
    else if (IsVersionBelow("3.1.0"))
        AddSectionIds(configRoot + "autologindb", nullptr);
}

void ConfigUpgrader::CheckCallerDatabases(const std::string& dir, const std::string& name) {
    std::string path = dir;
    FileUtility::AdjustPath(path, '/');
    path += name;
    if (CorrectPath(path)) {
        const auto listing = ListDirectory(path);
        // Each directory once, so that links that lead back end.
        if (!listing || !callerDirectories.insert(listing->id).second)
            return;
        for (const std::string& entry : listing->names)
            CheckCallerDatabases(path, entry);
        return;
    }
    if (!FileExist(path) || std::find(std::begin(callerDatabases), std::end(callerDatabases),
                                      name) == std::end(callerDatabases))
        return;
    try {
        MultiSectionFile file(path);
        if (IsVersionBelow("2.3.1"))
            CheckCallerTypes(file, name);
        AddSectionIds(path, &file);
    } catch (const FileError&) {
        TraceInvalidFile(path);
    }
}

void ConfigUpgrader::AddSectionIds(const std::string& path, MultiSectionFile* file) {
    SectionFile own;
    if (file == nullptr) {
        if (!FileExist(path)) {
            report += "\tFile: " + path + " not found to add section IDs\n";
            return;
        }
        try {
            own = std::make_unique<MultiSectionFile>(path);
        } catch (const FileError&) {
            TraceInvalidFile(path);
            return;
        }
        file = own.get();
    }
    int id = 1;
    for (file->Restart(); file->GotoNextSection(); ++id) {
        report += "\tAdding sections id " + NumberToString(id) + " to file " + path + "\n";
        file->SetSectionEntry("section_id", NumberToString(id));
    }
    Save(*file);
}
