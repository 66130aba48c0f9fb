#pragma once

#include <sha2.h>

#include <string>
#include <string_view>

namespace rehearse {

/// A SHA-256 of several texts, each of which counts with its length: "ab", "c" is not "a", "bc".
class Digest {
public:
    Digest() { SHA256Init(&state_); }

    Digest& Add(std::string_view text);
    /// Adds a file's bytes; one that cannot be read counts as that.
    Digest& AddFile(const std::string& path);
    /// Adds a file or a directory with all that is in it: names, modes, links and bytes, but no
    /// times.
    Digest& AddTree(const std::string& path);
    /// In hexadecimal digits. Nothing can be added behind it.
    std::string Text();

private:
    void AddEntry(const std::string& path, const std::string& name);

    SHA2_CTX state_{};
};

}  // namespace rehearse
