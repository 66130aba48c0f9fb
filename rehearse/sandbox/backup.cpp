#include "rehearse/sandbox/backup.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <memory>

#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::uint64_t FreeAt(const std::string& path) {
    struct statvfs info {};
    if (statvfs(path.c_str(), &info) != 0 || access(path.c_str(), W_OK) != 0)
        return 0;
    return static_cast<std::uint64_t>(info.f_bavail) * info.f_frsize;
}

/// cp knows all that a tree can hold, holes in files too.
void CopyDirectory(const std::string& tree, const std::string& copy,
                   const std::function<void()>& goOn) {
    const std::string errors = copy + ".errors";
    ChildPlan plan;
    // A link that is named would be copied as one, and lead back to TREE.
    plan.words = {"cp", "-a", "--sparse=auto", "--", fs::canonical(tree), copy};
    plan.errors = errors;
    const bool isCopied = Child(plan).Wait(goOn).IsGood();
    constexpr std::size_t most = 500;
    const std::string said = ReadAll(errors, most);
    unlink(errors.c_str());
    if (!isCopied)
        throw Failure("cannot copy " + tree + ": " + said.substr(0, said.find('\n')));
}

struct FreeArchive {
    void operator()(archive* handle) const { archive_free(handle); }
};
using Archive = std::unique_ptr<archive, FreeArchive>;

[[noreturn]] void Refuse(const std::string& tree, archive* handle) {
    const char* text = archive_error_string(handle);
    throw Failure(tree + ": " + (text != nullptr ? text : "cannot be unpacked"));
}

Archive OpenArchive(const std::string& tree) {
    Archive from(archive_read_new());
    archive_read_support_format_tar(from.get());
    archive_read_support_filter_all(from.get());
    constexpr std::size_t block = 65536;
    if (archive_read_open_filename(from.get(), tree.c_str(), block) != ARCHIVE_OK)
        Refuse(tree, from.get());
    return from;
}

/// A name in an archive, below the copy; the copy itself for its top. An absolute one is taken as
/// tar takes it.
std::string Below(const std::string& copy, const char* name) {
    const std::string text =
        fs::path(name != nullptr ? name : "").relative_path().lexically_normal();
    return text.empty() || text == "." || text == "./" ? copy : copy + "/" + text;
}

void Unpack(const std::string& tree, const std::string& copy, const std::function<void()>& goOn) {
    const Archive from = OpenArchive(tree);
    const Archive to(archive_write_disk_new());
    // An archive may be anybody's: nothing of it leads out of the copy.
    int flags = ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                ARCHIVE_EXTRACT_SECURE_NODOTDOT;
    if (geteuid() == 0)
        flags |= ARCHIVE_EXTRACT_OWNER;
    archive_write_disk_set_options(to.get(), flags);
    archive_write_disk_set_standard_lookup(to.get());
    archive_entry* entry = nullptr;
    int result = ARCHIVE_OK;
    while ((result = archive_read_next_header(from.get(), &entry)) == ARCHIVE_OK) {
        goOn();
        const auto type = archive_entry_filetype(entry);
        if (type == AE_IFCHR || type == AE_IFBLK)
            continue;  // a device holds no settings
        const std::string path = Below(copy, archive_entry_pathname(entry));
        if (path == copy && type != AE_IFDIR)
            throw Failure(tree + ": its top is no directory");
        archive_entry_set_pathname(entry, path.c_str());
        if (const char* link = archive_entry_hardlink(entry))
            archive_entry_set_hardlink(entry, Below(copy, link).c_str());
        if (archive_read_extract2(from.get(), entry, to.get()) != ARCHIVE_OK)
            Refuse(tree, from.get());
    }
    // Modes and times of directories are set at the end.
    if (result != ARCHIVE_EOF)
        Refuse(tree, from.get());
    if (archive_write_close(to.get()) != ARCHIVE_OK)
        Refuse(tree, to.get());
}

bool HoldsConfiguration(const std::string& root) {
    return !RealBelow(root, "etc/default-conf").empty() ||
           !RealBelow(root, "etc/orix-conf").empty();
}

}  // namespace

Workspace::Workspace(std::uint64_t need) {
    const char* set = std::getenv("TMPDIR");
    std::string base = set != nullptr && *set != '\0' ? set : "/tmp";
    if (base == "/tmp" && FreeAt("/dev/shm") > need)  // GNU parallel sets it so by itself
        base = "/dev/shm";
    path_ = base + "/rehearse.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr)
        throw Failure("cannot make a directory in " + base + ": " + std::strerror(errno) +
                      "; TMPDIR names another place to work in");
    path_ = fs::canonical(path_);
}

bool Workspace::IsFull() const {
    constexpr std::uint64_t little = 256 << 10;
    return FreeAt(path_) < little;
}

Workspace::~Workspace() {
    std::error_code error;
    // A tree may hold directories that only root could empty as they are.
    for (auto entry = fs::recursive_directory_iterator(
             path_, fs::directory_options::skip_permission_denied, error);
         entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_directory(ignored) && !entry->is_symlink(ignored))
            fs::permissions(entry->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(path_, error);
}

std::uint64_t SizeOf(const std::string& tree) {
    constexpr std::uint64_t factor = 10;  // of a well packed archive
    std::error_code error;
    if (!IsDirectory(tree)) {
        const auto size = fs::file_size(tree, error);
        return error ? 0 : size * factor;
    }
    std::uint64_t size = 0;
    for (auto entry = fs::recursive_directory_iterator(
             tree, fs::directory_options::skip_permission_denied, error);
         entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        struct stat info {};  // what it takes, not how long it is
        if (lstat(entry->path().c_str(), &info) == 0 && S_ISREG(info.st_mode))
            size += static_cast<std::uint64_t>(info.st_blocks) * 512;
    }
    return size;
}

void CopyBackup(const std::string& tree, const std::string& copy,
                const std::function<void()>& goOn) {
    if (IsDirectory(tree)) {
        CopyDirectory(tree, copy, goOn);
    } else if (!fs::is_regular_file(tree)) {
        throw Failure(tree + " is neither a directory nor an archive");
    } else {
        if (mkdir(copy.c_str(), S_IRWXU) != 0)
            throw Failure("cannot make " + copy + ": " + std::strerror(errno));
        Unpack(tree, copy, goOn);
    }
    // All that is changed from here on must be the copy's.
    if (!fs::is_directory(fs::symlink_status(copy)))
        throw Failure(tree + ": its top is no directory");
    // Its top must be writable by us, or nothing could be added to it.
    fs::permissions(copy, fs::perms::owner_all, fs::perm_options::add);
}

std::string FindRoot(const std::string& copy, const std::string& tree, bool needsFactory) {
    std::string root = copy;
    if (!HoldsConfiguration(root)) {
        std::vector<fs::path> below;
        for (const fs::directory_entry& entry : fs::directory_iterator(copy))
            below.push_back(entry.path());
        if (below.size() == 1 && !fs::is_symlink(below[0]))
            root = below[0];
    }
    if (needsFactory && RealBelow(root, "etc/default-conf/telephony").empty())
        throw Failure(
            tree +
            " has no etc/default-conf/telephony: the new firmware's factory configuration "
            "is missing, and with it what to upgrade to");
    return root;
}

std::string RealBelow(const std::string& root, const std::string& place) {
    const int top = open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    struct open_how how {};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve =
        RESOLVE_IN_ROOT;  // an absolute link is the appliance's, and ".." ends at its root
    const long file = top < 0 ? -1 : syscall(SYS_openat2, top, place.c_str(), &how, sizeof how);
    std::string real;
    if (file >= 0) {
        std::error_code error;
        real = fs::read_symlink(fmt::format("/proc/self/fd/{}", file), error);
        close(static_cast<int>(file));
    }
    if (top >= 0)
        close(top);
    return real;
}

void MakeDirectories(const std::string& root, const std::string& place) {
    for (std::size_t end = 0; end != std::string::npos;) {
        end = place.find('/', end + 1);
        const std::string path = root + "/" + place.substr(0, end);
        struct stat info {};
        if (lstat(path.c_str(), &info) != 0 ? mkdir(path.c_str(), 0755) != 0
                                            : !S_ISDIR(info.st_mode))
            throw Failure("cannot make " + place + " in the copy: something is in its way");
    }
}

std::vector<Lack> CompleteRoot(const std::string& root) {
    static const Lack places[] = {
        {"etc/orix-conf/config_label.txt",
         "the configuration's version is not known: all conversions run, and nothing is stamped"},
        {"etc/default-conf/config_label.txt",
         "the firmware's version is not known: all conversions run, and nothing is stamped"},
        {"proc/orix/hw-info", "the boards of the unit are not known, and are not recorded"},
        {"proc/orix", "the numbers of lines are not known, and the default is taken"},
        {"mnt/bbram", "mailboxes get the shares of an empty storage; recordings are not seen"},
        {"usr/share/regional", "the files of the unit's country are not linked"},
        {"bin/rtsync", "the calls of the appliance's own tool fail"},
    };
    std::vector<Lack> lacks;
    for (const Lack& place : places)
        if (RealBelow(root, place.what).empty())
            lacks.push_back(place);
    for (const char* place : {"proc/orix", "mnt/bbram", "usr/share/regional"})
        if (RealBelow(root, place).empty())
            MakeDirectories(root, place);
    return lacks;
}

}  // namespace rehearse
