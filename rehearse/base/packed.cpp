#include "rehearse/base/packed.h"

#include <zstd.h>

#include "rehearse/base/failure.h"

namespace rehearse {

std::string Packed(std::string_view text) {
    constexpr int level = 9;  // a thousand sites: above it, ten times the time for a twentieth less
    std::string frame(ZSTD_compressBound(text.size()), '\0');
    const std::size_t size =
        ZSTD_compress(frame.data(), frame.size(), text.data(), text.size(), level);
    if (ZSTD_isError(size) != 0)
        throw Failure("a result cannot be packed");
    frame.resize(size);
    return frame;
}

std::vector<std::string_view> FramesOf(std::string_view bytes) {
    std::vector<std::string_view> frames;
    while (!bytes.empty()) {
        const std::size_t size = ZSTD_findFrameCompressedSize(bytes.data(), bytes.size());
        if (ZSTD_isError(size) != 0)
            return {};
        frames.push_back(bytes.substr(0, size));
        bytes.remove_prefix(size);
    }
    return frames;
}

std::optional<std::string> Unpacked(std::string_view frame) {
    constexpr unsigned long long largest = 1ULL << 30;
    const unsigned long long size = ZSTD_getFrameContentSize(frame.data(), frame.size());
    if (size > largest)  // which is also what an error is
        return std::nullopt;
    std::string text(size, '\0');
    if (ZSTD_isError(ZSTD_decompress(text.data(), text.size(), frame.data(), frame.size())) != 0)
        return std::nullopt;
    return text;
}

}  // namespace rehearse
