#include "rehearse/ledger/secrets.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <string_view>
#include <vector>

#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

constexpr std::size_t shortest = 4;  // of a value that is looked for in texts

bool IsWordCharacter(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

/// A short number may be anything; it is hidden only where its key stands beside it.
bool IsTelling(std::string_view value) {
    const bool isNumber = std::all_of(value.begin(), value.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c)) != 0;
    });
    return value.size() >= (isNumber ? shortest + 2 : shortest);
}

/// Most files hold no secret, and need not be taken apart to see that.
bool MayHoldSecret(const FileState& state) {
    if (!state.content || !S_ISREG(state.info.st_mode))
        return false;
    for (const char* part : {"ass", "ASS", "ecret", "ECRET", "pwd", "PWD", "Pwd", "pin", "PIN",
                             "Pin", "key", "KEY", "Key", "oken", "OKEN", "redential", "REDENTIAL"})
        if (state.content->find(part) != std::string::npos)
            return true;
    return false;
}

std::string Words(std::size_t size, unsigned number) {
    return fmt::format("hidden, {} characters (no. {})", size, number);
}

std::string Trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(" \t\r-+");
    if (begin == std::string_view::npos)
        return {};
    return std::string(text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1));
}

}  // namespace

bool IsSecretKey(const std::string& key) {
    std::string lower;
    std::transform(key.begin(), key.end(), std::back_inserter(lower),
                   [](char c) { return std::tolower(static_cast<unsigned char>(c)); });
    // A switch that says whether something is protected is no secret.
    if (lower.find("protected") != std::string::npos || lower.ends_with("_on") ||
        lower.ends_with("_length") || lower.ends_with("_enabled"))
        return false;
    for (const char* part : {"password", "passwd", "passphrase", "pwd", "secret", "credential"})
        if (lower.find(part) != std::string::npos)
            return true;
    // As a word of its own.
    std::string word;
    std::vector<std::string> words;
    for (const char c : lower + " ") {
        if (IsWordCharacter(c)) {
            word += c;
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return std::any_of(words.begin(), words.end(), [](const std::string& one) {
        return one == "pin" || one == "key" || one == "pass" || one == "token";
    });
}

void Secrets::Learn(const SettingsFile& file) {
    for (const SettingsSection& section : file.sections)
        for (const Setting& setting : section.settings)
            if (!setting.value.empty() && IsSecretKey(setting.key))
                NumberOf(setting.value);
}

void Secrets::Learn(const TreeState& state) {
    for (const auto& [path, file] : state)
        if (!path.starts_with("usr/share/regional/") && MayHoldSecret(*file) &&
            learned_.insert(file->content.get()).second)
            Learn(ReadSettings(file.get()));
}

std::string Secrets::Hidden(const std::string& value) {
    return value.empty() ? value : Words(value.size(), NumberOf(value));
}

unsigned Secrets::NumberOf(const std::string& value) {
    sizes_.insert(value.size());
    return numbers_.emplace(value, static_cast<unsigned>(numbers_.size() + 1)).first->second;
}

std::string Secrets::Value(const std::string& key, const std::string& value) {
    if (areShown_)
        return value;
    return IsSecretKey(key) ? Hidden(value) : WithoutKnown(value);
}

/// Known values as words of their own, whatever stands around them.
std::string Secrets::WithoutKnown(const std::string& text) const {
    std::string hidden;
    for (std::size_t at = 0; at < text.size();) {
        const std::string_view rest = std::string_view(text).substr(at);
        const std::size_t size = at != 0 && IsWordCharacter(text[at - 1]) ? 0 : KnownAtBegin(rest);
        if (size == 0) {
            hidden += text[at++];
            continue;
        }
        hidden += Words(size, numbers_.find(rest.substr(0, size))->second);
        at += size;
    }
    return hidden;
}

/// The length of the longest known value that a text begins with, and that is a word there.
std::size_t Secrets::KnownAtBegin(std::string_view text) const {
    for (const std::size_t size : sizes_) {
        const bool isWord =
            size == text.size() || (size < text.size() && !IsWordCharacter(text[size]));
        if (isWord && numbers_.find(text.substr(0, size)) != numbers_.end() &&
            IsTelling(text.substr(0, size)))
            return size;
    }
    return 0;
}

std::string Secrets::Line(const std::string& line) {
    if (areShown_)
        return line;
    // KEY=VALUE, entry "KEY" with value "VALUE", and KEY in a column before VALUE.
    const std::size_t equals = line.find('=');
    if (equals != std::string::npos) {
        std::string key = Trimmed(line.substr(0, equals));
        key = key.substr(key.rfind(": ") == std::string::npos ? 0 : key.rfind(": ") + 2);
        const std::size_t end = std::min(line.find_first_of("\r\n", equals), line.size());
        // A sentence is no key.
        if (IsSecretKey(key) && key.find(',') == std::string::npos)
            return line.substr(0, equals + 1) + Hidden(line.substr(equals + 1, end - equals - 1)) +
                   line.substr(end);
    }
    constexpr std::string_view with = "\" with value \"";
    const std::size_t at = line.find(with);
    const std::size_t quote = line.find('"');
    if (at != std::string::npos && quote < at &&
        IsSecretKey(line.substr(quote + 1, at - quote - 1))) {
        const std::size_t begin = at + with.size();
        const std::size_t end = std::min(line.find("\" ", begin), line.size());
        return line.substr(0, begin) + Hidden(line.substr(begin, end - begin)) + line.substr(end);
    }
    const std::size_t column = line.find("\t\t\t");
    if (column != std::string::npos && IsSecretKey(Trimmed(line.substr(0, column))))
        return line.substr(0, column + 3) + Hidden(line.substr(column + 3));
    return WithoutKnown(line);
}

std::string Secrets::Text(const std::string& text) {
    if (areShown_)
        return text;
    std::string hidden;
    for (const std::string& line : LinesOf(text))
        hidden += Line(line) + "\n";
    return hidden;
}

}  // namespace rehearse
