#include "files/refusals.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace files {
namespace {

constexpr std::size_t mostTexts = 20;

// One count for the process: what refuses is the disk under all of it.
unsigned refusals = 0;
unsigned shortages = 0;  // those of them for want of something
unsigned noMemory = 0;   // of memory
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

void NoteRefusal(int error) {
    if (IsOfTheName(error))
        return;
    ++refusals;
    if (error == ENOSPC || error == EDQUOT || error == ENOMEM || error == EMFILE || error == ENFILE)
        ++shortages;
    if (error == ENOMEM)
        ++noMemory;
}

void NoteRefusal(int error, const std::string& what) {
    NoteRefusal(error);
    if (!IsOfTheName(error) && texts.size() < mostTexts)
        texts.push_back(what + ": " + std::strerror(error));
}

std::string NotedReason(const std::string& what) {
    const int error = errno;
    NoteRefusal(error);
    return what + ": " + std::strerror(error);
}

std::vector<std::string> TakeRefusalTexts() {
    return std::exchange(texts, {});
}

RefusalWatch::RefusalWatch()
    : before_(refusals), shortagesBefore_(shortages), noMemoryBefore_(noMemory) {}

bool RefusalWatch::HasSeenOne() const {
    return refusals != before_;
}

bool RefusalWatch::HasSeenShortage() const {
    return shortages != shortagesBefore_;
}

bool RefusalWatch::HasSeenNoMemory() const {
    return noMemory != noMemoryBefore_;
}

RefusalsForgiven::RefusalsForgiven() : before_(refusals) {}

RefusalsForgiven::~RefusalsForgiven() {
    refusals = before_;
}

}  // namespace files
