#include "tests/support/refused_calls.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>

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

bool Refuse(const std::vector<RefusedCall>& calls) {
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
                          SECCOMP_RET_ERRNO | static_cast<unsigned>(refused.error)),
            };
            program.insert(program.end(), std::begin(statements), std::end(statements));
        }
    program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/// Those of the test that runs.
int Failures() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace

void WithRefused(const std::vector<RefusedCall>& calls, const std::function<void()>& part) {
    constexpr int failed = 1;
    constexpr int impossible = 2;
    std::string what;
    for (const RefusedCall& call : calls)
        what += " " + call.name;
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        const int before = Failures();
        if (!Refuse(calls))
            _exit(impossible);
        try {
            part();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        std::fflush(stdout);
        _exit(Failures() > before ? failed : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == impossible)
        GTEST_SKIP() << "the system refuses no calls here";
    EXPECT_EQ(status, 0) << "without" << what;
}
