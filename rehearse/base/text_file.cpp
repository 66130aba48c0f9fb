#include "rehearse/base/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <string_view>

#include "files/file_descriptor.h"
#include "rehearse/base/failure.h"

namespace rehearse {

std::string ReadAll(const std::string& path, std::size_t most) {
    const files::FileDescriptor file(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!file.IsOpen() || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode))
        return {};
    std::string text(std::min(most, static_cast<std::size_t>(info.st_size)), '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t got = read(file.Get(), text.data() + filled, text.size() - filled);
        if (got <= 0)
            break;
        filled += static_cast<std::size_t>(got);
    }
    text.resize(filled);
    return text;
}

void WriteFile(const std::string& path, const std::string& text) {
    // One that was there keeps what it shows to others until it is taken away here.
    const files::FileDescriptor made(
        open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0600));
    struct stat info {};
    if (made.IsOpen() && fstat(made.Get(), &info) == 0 && S_ISREG(info.st_mode) &&
        (info.st_mode & 0077) != 0)
        fchmod(made.Get(), 0600);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file)
        throw Failure("cannot write " + path);
}

namespace {

/// The length of the UTF-8 character at the head of a text, and its number; 0 for none.
std::size_t TakeCharacter(std::string_view text, unsigned long& number) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xc2 ? 0
                               : first < 0xe0 ? 2
                               : first < 0xf0 ? 3
                               : first < 0xf5 ? 4
                                              : 0;
    if (length == 0 || length > text.size())
        return 0;
    number = length == 1 ? first : first & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80U)
            return 0;
        number = number << 6 | (byte(i) & 0x3fU);
    }
    // Longer than it need be, a surrogate, or beyond the last: no XML has those.
    const unsigned long least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isNone = number < least[length] || number > 0x10ffff ||
                        (number >= 0xd800 && number <= 0xdfff) || (number & 0xfffeU) == 0xfffe;
    return isNone ? 0 : length;
}

bool ControlsTerminal(unsigned long number) {
    return (number < 0x20 && number != '\n') || (number >= 0x7f && number < 0xa0) ||
           number == 0x200e || number == 0x200f || (number >= 0x202a && number <= 0x202e) ||
           (number >= 0x2066 && number <= 0x2069) || number == 0xfeff;
}

}  // namespace

std::string Printable(const std::string& text) {
    std::string printable;
    for (std::string_view rest = text; !rest.empty();) {
        unsigned long number = 0;
        const std::size_t length = TakeCharacter(rest, number);
        if (length == 0)
            printable += '?';
        else if (ControlsTerminal(number))
            printable += fmt::format("\\u{:04x}", number);
        else
            printable += rest.substr(0, length);
        rest.remove_prefix(std::max<std::size_t>(1, length));
    }
    return printable;
}

std::string PrintableLine(const std::string& text) {
    std::string line;
    for (const char c : Printable(text))
        line += c == '\n' ? "\\u000a" : std::string(1, c);
    return line;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

}  // namespace rehearse
