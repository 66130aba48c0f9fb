#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace files {

/// Tells bytes from other bytes: what a disk or a hand has changed, not what an adversary made to
/// look alike. Quick on small processors, and the same however the bytes are cut into pieces of a
/// multiple of eight.
class Digest {
public:
    void Add(std::string_view bytes) {
        length_ += bytes.size();
        while (!bytes.empty()) {
            unsigned char piece[8] = {};
            const std::size_t size = bytes.size() < sizeof piece ? bytes.size() : sizeof piece;
            std::memcpy(piece, bytes.data(), size);
            std::uint64_t word = 0;  // the same on machines of either byte order
            for (const unsigned char byte : piece)
                word = word << 8 | byte;
            Mix(word);
            bytes.remove_prefix(size);
        }
    }
    void Add(std::uint64_t number) { Mix(number); }

    std::uint64_t Value() const {
        Digest end = *this;
        end.Mix(length_);
        return end.state_ ^ end.state_ >> 29;
    }

private:
    void Mix(std::uint64_t word) {
        state_ = (state_ ^ word) * 0x9e3779b97f4a7c15U;
        state_ ^= state_ >> 32;
    }

    std::uint64_t state_ = 0xcbf29ce484222325U;
    std::uint64_t length_ = 0;
};

}  // namespace files
