#include "platform/disk_failures.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t mostTexts = 20;

unsigned failures = 0;
std::vector<std::string> texts;

bool IsOfTheName(int error) {
    switch (error) {
        case 0:
        case ENOENT:
        case EEXIST:
        case ENOTDIR:
        case EISDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case ENXIO:  // a socket
            return true;
        default:
            return false;
    }
}

}  // namespace

void CountDiskFailure(int error) {
    if (!IsOfTheName(error))
        ++failures;
}

void CountDiskFailure(int error, const std::string& path) {
    if (IsOfTheName(error))
        return;
    ++failures;
    if (texts.size() < mostTexts)
        texts.push_back(path + ": " + std::strerror(error));
}

unsigned DiskFailures() {
    return failures;
}

std::vector<std::string> TakeDiskFailureTexts() {
    return std::exchange(texts, {});
}
