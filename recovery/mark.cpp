#include "recovery/mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files/file_descriptor.h"
#include "files/look.h"
#include "files/read.h"
#include "files/replace.h"

namespace {

constexpr const char* markNames[] = {"/target.mend-tmp", "/second.mend-tmp", "/again.mend-tmp",
                                     "/done.mend-tmp", "/stamped.mend-tmp"};

std::string MarkPath(const std::string& copy, State state) {
    return copy + markNames[static_cast<std::size_t>(state)];
}

/// The state that a copy's mark tells; of several, the one that is furthest.
std::optional<State> StateOf(const std::string& copy) {
    for (const State state :
         {State::Stamped, State::Done, State::Refused, State::SecondUnderWay, State::UnderWay})
        if (files::IsThere(MarkPath(copy, state)))
            return state;
    return std::nullopt;
}

/// A line of always the same length, so that one can be written over another on a full disk.
std::string ContentText(const std::optional<TreeContent>& content) {
    constexpr std::size_t width = 100;
    char text[width] = "unknown";
    if (content)
        std::snprintf(text, sizeof text, "%llu entries, %llu bytes, digest %016llx",
                      static_cast<unsigned long long>(content->entries),
                      static_cast<unsigned long long>(content->bytes),
                      static_cast<unsigned long long>(content->hash.value_or(0)));
    std::string line = text;
    line.resize(width, ' ');
    return line + "\n";
}

/// Takes a word that a text goes on with.
bool Take(const char*& text, const char* word) {
    const std::size_t length = std::strlen(word);
    const bool isTaken = std::strncmp(text, word, length) == 0;
    text += isTaken ? length : 0;
    return isTaken;
}

/// Takes a number. Not by sscanf, which is a tenth of a program that is linked statically.
bool TakeNumber(const char*& text, int base, std::uint64_t& number) {
    char* end = nullptr;
    number = std::strtoull(text, &end, base);
    const bool isTaken = end != text;
    text = end;
    return isTaken;
}

std::optional<TreeContent> ParseContent(const std::string& line) {
    TreeContent content;
    const char* text = line.c_str();
    if (!TakeNumber(text, 10, content.entries) || !Take(text, " entries, ") ||
        !TakeNumber(text, 10, content.bytes) || !Take(text, " bytes, "))
        return std::nullopt;
    std::uint64_t hash = 0;
    const bool isKnown = Take(text, "digest ");
    if (!TakeNumber(text, 16, hash))
        return std::nullopt;
    if (isKnown)
        content.hash = hash;
    return content;
}

/// The digests, behind a version: the one text in a mark that may be of several lines, but has no
/// NUL. They are the machine's own numbers, for no mark leaves it.
std::string DigestText(const EntryDigests& digests) {
    std::string text(digests.empty() ? 0 : 1, '\0');
    return text.append(reinterpret_cast<const char*>(digests.data()),
                       digests.size() * sizeof(EntryDigests::value_type));
}

EntryDigests ParseDigests(const std::string& text) {
    EntryDigests digests(text.size() / sizeof(EntryDigests::value_type));
    if (!digests.empty())
        std::memcpy(digests.data(), text.data(), digests.size() * sizeof digests.front());
    return digests;
}

}  // namespace

std::optional<Mark> ReadMark(const std::string& copy) {
    const auto state = StateOf(copy);
    if (!state)
        return std::nullopt;
    Mark mark;
    mark.state = *state;
    const std::string text = files::ReadFile(MarkPath(copy, *state)).bytes.value_or("");
    const std::size_t first = text.find('\n');
    const std::size_t second = first == std::string::npos ? first : text.find('\n', first + 1);
    if (second == std::string::npos)
        return mark;
    mark.held = ParseContent(text.substr(0, first));
    mark.left = ParseContent(text.substr(first + 1, second - first - 1));
    const std::size_t end = std::min(text.size(), text.find('\0', second));
    mark.version = text.substr(second + 1, end - second - 1);
    mark.digests = ParseDigests(text.substr(std::min(text.size(), end + 1)));
    return mark;
}

std::string WriteMark(const std::string& copy, const Mark& mark) {
    return files::ReplaceFile(
        MarkPath(copy, mark.state),
        ContentText(mark.held) + ContentText(mark.left) + mark.version + DigestText(mark.digests));
}

bool MarkLeft(const std::string& copy, const std::optional<TreeContent>& left) {
    const auto state = StateOf(copy);
    if (!state)
        return false;
    const std::string line = ContentText(left);
    const files::FileDescriptor file(
        open(MarkPath(copy, *state).c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    // The second line, which is as long as the first.
    return file.IsOpen() &&
           pwrite(file.Get(), line.data(), line.size(), static_cast<off_t>(line.size())) ==
               static_cast<ssize_t>(line.size()) &&
           fsync(file.Get()) == 0;
}

bool SetState(const std::string& copy, State state) {
    for (const State old : {State::UnderWay, State::SecondUnderWay, State::Refused, State::Done})
        if (old != state)
            std::rename(MarkPath(copy, old).c_str(), MarkPath(copy, state).c_str());
    const files::Directory directory(copy);
    return directory.IsOpen() && fsync(directory.Descriptor()) == 0 &&
           files::IsThere(MarkPath(copy, state));
}
