#include "rehearse/sandbox/sandbox.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <vector>

#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"
#include "rehearse/sandbox/backup.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

using Arguments = std::vector<std::string>;

constexpr const char* programInside = "/rehearse";

// What programs need of this machine's /usr. Its share is not among it: the appliance's is seen.
const std::set<std::string> hostsUsr = {"bin",   "sbin",   "lib",     "lib32",
                                        "lib64", "libx32", "libexec", "local"};
// At the top, what the sandbox makes itself.
const std::set<std::string> ownTops = {"bin",  "sbin",     "lib",     "lib32",  "lib64", "libx32",
                                       "usr",  "proc",     "dev",     "tmp",    "sys",   "scratch",
                                       "tree", "pristine", "oldroot", "newroot"};

void Add(Arguments& arguments, std::initializer_list<std::string> more) {
    arguments.insert(arguments.end(), more);
}

void AddHost(Arguments& arguments) {
    Add(arguments, {"--dir", "/usr"});
    for (const std::string& name : hostsUsr)
        Add(arguments, {"--ro-bind-try", "/usr/" + name, "/usr/" + name});
    for (const std::string name : {"sbin", "lib", "lib32", "lib64", "libx32"}) {
        std::error_code error;
        if (fs::is_symlink("/" + name, error))
            Add(arguments, {"--symlink", fs::read_symlink("/" + name), "/" + name});
        else
            Add(arguments, {"--ro-bind-try", "/" + name, "/" + name});
    }
}

/// This machine's /bin is mostly a link into its /usr, where rtsync cannot be added. So the sandbox
/// gets one of its own, with what scripts call by its full name; all else is found in /usr/bin.
void AddPrograms(Arguments& arguments, const Sandbox& sandbox) {
    Add(arguments, {"--tmpfs", "/bin"});
    for (const std::string name :
         {"awk",   "bash",   "cat",      "chgrp", "chmod", "chown", "cp",     "cut",   "date",
          "dd",    "df",     "echo",     "egrep", "expr",  "false", "find",   "grep",  "gunzip",
          "gzip",  "head",   "hostname", "id",    "kill",  "ln",    "logger", "ls",    "mkdir",
          "mknod", "mktemp", "mv",       "ps",    "pwd",   "rm",    "rmdir",  "sed",   "sh",
          "sleep", "sort",   "stat",     "sync",  "tail",  "tar",   "test",   "touch", "tr",
          "true",  "uname",  "wc",       "xargs", "zcat"})
        Add(arguments, {"--symlink", "/usr/bin/" + name, "/bin/" + name});
    const std::string tool = RealBelow(sandbox.root, "bin/rtsync");
    if (!tool.empty())
        Add(arguments, {"--ro-bind", tool, "/bin/rtsync"});
    Add(arguments, {"--remount-ro", "/bin"});
}

bool IsPlaceForAlternatives(const std::string& root) {
    const fs::file_status place = fs::symlink_status(root + "/etc/alternatives");
    return fs::is_directory(fs::symlink_status(root + "/etc")) &&
           (!fs::exists(place) || fs::is_directory(place));
}

/// The copy's directories at their places, so that a configuration root may lie anywhere in it and
/// links lead where they lead on the appliance.
void AddAppliance(Arguments& arguments, const Sandbox& sandbox) {
    Add(arguments, {"--bind", sandbox.root, treeInside});
    for (const fs::directory_entry& entry : fs::directory_iterator(sandbox.root)) {
        const std::string name = entry.path().filename();
        if (ownTops.contains(name))
            continue;
        if (entry.is_symlink())
            Add(arguments, {"--symlink", fs::read_symlink(entry.path()), "/" + name});
        else if (entry.is_directory())
            Add(arguments, {"--bind", entry.path(), "/" + name});
    }
    const std::string usr = RealBelow(sandbox.root, "usr");
    for (const fs::directory_entry& entry : fs::directory_iterator(usr)) {
        const std::string name = entry.path().filename();
        if ((name == "local" || !hostsUsr.contains(name)) && entry.is_directory() &&
            !entry.is_symlink())
            Add(arguments, {"--bind", entry.path(), "/usr/" + name});
    }
    // Nobody can write to the kernel's files on the appliance either.
    Add(arguments,
        {"--tmpfs", "/proc", "--ro-bind", RealBelow(sandbox.root, "proc/orix"), "/proc/orix"});
    // The links through which Debian chooses between programs. Their place is made in the copy, and
    // must not be made through a link of it.
    if (IsPlaceForAlternatives(sandbox.root))
        Add(arguments, {"--ro-bind-try", "/etc/alternatives", "/etc/alternatives"});
}

Arguments CommandLine(const Sandbox& sandbox, bool isUser) {
    Arguments arguments = {"bwrap"};
    if (isUser)
        Add(arguments, {"--unshare-user", "--uid", "0", "--gid", "0"});
    Add(arguments, {"--unshare-ipc", "--unshare-pid", "--unshare-net", "--unshare-uts",
                    "--unshare-cgroup-try", "--die-with-parent", "--new-session"});
    AddHost(arguments);
    AddPrograms(arguments, sandbox);
    AddAppliance(arguments, sandbox);
    Add(arguments, {"--dev", "/dev", "--perms", "1777", "--tmpfs", "/tmp"});
    Add(arguments, {"--ro-bind", sandbox.pristine, pristineInside});
    Add(arguments, {"--bind", sandbox.scratch, scratchInside, "--chdir", scratchInside});
    Add(arguments, {"--ro-bind", fs::read_symlink("/proc/self/exe"), programInside});
    if (!sandbox.binary.empty())
        Add(arguments, {"--ro-bind", sandbox.binary, binaryInside});
    // A clean environment, so that the ORIX_PATH and the like of the caller play no part.
    Add(arguments, {"--clearenv", "--setenv", "PATH", "/bin:/sbin:/usr/bin:/usr/sbin", "--setenv",
                    "HOME", scratchInside, "--setenv", "LC_ALL", "C"});
#ifdef SETUPMEND_SANITIZED
    // The address sanitizer looks up the bounds of the stack in /proc/self/maps. For leaks it stops
    // the program as a debugger would, which nothing in the sandbox may do.
    Add(arguments, {"--proc", "/sys/proc", "--symlink", "/sys/proc/self", "/proc/self", "--setenv",
                    "ASAN_OPTIONS", "detect_leaks=0"});
#endif
    if (!sandbox.orixPath.empty())
        Add(arguments, {"--setenv", "ORIX_PATH", sandbox.orixPath});
    // The appliance runs the upgrade as root, but a rehearsal needs root's say over files only.
    Add(arguments, {"--cap-drop", "ALL"});
    for (const char* capability : {"CAP_CHOWN", "CAP_DAC_OVERRIDE", "CAP_FOWNER", "CAP_FSETID"})
        Add(arguments, {"--cap-add", capability});
    Add(arguments, {programInside});
    arguments.insert(arguments.end(), sandbox.arguments.begin(), sandbox.arguments.end());
    return arguments;
}

/// Hands on what is said, line by line, until nobody can say anything any more.
void Listen(int file, const std::function<void(const std::string&)>& progress) {
    std::string said;
    for (;;) {
        pollfd waiting{file, POLLIN, 0};
        constexpr int milliseconds = 100;
        if (poll(&waiting, 1, milliseconds) <= 0) {  // nothing said, or a signal
            progress("");
            continue;
        }
        std::array<char, 4096> block{};
        const ssize_t got = read(file, block.data(), block.size());
        if (got < 0 && errno == EINTR) {
            progress("");
            continue;
        }
        if (got <= 0)
            return;
        said.append(block.data(), static_cast<std::size_t>(got));
        for (std::size_t end = 0; (end = said.find('\n')) != std::string::npos;) {
            progress(said.substr(0, end));
            said.erase(0, end + 1);
        }
    }
}

/// Why the sandbox, or what ran in it, did not come to its end.
[[noreturn]] void Explain(const Ended& ended, bool hasBegun, const std::string& console) {
    // bubblewrap passes a signal on as a shell does.
    const int signal = ended.signal != 0 ? ended.signal : std::max(0, ended.status - 128);
    if (hasBegun && signal != 0)
        throw Crash(
            fmt::format("the upgrade was killed by signal {} ({})", signal, strsignal(signal)));
    if (hasBegun) {
        // What commands of the upgrade said before may hold a password.
        const std::string all = ReadAll(console);
        const std::size_t own = all.rfind("setupmend-rehearse: ");
        throw Failure("the rehearsal ended in the sandbox" +
                      (own == std::string::npos ? "" : ": " + all.substr(own)));
    }
    constexpr std::size_t mostWords = 2000;
    const std::string words = ReadAll(console, mostWords);
    throw Failure("no sandbox can be made: " + words +
                  "(the kernel, or the container that this runs in, must let bubblewrap make "
                  "namespaces: user.max_user_namespaces and kernel.unprivileged_userns_clone must "
                  "not be 0, and no profile of AppArmor may forbid them; or run it as root)");
}

}  // namespace

void RunInSandbox(const Sandbox& sandbox, const std::function<void(const std::string&)>& progress) {
    // Real root needs no user namespace, and inside one would lose its hold on files of other
    // owners; but some containers let even root in only through one. Anybody else always needs
    // one, and plays root in it, as on the appliance.
    const std::string console = sandbox.scratch + "/console";
    std::error_code ignored;
    const bool makesAlternatives =
        IsPlaceForAlternatives(sandbox.root) && !fs::exists(sandbox.root + "/etc/alternatives");
    Ended ended;
    bool hasBegun = false;
    for (const bool isUser : {false, true}) {
        if (hasBegun || (!isUser && geteuid() != 0))
            continue;
        fs::remove(console, ignored);
        Pipe pipe;
        ChildPlan plan;
        plan.words = CommandLine(sandbox, isUser);
        plan.output = plan.errors = console;
        plan.handedOn = pipe.Writing();
        plan.package = "bubblewrap";
        Child child(plan);
        pipe.CloseWriting();
        Listen(pipe.Reading(), [&](const std::string& said) {
            hasBegun = hasBegun || !said.empty();
            progress(said);
        });
        ended = child.Wait([&] { progress(""); });
    }
    if (makesAlternatives)  // the place that they were mounted upon
        fs::remove(sandbox.root + "/etc/alternatives", ignored);
    if (!ended.IsGood())
        Explain(ended, hasBegun, console);
}

bool IsOwnTop(const std::string& name) {
    return ownTops.contains(name);
}

bool IsHidden(const std::string& place) {
    const fs::path path = fs::path(place).relative_path().lexically_normal();
    auto part = path.begin();
    if (part == path.end())
        return false;
    if (*part != "usr")
        return ownTops.contains(*part);
    return ++part != path.end() && *part != "local" && hostsUsr.contains(*part);
}

}  // namespace rehearse
