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

/// One of the parts of a file of results.
template <typename Part>
std::optional<Part> ReadPart(const std::string& path, std::size_t number) {
    const std::vector<std::string> parts = Unpacked(ReadAll(path), number + 1);
    if (parts.size() <= number)
        return std::nullopt;
    try {
        return Json::from_msgpack(parts[number]).get<Part>();
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

std::optional<KeptSummary> ReadKept(const std::string& path) {
    return ReadPart<KeptSummary>(path, 0);
}

std::optional<KeptTree> ReadKeptTree(const std::string& path) {
    return ReadPart<KeptTree>(path, 1);
}

}  // namespace rehearse
