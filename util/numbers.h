#pragma once

#include <limits>
#include <string>
#include <type_traits>

/// Reads one decimal number from the start of a text, as an input stream would: leading white
/// space is skipped, a sign is allowed, reading stops at the first character that cannot belong to
/// the number. A text without a number gives 0; one beyond the type's range gives the nearest
/// limit. A negative number read as an unsigned type is its two's complement.
template <typename T>
T StringToNumber(const std::string& text) {
    using Unsigned = std::make_unsigned_t<T>;
    std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
    if (at == std::string::npos)
        return 0;
    const bool negative = text[at] == '-';
    if (negative || text[at] == '+')
        ++at;

    // The greatest magnitude that T can hold with this sign.
    constexpr auto max = static_cast<Unsigned>(std::numeric_limits<T>::max());
    const Unsigned limit = std::is_signed_v<T> && negative ? static_cast<Unsigned>(max + 1U) : max;
    Unsigned magnitude = 0;
    for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
        const auto digit = static_cast<Unsigned>(text[at] - '0');
        if (magnitude > (limit - digit) / 10)
            return std::is_signed_v<T> && negative ? std::numeric_limits<T>::min()
                                                   : std::numeric_limits<T>::max();
        magnitude = magnitude * 10 + digit;
    }
    return static_cast<T>(negative ? Unsigned{0} - magnitude : magnitude);
}

/// The number in decimal.
inline std::string NumberToString(long long value) {
    return std::to_string(value);
}
