#include "rehearse/watch/lines.h"

namespace rehearse {

Lines LinesIn(const std::shared_ptr<const FileState>& state) {
    Lines lines;
    if (!state || !state->content)
        return lines;
    const std::string& text = *state->content;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            lines.push_back(text.substr(begin) + "\n\\ No newline at end of file");
            break;
        }
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

bool IsTooLong(const Lines& a, const Lines& b) {
    constexpr std::size_t most = 20'000;
    return a.size() + b.size() > most;
}

}  // namespace rehearse
