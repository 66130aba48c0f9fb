#include "rehearse/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "files/file_descriptor.h"
#include "rehearse/failure.h"

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
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file)
        throw Failure("cannot write " + path);
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
