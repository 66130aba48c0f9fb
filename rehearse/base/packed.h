#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace rehearse {

/// A text as a frame of zstd. Frames can stand behind one another in a file.
std::string Packed(std::string_view text);

/// The first frames of a file; fewer when there are not so many, or one is damaged.
std::vector<std::string> Unpacked(std::string_view frames, std::size_t most);

}  // namespace rehearse
