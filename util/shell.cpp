#include "util/shell.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "files/file_descriptor.h"
#include "files/remove.h"
#include "platform/string_utils.h"

using files::FileDescriptor;

namespace {

/// Creates the error file anew. A try is lost when somebody puts something under its name between
/// the removal and the creation; without a file the errors are not known.
FileDescriptor CreateErrorFile(const std::string& path) {
    constexpr int tries = 100;
    FileDescriptor file(-1);
    for (int i = 0; i < tries && !file.IsOpen(); ++i) {
        files::RemoveTree(path);
        file = FileDescriptor(
            open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.IsOpen() && errno != EEXIST)
            break;
    }
    return file;
}

/// While one lives, standard error goes to another file, that of the commands too.
class StandardErrorIn {
public:
    explicit StandardErrorIn(const FileDescriptor& file)
        : kept_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        if (file.IsOpen())
            dup2(file.Get(), STDERR_FILENO);
    }
    ~StandardErrorIn() {
        if (!kept_.IsOpen() || dup2(kept_.Get(), STDERR_FILENO) < 0)
            close(STDERR_FILENO);  // it was closed before, too
    }
    StandardErrorIn(const StandardErrorIn&) = delete;
    StandardErrorIn& operator=(const StandardErrorIn&) = delete;

private:
    FileDescriptor kept_;
};

}  // namespace

std::string ShellPath(const std::string& path) {
    const std::string text = (path.starts_with('-') ? "./" : "") + path;
    constexpr const char* plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.,:=@%+-/";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos)
        return text;
    return "'" + StringUtils::ReplaceString(text, "'", "'\\''", 0) + "'";
}

bool ShellFailed(int result) {
    return result == -1 || result == 127;
}

void PrepareForCommands() {
    umask(umask(0) & 077);
    const char* path = std::getenv("PATH");
    if (path == nullptr)
        return;  // the shell has a list of its own
    std::string absolute;
    for (const std::string& directory : StringUtils::ParseCommaLine(path, ':'))
        if (directory.starts_with('/'))
            absolute += (absolute.empty() ? "" : ":") + directory;
    // An empty list would be the current directory.
    setenv("PATH", absolute.empty() ? "/usr/sbin:/usr/bin:/sbin:/bin" : absolute.c_str(), 1);
}

CommandOutcome RunForErrors(const ShellRunner& run, const std::string& command,
                            const std::string& errorFile) {
    constexpr std::size_t mostBytes = 3000;
    const FileDescriptor file = CreateErrorFile(errorFile);
    CommandOutcome outcome;
    {
        const StandardErrorIn redirected(file);
        outcome.result = run(command);
    }
    if (!file.IsOpen())
        return outcome;
    // From the descriptor: by now the name may be somebody else's.
    std::string errors(mostBytes, '\0');
    const ssize_t got = pread(file.Get(), errors.data(), errors.size(), 0);
    errors.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    outcome.errors = errors.substr(0, errors.find('\0'));
    unlink(errorFile.c_str());
    return outcome;
}
