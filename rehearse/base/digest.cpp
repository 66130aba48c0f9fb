#include "rehearse/base/digest.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <vector>

#include "files/file_descriptor.h"

namespace fs = std::filesystem;

namespace rehearse {

Digest& Digest::Add(std::string_view text) {
    const std::uint64_t size = text.size();
    SHA256Update(&state_, reinterpret_cast<const std::uint8_t*>(&size), sizeof size);
    SHA256Update(&state_, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    return *this;
}

Digest& Digest::AddFile(const std::string& path) {
    const files::FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!file.IsOpen() || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode))
        return Add("unreadable");
    std::uint64_t size = 0;
    std::array<std::uint8_t, 65536> block{};
    for (ssize_t got = 0; (got = read(file.Get(), block.data(), block.size())) > 0;
         size += static_cast<std::uint64_t>(got))
        SHA256Update(&state_, block.data(), static_cast<std::size_t>(got));
    return Add(std::to_string(size));
}

Digest& Digest::AddTree(const std::string& path) {
    std::error_code error;
    const bool isDirectory = fs::is_directory(path, error);
    AddEntry(isDirectory ? path + "/." : path, "");  // a link to it is it
    if (!isDirectory)
        return *this;
    std::vector<std::string> names;
    for (auto entry = fs::recursive_directory_iterator(
             path, fs::directory_options::skip_permission_denied, error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error))
        names.push_back(entry->path().string().substr(path.size()));
    std::sort(names.begin(), names.end());
    for (const std::string& name : names)
        AddEntry(path + name, name);
    return *this;
}

void Digest::AddEntry(const std::string& path, const std::string& name) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        Add(name).Add("missing");
        return;
    }
    Add(name).Add(fmt::format("{:o}", info.st_mode));
    std::error_code error;
    if (S_ISLNK(info.st_mode) && !name.empty())
        Add(fs::read_symlink(path, error).string());
    else if (!S_ISDIR(info.st_mode))
        AddFile(path);
}

std::string Digest::Text() {
    std::array<std::uint8_t, SHA256_DIGEST_LENGTH> bytes{};
    SHA256Final(bytes.data(), &state_);
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += fmt::format("{:02x}", byte);
    return text;
}

}  // namespace rehearse
