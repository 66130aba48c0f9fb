#include "tests/support/refused_calls.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

namespace {

/// What tells a call: its number, and which bits of an argument are set and which are not.
struct Call {
    const char* name;
    long number;
    int argument = 0;
    unsigned set = 0;
    unsigned clear = 0;
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
    {"write", SYS_write},
    {"fsync", SYS_fsync},
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

bool Refuse(const std::vector<RefusedCall>& calls) {
    std::vector<sock_filter> program;
    const auto load = [&](std::size_t offset) {
        program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offset)));
    };
    for (const RefusedCall& refused : calls)
        for (const Call& call : knownCalls) {
            if (refused.name != call.name)
                continue;
            load(offsetof(seccomp_data, nr));
            program.push_back(
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call.number), 0, 4));
            load(offsetof(seccomp_data, args) + 8 * static_cast<std::size_t>(call.argument));
            program.push_back(BPF_STMT(BPF_ALU | BPF_AND | BPF_K, call.set | call.clear));
            program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.set, 0, 1));
            program.push_back(BPF_STMT(BPF_RET | BPF_K,
                                       SECCOMP_RET_ERRNO | static_cast<unsigned>(refused.error)));
        }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
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
        if (!Refuse(calls))
            _exit(impossible);
        try {
            part();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        std::fflush(stdout);
        _exit(testing::Test::HasFailure() ? failed : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == impossible)
        GTEST_SKIP() << "the system refuses no calls here";
    EXPECT_EQ(status, 0) << "without" << what;
}
