#pragma once

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

namespace Configuration {

/// Keeps texts where they stand until it goes itself: those of a document's new and changed lines.
class TextPool {
public:
    /// Keeps the parts as one text.
    std::string_view Keep(std::initializer_list<std::string_view> parts) {
        std::size_t size = 0;
        for (const std::string_view part : parts)
            size += part.size();
        if (size > free_) {
            free_ = std::max(size, blockSize);
            next_ = blocks_.emplace_back(new char[free_]).get();
        }
        char* const text = next_;
        for (const std::string_view part : parts)
            next_ = std::copy(part.begin(), part.end(), next_);
        free_ -= size;
        return {text, size};
    }

private:
    static constexpr std::size_t blockSize = 2000;

    std::vector<std::unique_ptr<char[]>> blocks_;
    char* next_ = nullptr;
    std::size_t free_ = 0;
};

}  // namespace Configuration
