#pragma once

#include <functional>
#include <string>
#include <vector>

/// A system call that always fails: "lstat" and the like, "create" for an open that would make a
/// file, "open directory". An error of 0 has it succeed without having done anything. With `nth`
/// only that one fails, and it has to be the only call in its list.
struct RefusedCall {
    std::string name;
    int error;
    int nth = 0;
};

/// Runs a part of a test in a child to which the system refuses these calls. Its failures are the
/// test's. Where no such child can be had, as under qemu and valgrind, the test is skipped. False
/// when there was no nth call.
bool WithRefused(const std::vector<RefusedCall>& calls, const std::function<void()>& part);
