// Opening, closing, saving, copying and merging configuration files for the steps.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_set>

#include "app/config_upgrader.h"
#include "platform/disk_failures.h"
#include "platform/file_utility.h"
#include "store/file_io.h"
#include "store/tree_mirror.h"
#include "util/numbers.h"
#include "util/shell.h"

using Configuration::ConfigFile;
using Configuration::MultiSectionFile;

namespace {

template <typename File>
std::unique_ptr<File> OpenOrTrace(ConfigUpgrader& upgrader, const std::string& path,
                                  bool createFlag, bool secondFlag) {
    try {
        auto file = std::make_unique<File>(path, createFlag, secondFlag, false);
        upgrader.Trace(3, "Open File: %s.\n", path.c_str());
        return file;
    } catch (const std::bad_alloc&) {
        CountDiskFailure(ENOMEM, path);
        upgrader.Trace(1, "MINOR ERROR: Invalid file: %s.\n", path.c_str());
    } catch (const std::exception&) {
        upgrader.TraceInvalidFile(path);
    }
    return nullptr;
}

template <typename File>
bool SaveOrTrace(ConfigUpgrader& upgrader, File& file) {
    if (file.Save(true, nullptr))
        return true;
    upgrader.Trace(1, "MINOR ERROR: Can't save file: %s (%s)\n", file.Path().c_str(),
                   file.LastError().c_str());
    return false;
}

}  // namespace

SectionFile ConfigUpgrader::OpenSectionFile(const std::string& path, bool createFlag) {
    return OpenOrTrace<MultiSectionFile>(*this, path, createFlag, false);
}

FlatFile ConfigUpgrader::OpenFlatFile(const std::string& path, bool createFlag, bool secondFlag) {
    return OpenOrTrace<ConfigFile>(*this, path, createFlag, secondFlag);
}

bool ConfigUpgrader::Save(MultiSectionFile& file) {
    return SaveOrTrace(*this, file);
}

bool ConfigUpgrader::Save(ConfigFile& file) {
    return SaveOrTrace(*this, file);
}

void ConfigUpgrader::TraceInvalidFile(const std::string& path) {
    Trace(1, "MINOR ERROR: Invalid file: %s\n", path.c_str());
}

int ConfigUpgrader::RunShell(const std::string& command) {
    const int result = appliance.runShell(command);
    if (result == -1)
        CountDiskFailure(EAGAIN, command);
    return result;
}

std::string ConfigUpgrader::ReadLastError() const {
    return ReadErrorFile(appliance.lastError);
}

int ConfigUpgrader::CopyWhole(const std::string& options, const std::string& source,
                              const std::string& target) {
    const std::string command = "cp " + options + " " + ShellPath(source) + " ";
    // A link that leads nowhere is cp's to refuse.
    const std::string place = Configuration::BehindLinks(target);
    if (place.empty() || (FileUtility::IsThere(target) && !FileExist(target)))
        return RunShell(command + ShellPath(target));
    const std::string temporary = place + Configuration::temporarySuffix;
    FileUtility::RemoveDirOrFile(temporary);
    const int result = RunShell(command + ShellPath(temporary));
    if (!FileUtility::IsThere(temporary)) {
        if (!ShellFailed(result) && FileExist(source)) {
            CountDiskFailure(EIO);
            Trace(1, "MINOR ERROR: Can't save file: %s (cp failed)\n", target.c_str());
        }
        return result;
    }
    std::string error = Configuration::CompleteCopy(source, temporary);
    // Where there is a copy to begin again from, one sync at the end of the upgrade is enough.
    if (error.empty() && !hasRecoveryCopy && !FileUtility::SyncFileSystem(configRoot))
        error = std::string("can't sync: ") + std::strerror(errno);
    if (error.empty() && std::rename(temporary.c_str(), place.c_str()) != 0)
        error = std::string("can't rename the new file: ") + std::strerror(errno);
    if (!error.empty()) {
        CountDiskFailure(errno);
        FileUtility::RemoveDirOrFile(temporary);
        Trace(1, "MINOR ERROR: Can't save file: %s (%s)\n", target.c_str(), error.c_str());
    }
    return result;
}

bool ConfigUpgrader::MergeKeyedSections(MultiSectionFile* destination, MultiSectionFile* source,
                                        const std::string& keyName, const std::string& idKey) {
    if (destination == nullptr || source == nullptr || keyName.empty())
        return false;
    // One walk over the destination; what is added below is added here as well.
    std::unordered_set<std::string> known;
    long largestId = 0;
    const auto note = [&] {
        if (const auto key = destination->GetSectionEntry(keyName))
            known.insert(*key);
        const std::string id = destination->GetSectionEntry(idKey).value_or("");
        largestId = std::max(largestId, std::strtol(id.c_str(), nullptr, 10));
    };
    for (destination->Restart(); destination->GotoNextSection();)
        note();

    bool added = false;
    for (source->Restart(); source->GotoNextSection();) {
        if (!source->SectionName().empty())
            continue;
        const auto key = source->GetSectionEntry(keyName);
        if (!key || known.contains(*key))  // without a key it cannot be told from another
            continue;
        destination->AddSection(false);
        for (const Configuration::Entry& entry : source->SectionEntries())
            destination->SetSectionEntry(entry.key, entry.value);
        // In 32 bits, so that an identifier at the type's end wraps alike on every machine.
        if (!idKey.empty())
            destination->SetSectionEntry(idKey, NumberToString(static_cast<std::int32_t>(
                                                    static_cast<std::uint32_t>(largestId) + 1)));
        note();
        added = true;
    }
    return added;
}
