#include "rehearse/keep/kept.h"

#include <cstdio>

#include "rehearse/base/failure.h"
#include "rehearse/base/packed.h"
#include "rehearse/base/text_file.h"

namespace rehearse {
namespace {

std::string PackedJson(const Json& json) {
    const std::vector<std::uint8_t> bytes = Json::to_msgpack(json);
    return Packed({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

template <typename Part>
std::optional<Part> UnpackedJson(std::string_view frame) {
    const auto text = Unpacked(frame);
    if (!text)
        return std::nullopt;
    try {
        return Json::from_msgpack(*text).get<Part>();
    } catch (const Json::exception&) {
        return std::nullopt;  // of another version
    }
}

}  // namespace

void to_json(Json& json, const KeptSetting& setting) {
    json = Json::array({setting.key, setting.value, setting.made});
}

void from_json(const Json& json, KeptSetting& setting) {
    json.at(0).get_to(setting.key);
    json.at(1).get_to(setting.value);
    json.at(2).get_to(setting.made);
}

std::string PackedTree(const KeptTree& tree) {
    return PackedJson(tree);
}

void WriteKept(const std::string& path, const KeptSummary& summary, const std::string& packedTree) {
    // Whole or not at all: what is there is not rehearsed again.
    const std::string half = path + ".new";
    WriteFile(half, PackedJson(summary) + packedTree);
    if (std::rename(half.c_str(), path.c_str()) != 0)
        throw Failure("cannot write " + path);
}

std::optional<KeptResult> ReadKeptResult(const std::string& path) {
    const std::string bytes = ReadAll(path);
    const std::vector<std::string_view> frames = FramesOf(bytes);
    auto summary = frames.empty() ? std::nullopt : UnpackedJson<KeptSummary>(frames.front());
    if (!summary)
        return std::nullopt;
    return KeptResult{std::move(*summary), std::string(frames.size() > 1 ? frames[1] : "")};
}

std::optional<KeptSummary> ReadKept(const std::string& path) {
    auto kept = ReadKeptResult(path);
    return kept ? std::optional(std::move(kept->summary)) : std::nullopt;
}

std::optional<KeptTree> UnpackedTree(const std::string& packedTree) {
    return UnpackedJson<KeptTree>(packedTree);
}

}  // namespace rehearse
