#include "util/shell.h"

#include "platform/file_utility.h"

std::string ShellPath(const std::string& path) {
    const std::string text = (!path.empty() && path.front() == '-' ? "./" : "") + path;
    constexpr const char* plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.,:=@%+-/";
    if (!text.empty() && text.find_first_not_of(plain) == std::string::npos)
        return text;
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

bool ShellFailed(int result) {
    return result == -1 || result == 127;
}

std::string ReadErrorFile(const std::string& path) {
    constexpr std::size_t mostBytes = 3000;
    const std::string text = FileUtility::ReadStart(path, mostBytes).value_or("");
    return text.substr(0, text.find('\0'));
}
