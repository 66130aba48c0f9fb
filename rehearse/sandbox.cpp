#include "rehearse/sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <set>
#include <vector>

#include "rehearse/backup.h"
#include "rehearse/failure.h"
#include "rehearse/inside.h"
#include "rehearse/text_file.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

using Arguments = std::vector<std::string>;

constexpr int progressInside = 3;
constexpr const char* programInside = "/rehearse";

// What programs need of this machine's /usr. Its share is not among it: the appliance's is seen.
const std::set<std::string> hostsUsr = {"bin",   "sbin",   "lib",     "lib32",
                                        "lib64", "libx32", "libexec", "local"};
// At the top, what the sandbox makes itself.
const std::set<std::string> ownTops = {"bin",    "sbin",    "lib",  "lib32",   "lib64",
                                       "libx32", "usr",     "proc", "dev",     "tmp",
                                       "sys",    "scratch", "tree", "oldroot", "newroot"};

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
    Add(arguments, {"--bind", sandbox.scratch, scratchInside, "--chdir", scratchInside});
    Add(arguments, {"--ro-bind", fs::read_symlink("/proc/self/exe"), programInside});
    if (!sandbox.binary.empty())
        Add(arguments, {"--ro-bind", sandbox.binary, binaryInside});
    // A clean environment, so that the ORIX_PATH and the like of the caller play no part.
    Add(arguments, {"--clearenv", "--setenv", "PATH", "/bin:/sbin:/usr/bin:/usr/sbin", "--setenv",
                    "HOME", scratchInside, "--setenv", "LC_ALL", "C"});
    if (!sandbox.orixPath.empty())
        Add(arguments, {"--setenv", "ORIX_PATH", sandbox.orixPath});
    // The appliance runs the upgrade as root, but a rehearsal needs root's say over files only.
    Add(arguments, {"--cap-drop", "ALL"});
    for (const char* capability : {"CAP_CHOWN", "CAP_DAC_OVERRIDE", "CAP_FOWNER", "CAP_FSETID"})
        Add(arguments, {"--cap-add", capability});
    Add(arguments, {programInside, "--inside", std::to_string(progressInside)});
    if (!sandbox.binary.empty())
        Add(arguments, {"--binary", binaryInside});
    if (sandbox.keepsTree)
        Add(arguments, {"--apply", upgradedInside});
    Add(arguments, {"--", treeInside});
    if (!sandbox.configRoot.empty())
        Add(arguments, {sandbox.configRoot});
    return arguments;
}

struct Pipe {
    std::array<int, 2> ends{-1, -1};
    Pipe() {
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            throw Failure("no pipe: " + std::string(std::strerror(errno)));
    }
    ~Pipe() {
        CloseWriting();
        close(ends[0]);
    }
    void CloseWriting() {
        if (ends[1] >= 0)
            close(ends[1]);
        ends[1] = -1;
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
};

/// The child that bubblewrap is, killed with all that runs in it when nobody waits for it any more.
class Child {
public:
    Child(const Arguments& arguments, int progress, const std::string& console) {
        std::vector<char*> words;
        words.reserve(arguments.size() + 1);
        for (const std::string& argument : arguments)
            words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        child_ = fork();
        if (child_ == 0) {
            const int out = open(console.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
            const int in = open("/dev/null", O_RDONLY);
            dup2(progress, progressInside);
            dup2(in, STDIN_FILENO);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execvp(words[0], words.data());
            const int error = errno;
            dprintf(STDERR_FILENO, "%s\n", std::strerror(error));
            _exit(error == ENOENT ? 127 : 126);
        }
        if (child_ < 0)
            throw Failure("no process: " + std::string(std::strerror(errno)));
    }
    ~Child() {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    int Wait() {
        int status = 0;
        while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
        }
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t child_ = -1;
};

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

}  // namespace

void RunInSandbox(const Sandbox& sandbox, const std::function<void(const std::string&)>& progress) {
    // Real root needs no user namespace, and inside one would lose its hold on files of other
    // owners; but some containers let even root in only through one. Anybody else always needs
    // one, and plays root in it, as on the appliance.
    const std::string console = sandbox.scratch + "/console";
    std::error_code ignored;
    const bool makesAlternatives =
        IsPlaceForAlternatives(sandbox.root) && !fs::exists(sandbox.root + "/etc/alternatives");
    int status = 0;
    for (const bool isUser : {false, true}) {
        if (!isUser && geteuid() != 0)
            continue;
        Pipe pipe;
        bool hasBegun = false;
        Child child(CommandLine(sandbox, isUser), pipe.ends[1], console);
        pipe.CloseWriting();
        Listen(pipe.ends[0], [&](const std::string& said) {
            hasBegun = hasBegun || !said.empty();
            progress(said);
        });
        status = child.Wait();
        if (hasBegun)
            break;
    }
    if (makesAlternatives)  // the place that they were mounted upon
        fs::remove(sandbox.root + "/etc/alternatives", ignored);
    if (status == 127)
        throw Failure("bubblewrap is missing; install it as root with: apt-get install bubblewrap");
    if (status == 0)
        return;
    constexpr std::size_t mostWords = 2000;
    const std::string words = ReadAll(console, mostWords);
    throw Failure(status > 128 ? fmt::format("the upgrade was killed by signal {}", status - 128)
                               : "the upgrade could not be run: " + words);
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
