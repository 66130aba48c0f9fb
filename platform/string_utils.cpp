#include "platform/string_utils.h"

namespace StringUtils {

std::vector<std::string> ParseCommaLine(const std::string& text, char separator) {
    std::vector<std::string> items;
    if (text.empty())
        return items;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = text.find(separator, begin);
        items.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
        if (end == std::string::npos)
            return items;
        begin = end + 1;
    }
}

std::string Trim(const std::string& text, const std::string& characters, bool left, bool right) {
    std::size_t begin = 0;
    std::size_t end = text.size();
    if (left) {
        begin = text.find_first_not_of(characters);
        if (begin == std::string::npos)
            return {};
    }
    if (right)
        end = text.find_last_not_of(characters) + 1;  // npos + 1 is 0: nothing is left
    return text.substr(begin, end - begin);
}

std::string ReplaceString(const std::string& text, const std::string& from, const std::string& to,
                          std::size_t start) {
    if (from.empty())
        return text;
    std::string result = text;
    for (std::size_t at = result.find(from, start); at != std::string::npos;
         at = result.find(from, at + to.size()))
        result.replace(at, from.size(), to);
    return result;
}

bool IsNumeric(const std::string& text, bool allowSign, bool allowPoint) {
    std::size_t digits = 0;
    std::size_t points = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c >= '0' && c <= '9')
            ++digits;
        else if (c == '.' && allowPoint)
            ++points;
        else if (!(i == 0 && allowSign && (c == '-' || c == '+')))
            return false;
    }
    return digits > 0 && points <= 1;
}

}  // namespace StringUtils
