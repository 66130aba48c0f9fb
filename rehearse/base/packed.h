#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rehearse {

/// A text as a frame of zstd. Frames can stand behind one another in a file.
std::string Packed(std::string_view text);

/// The frames of a file, packed as they are; none when the file does not end with a whole one.
std::vector<std::string_view> FramesOf(std::string_view bytes);

/// A frame's text; nothing when it is damaged.
std::optional<std::string> Unpacked(std::string_view frame);

}  // namespace rehearse
