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

std::vector<std::string> Unpacked(std::string_view frames, std::size_t most) {
    constexpr unsigned long long largest = 1ULL << 30;
    std::vector<std::string> texts;
    while (!frames.empty() && texts.size() < most) {
        const std::size_t packed = ZSTD_findFrameCompressedSize(frames.data(), frames.size());
        const unsigned long long size = ZSTD_getFrameContentSize(frames.data(), frames.size());
        if (ZSTD_isError(packed) != 0 || size > largest)  // which is also what an error is
            break;
        std::string text(size, '\0');
        if (ZSTD_isError(ZSTD_decompress(text.data(), text.size(), frames.data(), packed)) != 0)
            break;
        texts.push_back(std::move(text));
        frames.remove_prefix(packed);
    }
    return texts;
}

}  // namespace rehearse
