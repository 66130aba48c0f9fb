#include "files/replace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "files/attributes.h"
#include "files/file_descriptor.h"
#include "files/look.h"
#include "files/refusals.h"
#include "files/sync.h"

namespace files {

namespace {

/// What a new file is to be like: a file's status and where that file stands.
struct Model {
    struct stat info {};
    std::string path;
};

/// The first of the models, less the rights that any other denies.
std::optional<Model> Joined(const std::vector<std::string>& paths) {
    std::optional<Model> joined;
    for (const std::string& path : paths) {
        struct stat info {};
        if (stat(path.c_str(), &info) != 0)
            continue;
        if (!joined)
            joined = Model{info, path};
        else
            joined->info.st_mode &= info.st_mode | ~static_cast<mode_t>(0777);
    }
    return joined;
}

/// Whose rights a file gets: those of the one that it replaces, unless the models are stricter.
std::optional<Model> RightsFor(const std::optional<Model>& old,
                               const std::vector<std::string>& models) {
    std::optional<Model> joined = Joined(models);
    return old && !(joined && IsOpenToMore(old->info, joined->info)) ? old : joined;
}

/// Writes the bytes into a new file at `path`, with the rights of the model if there is one, and
/// what else belongs to the `old` file; durably, unless that is left for later.
std::string WriteTemporary(const std::string& path, const std::optional<Model>& model,
                           const std::optional<Model>& old, std::string_view bytes) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
    // Until the access list stands, the mode's group bits would say too much.
    const mode_t mode = model ? S_IRUSR | S_IWUSR : 0666;
    FileDescriptor file(open(path.c_str(), flags, mode));
    if (!file.IsOpen() && errno == EEXIST && unlink(path.c_str()) == 0)  // a killed run's
        file = FileDescriptor(open(path.c_str(), flags, mode));
    if (!file.IsOpen())
        return NotedReason("can't create the new file");
    std::string error = model ? KeepRights(file.Get(), model->info, model->path) : "";
    if (error.empty() && !WriteAll(file.Get(), bytes))
        error = NotedReason("can't write");
    if (error.empty() && old)
        error = KeepExtended(file.Get(), old->path);
    if (!error.empty())
        return error;
    if (SyncLater::Living() == nullptr && fsync(file.Get()) != 0)
        return NotedReason("can't sync");
    if (!file.Close())
        return NotedReason("can't close");
    return {};
}

}  // namespace

std::string BehindLinks(std::string path) {
    for (int depth = 0; depth < 40; ++depth) {
        const auto target = LinkTarget(path);
        if (!target) {
            if (errno == EINVAL || errno == ENOENT)
                return path;
            const int error = errno;
            NoteRefusal(error);
            errno = error;
            return {};
        }
        const std::size_t slash = path.rfind('/');
        const bool relative = !target->starts_with('/');
        path = (relative && slash != std::string::npos ? path.substr(0, slash + 1) : "") + *target;
    }
    errno = ELOOP;
    return {};
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

bool WriteAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool PutInPlace(const std::string& temporary, const std::string& path) {
    const auto exchange = [&] {
        return renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0;
    };
    // ext4 starts to write a file when a rename puts it in another's place, so that a file saved by
    // five steps would wear the flash five times. One that has changed places and is removed before
    // the sync is never written.
    if (SyncLater::Living() != nullptr && exchange()) {
        if (unlink(temporary.c_str()) == 0)
            return true;
        if (!exchange())
            return false;
    }
    return std::rename(temporary.c_str(), path.c_str()) == 0;
}

std::string ReplaceFile(const std::string& path, std::string_view bytes,
                        const std::optional<Standing>& known,
                        const std::vector<std::string>& models) {
    std::string target = path;
    struct stat old {};
    bool exists = false;
    if (known) {
        exists = known->exists;
        old = known->info;
    } else {
        exists = lstat(path.c_str(), &old) == 0;
    }
    if (exists && S_ISLNK(old.st_mode)) {
        target = BehindLinks(path);
        if (target.empty())
            return NotedReason("can't follow the link");
        exists = stat(target.c_str(), &old) == 0;
    }
    if (!exists && !known && errno != ENOENT)
        return NotedReason("can't read the old file");
    if (exists && !S_ISREG(old.st_mode))
        return "the old file is not a regular file";

    // The directory is opened before the rename, so that a permission that is missing is found out
    // while the old file still stands.
    const std::string parent = DirectoryOf(target);
    SyncLater* const later = SyncLater::Living();
    const FileDescriptor directory = later != nullptr ? FileDescriptor(-1) : OpenDirectory(parent);
    if (later != nullptr ? !later->NoteChange(parent) : !directory.IsOpen())
        return NotedReason("can't open the directory");
    const std::string temporary = TemporaryFor(target);
    const auto replaced = exists ? std::optional(Model{old, target}) : std::nullopt;
    std::string error = WriteTemporary(temporary, RightsFor(replaced, models), replaced, bytes);
    if (error.empty() && !PutInPlace(temporary, target))
        error = NotedReason("can't rename the new file");
    if (!error.empty()) {
        unlink(temporary.c_str());
        return error;
    }
    // Some file systems cannot sync a directory and say EINVAL: nothing more can be done there.
    if (directory.IsOpen() && fsync(directory.Get()) != 0 && errno != EINVAL)
        return NotedReason("can't sync the directory");
    return {};
}

bool MakeDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0777) == 0)
        return true;
    const int error = errno;
    NoteRefusal(error);
    errno = error;
    return false;
}

bool MakeOpenDirectory(const std::string& path) {
    const mode_t mask = umask(0);
    const bool made = MakeDirectory(path);
    const int error = errno;
    umask(mask);
    errno = error;
    return made;
}

}  // namespace files
