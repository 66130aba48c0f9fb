// Hands the queued files to the per-file checks, and numbers the records of the caller databases.

#include <set>

#include "app/config_upgrader.h"
#include "files/look.h"
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
    factoryFiles.clear();
    // The walk numbers autologindb as well. From 2.3.6 on it is the only one without numbers.
    if (IsVersionBelow("2.3.6"))
        CheckCallerDatabases(configRoot, "");
    else if (IsVersionBelow("3.1.0"))
        AddSectionIds(configRoot + "autologindb", nullptr);
}

namespace {

/// The walk over a tree's caller databases. Its directories do not leave the configuration root: a
/// link to one may lead to backups or factory files, where nothing is ours to number. Only an
/// extension's or attendant's own directory may lie elsewhere.
class CallerDatabaseWalk {
public:
    explicit CallerDatabaseWalk(ConfigUpgrader& upgrader)
        : upgrader_(upgrader), root_(files::RealPath(upgrader.configRoot)) {}

    void Visit(const std::string& dir, const files::DirectoryEntry& entry) {
        std::string path = dir;
        FileUtility::AdjustPath(path, '/');
        path += entry.name;
        // What the directory lists as a file or directory is no link, and needs no second look.
        if (files::KindOf(dir, entry) != files::Kind::Directory) {
            const bool isListed = entry.type == files::DirectoryEntry::Type::File;
            if (IsOneOf(callerDatabases, entry.name) && (isListed || FileExist(path)))
                Number(path, entry.name);
            return;
        }
        // A recovery copy may stand in the tree itself, and has to stay as it is.
        const std::string real = files::RealPath(path);
        const bool isListed = entry.type == files::DirectoryEntry::Type::Directory;
        if (!upgrader_.recovery.Holds(real) && (isListed || IsOurs(path, entry.name, real)))
            VisitAll(path);
    }

    void VisitAll(const std::string& path) {
        const auto listing = files::ListDirectory(path);
        // Each directory once, so that links that lead back end.
        if (!listing || !visited_.insert(listing->id).second)
            return;
        for (const files::DirectoryEntry& entry : listing->entries)
            Visit(path, entry);
    }

private:
    /// Whether a directory that may be behind a link is one of the tree's.
    bool IsOurs(const std::string& path, const std::string& name, const std::string& real) const {
        return files::IsWithin(real, root_) || (path == upgrader_.configRoot + name &&
                                                (ListContains(upgrader_.liveExtensions, name) ||
                                                 ListContains(upgrader_.liveAttendants, name)));
    }

    void Number(const std::string& path, const std::string& name) {
        try {
            MultiSectionFile file(path);
            if (upgrader_.IsVersionBelow("2.3.1"))
                upgrader_.CheckCallerTypes(file, name);
            upgrader_.AddSectionIds(path, &file);  // which saves the types, too
        } catch (const FileError& error) {
            upgrader_.TraceInvalidFile(path, error);
        }
    }

    ConfigUpgrader& upgrader_;
    std::string root_;
    std::set<files::DirectoryId> visited_;
};

}  // namespace

void ConfigUpgrader::CheckCallerDatabases(const std::string& dir, const std::string& name) {
    CallerDatabaseWalk walk(*this);
    if (name.empty())
        walk.VisitAll(dir);
    else
        walk.Visit(dir, {name, files::DirectoryEntry::Type::Unknown});
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
        } catch (const FileError& error) {
            TraceInvalidFile(path, error);
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
