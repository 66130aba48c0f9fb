#include "rehearse/verdict/result.h"

#include <algorithm>

namespace rehearse {

const std::vector<ResultKind>& ResultKinds() {
    static const std::vector<ResultKind> kinds = {
        {"not-held", "Rehearsal not held", "bad", "✕", 4},
        {"crashed", "Crashed", "bad", "✕", 3},
        {"not-upgraded", "Not upgraded", "bad", "✕", 2},
        {"partly-upgraded", "Partly upgraded", "bad", "✕", 2},
        {"upgraded-with-problems", "Upgraded, with problems", "warn", "!", 1},
        {"up-to-date", "Up to date", "good", "=", 0},
        {"upgraded", "Upgraded", "good", "✓", 0},
    };
    return kinds;
}

const ResultKind& KindOf(const std::string& id) {
    const auto& kinds = ResultKinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(),
                                    [&](const ResultKind& kind) { return kind.id == id; });
    return found != kinds.end() ? *found : kinds.front();
}

std::string Text(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace rehearse
