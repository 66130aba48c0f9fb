#include "platform/disk_failures.h"

#include <cerrno>

namespace {

unsigned failures = 0;

}  // namespace

void CountDiskFailure(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case ENXIO:  // a socket
            return;
        default:
            ++failures;
    }
}

unsigned DiskFailures() {
    return failures;
}
