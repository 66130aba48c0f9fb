#include "tests/support/refused_calls.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <thread>

namespace {

/// What tells a call: its number, and which bits of an argument are set and which are not.
struct Call {
    const char* name;
    long number;
    unsigned argument = 0;
    unsigned set = 0;
    unsigned clear = 0;
    unsigned above = 0;  // or what the argument is above, if not 0
};

constexpr Call knownCalls[] = {
#ifdef SYS_newfstatat
    {"stat", SYS_newfstatat, 3, 0, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH},
    {"lstat", SYS_newfstatat, 3, AT_SYMLINK_NOFOLLOW, 0},
    {"fstat", SYS_newfstatat, 3, AT_EMPTY_PATH, 0},
    {"fstat", SYS_fstat},
#endif
#ifdef SYS_rename
    {"mkdir", SYS_mkdir},
    {"link", SYS_link},
    {"readlink", SYS_readlink},
    {"rename", SYS_rename},
    {"symlink", SYS_symlink},
    {"unlink", SYS_unlink},
#endif
    {"mkdir", SYS_mkdirat},
    {"link", SYS_linkat},
    {"readlink", SYS_readlinkat},
#ifdef SYS_renameat
    {"rename", SYS_renameat},
#endif
    {"symlink", SYS_symlinkat},
    {"unlink", SYS_unlinkat, 2, 0, AT_REMOVEDIR},
    {"rmdir", SYS_unlinkat, 2, AT_REMOVEDIR, 0},
    {"exchange", SYS_renameat2},
    {"create", SYS_openat, 2, O_CREAT, 0},
    {"open", SYS_openat, 2, 0, O_CREAT | O_DIRECTORY},
    {"open directory", SYS_openat, 2, O_DIRECTORY, 0},
    {"getdents", SYS_getdents64},
    {"read", SYS_read},
    {"write", SYS_write, 0, 0, 0, STDERR_FILENO},  // what a test says is not refused
    {"pwrite", SYS_pwrite64},
    {"fsync", SYS_fsync},
    {"flock", SYS_flock},
    {"sleep", SYS_clock_nanosleep},
    {"syncfs", SYS_syncfs},
    {"fchmod", SYS_fchmod},
    {"fchown", SYS_fchown},
    {"lchown", SYS_fchownat},
#ifdef SYS_lchown
    {"lchown", SYS_lchown},
#endif
    {"utimens", SYS_utimensat},
    {"setxattr", SYS_fsetxattr},
    {"listxattr", SYS_llistxattr},
    {"flistxattr", SYS_flistxattr},
    {"ioctl", SYS_ioctl},
};

sock_filter Statement(unsigned what, std::size_t value) {
    return BPF_STMT(static_cast<unsigned short>(what), static_cast<unsigned>(value));
}

/// Goes on when the value loaded is that one (or above it), else passes over so many statements.
sock_filter GoOnIf(unsigned how, std::size_t value, unsigned char otherwise) {
    return BPF_JUMP(static_cast<unsigned short>(BPF_JMP | BPF_K | how),
                    static_cast<unsigned>(value), 0, otherwise);
}

/// Answers the calls that are asked about: the nth fails, the others go on. In a thread of the
/// child, made before the child has its filter.
class Referee {
public:
    Referee(int nth, int error) : nth_(nth), error_(error) {}

    void Answer() {
        while (listener_ < 0)
            sched_yield();
        for (;;) {
            seccomp_notif call{};
            if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0)
                continue;
            seccomp_notif_resp answer{call.id, 0, 0, SECCOMP_USER_NOTIF_FLAG_CONTINUE};
            if (++count_ == nth_)
                answer = {call.id, 0, -error_, 0};
            ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &answer);
        }
    }
    void Listen(int listener) { listener_ = listener; }
    bool HasRefused() const { return count_ >= nth_; }

private:
    const int nth_;
    const int error_;
    std::atomic<int> listener_ = -1;
    std::atomic<int> count_ = 0;
};

bool Refuse(const std::vector<RefusedCall>& calls, Referee& referee) {
    bool isAsked = false;
    // valgrind makes such calls of its own in the same process.
    if (const char* preloaded = std::getenv("LD_PRELOAD"); preloaded != nullptr)
        if (std::strstr(preloaded, "vgpreload") != nullptr)
            return false;
    std::vector<sock_filter> program;
    for (const RefusedCall& refused : calls)
        for (const Call& call : knownCalls) {
            if (refused.name != call.name)
                continue;
            const std::size_t argument = offsetof(seccomp_data, args) + 8U * call.argument;
            const bool isMasked = call.above == 0;
            const sock_filter statements[] = {
                Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                GoOnIf(BPF_JEQ, static_cast<std::size_t>(call.number), 4),
                Statement(BPF_LD | BPF_W | BPF_ABS, argument),
                Statement(BPF_ALU | BPF_AND | BPF_K, isMasked ? call.set | call.clear : ~0U),
                isMasked ? GoOnIf(BPF_JEQ, call.set, 1) : GoOnIf(BPF_JGT, call.above, 1),
                Statement(BPF_RET | BPF_K,
                          refused.nth > 0
                              ? SECCOMP_RET_USER_NOTIF
                              : SECCOMP_RET_ERRNO | static_cast<unsigned>(refused.error)),
            };
            isAsked |= refused.nth > 0;
            program.insert(program.end(), std::begin(statements), std::end(statements));
        }
    program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return false;
    if (!isAsked)
        return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
    std::thread([&] { referee.Answer(); }).detach();
    const long listener =
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter);
    referee.Listen(static_cast<int>(listener));
    return listener >= 0;
}

/// Those of the test that runs.
int Failures() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

bool WithRefused(const std::vector<RefusedCall>& calls, const std::function<void()>& part) {
    constexpr int failed = 1;
    constexpr int impossible = 2;
    constexpr int unreached = 4;
    std::string what;
    for (const RefusedCall& call : calls)
        what += " " + call.name;
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const int before = Failures();
        Referee referee(calls.empty() ? 0 : calls[0].nth, calls.empty() ? 0 : calls[0].error);
        if (!Refuse(calls, referee))
            _exit(impossible);
        try {
            part();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        std::fflush(stdout);
        _exit((Failures() > before ? failed : 0) | (referee.HasRefused() ? 0 : unreached));
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == impossible) {
        [] { GTEST_SKIP() << "the system refuses no calls here"; }();
        return false;
    }
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) & ~unreached) == 0) << "without" << what;
    return WIFEXITED(status) && (WEXITSTATUS(status) & unreached) == 0;
}
