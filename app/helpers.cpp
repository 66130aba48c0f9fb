// What every step uses: opening, saving and copying files with a word to the log, and the shell.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "app/config_upgrader.h"
#include "files/command_copy.h"
#include "files/refusals.h"
#include "store/merge_sections.h"
#include "util/shell.h"

using Configuration::ConfigFile;
using Configuration::MultiSectionFile;

namespace {

template <typename File>
std::unique_ptr<File> OpenOrTrace(ConfigUpgrader& upgrader, const std::string& path,
                                  bool createFlag, bool secondFlag) {
    try {
        auto file = std::make_unique<File>(path, createFlag, secondFlag);
        upgrader.Trace(3, "Open File: %s.\n", path.c_str());
        return file;
    } catch (const std::bad_alloc& error) {
        upgrader.isOutOfMemory = true;
        upgrader.Trace(1, "MINOR ERROR: Invalid file: %s.\n", path.c_str());
        upgrader.TraceReason(error);
    } catch (const std::exception& error) {
        upgrader.TraceInvalidFile(path, error);
    }
    return nullptr;
}

template <typename File>
bool SaveOrTrace(ConfigUpgrader& upgrader, File& file) {
    if (file.Save())
        return true;
    upgrader.TraceUnsaved(file.Path(), file.LastError());
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

void ConfigUpgrader::TraceInvalidFile(const std::string& path, const std::exception& error) {
    TraceInvalidFile(path);
    TraceReason(error);
}

void ConfigUpgrader::TraceReason(const std::exception& error) {
    Tell(Fact::Kind::Unreadable, error);
    const std::string line = Configuration::ReasonLine(error);
    if (!line.empty() && tracedReasons.insert(line).second)
        Trace(1, "%s", line.c_str());
}

void ConfigUpgrader::TraceUnsaved(const std::string& path, const std::string& reason) {
    Trace(1, "MINOR ERROR: Can't save file: %s (%s)\n", path.c_str(), reason.c_str());
    Tell(Fact::Kind::Unsaved, path, reason);
}

bool ConfigUpgrader::MergeKeyedSections(MultiSectionFile* destination, MultiSectionFile* source,
                                        const std::string& keyName, const std::string& idKey) {
    return destination != nullptr && source != nullptr && !keyName.empty() &&
           Configuration::MergeKeyedSections(*destination, *source, keyName, idKey);
}

int ConfigUpgrader::RunShell(const std::string& command) {
    const int result = appliance.runShell(command);
    if (result == -1)  // not even a process for the shell could be had
        files::NoteRefusal(EAGAIN, "Can't run: " + command);
    return result;
}

std::string ConfigUpgrader::RunWithErrorText(const std::string& command) {
    const auto run = [this](const std::string& text) { return RunShell(text); };
    CommandOutcome outcome = RunForErrors(run, command, appliance.lastError);
    lastErrorText = std::move(outcome.errors);
    if (outcome.result == 0)
        return "Success";
    Tell(Fact::Kind::CommandFailed, command, lastErrorText);
    return "Failed: " + ReadLastError();
}

int ConfigUpgrader::CopyWhole(const std::string& options, const std::string& source,
                              const std::string& target) {
    const std::string command = "cp " + options + " " + ShellPath(source) + " ";
    const files::CommandCopy copy = files::CopyBeside(
        [&](const std::string& path) { return RunShell(command + ShellPath(path)); }, source,
        target);
    if (!copy.error.empty() && !ShellFailed(copy.result))  // the step tells of that itself
        TraceUnsaved(target, copy.error);
    return copy.result;
}

bool ConfigUpgrader::CopyFromFactory(const std::string& name) {
    const std::string path = configRoot + name;
    // A bad file stays until the copy takes its place; what cp could not write over goes first.
    // What the disk does not tell of may be a sound file.
    struct stat info {};
    const bool isThere = stat(path.c_str(), &info) == 0;
    if (isThere ? !S_ISREG(info.st_mode) : errno == ENOENT || errno == ELOOP)
        unlink(path.c_str());
    return !ShellFailed(CopyWhole("-p", appliance.factoryTelephony + linesDir + name, path));
}
