#include "files/refusals.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace files {
namespace {

constexpr std::size_t mostTexts = 20;

// One count for the process: what refuses is the disk under all of it.
unsigned refusals = 0;
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
    if (!IsOfTheName(error))
        ++refusals;
}

void NoteRefusal(int error, const std::string& what) {
    NoteRefusal(error);
    if (!IsOfTheName(error) && texts.size() < mostTexts)
        texts.push_back(what + ": " + std::strerror(error));
}

std::vector<std::string> TakeRefusalTexts() {
    return std::exchange(texts, {});
}

RefusalWatch::RefusalWatch() : before_(refusals) {}

bool RefusalWatch::HasSeenOne() const {
    return refusals != before_;
}

RefusalsForgiven::RefusalsForgiven() : before_(refusals) {}

RefusalsForgiven::~RefusalsForgiven() {
    refusals = before_;
}

}  // namespace files
