#include "rehearse/ledger/row.h"

#include <algorithm>

namespace rehearse {
namespace {

std::string Filled(std::string text, const Spot& spot) {
    for (const auto& [word, value] : {std::pair<const char*, std::string>{"$d", spot.Directory()},
                                      {"$s", spot.Section()},
                                      {"$k", spot.key}})
        for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos;
             at += value.size())
            text.replace(at, 2, value);
    return text;
}

}  // namespace

Row On(const char* file, const char* section, const char* key) {
    return {file, section, key, Effect::Goes, "", {}, {}, {}, "", false};
}

Row& Row::Becomes(std::function<bool(const Spot&)> what, const char* why) {
    effect = Effect::Becomes;
    holds = std::move(what);
    reason = why;
    return *this;
}

Row& Row::Goes(const char* why) {
    effect = Effect::Goes;
    reason = why;
    return *this;
}

Row& Row::Moves(std::function<std::vector<Target>(const Spot&)> where, const char* why) {
    effect = Effect::Moves;
    targets = std::move(where);
    reason = why;
    return *this;
}

Row& Row::If(std::function<bool(const Spot&)> about) {
    applies = std::move(about);
    return *this;
}

Row& Row::Below(const char* version) {
    below = version;
    return *this;
}

Row& Row::Due() {
    isDue = true;
    return *this;
}

const std::vector<Row>* RowsOf(const std::string& step) {
    for (const auto* table : {&DatabaseRows(), &ServiceRows(), &SipNatRows(), &UpdateRows()})
        for (const StepRows& rows : *table)
            if (step == rows.step)
                return &rows.rows;
    return nullptr;
}

Holds Is(std::string value) {
    return [value = std::move(value)](const Spot& spot) { return spot.Is() == value; };
}

Holds IsOneOf(std::vector<std::string> values) {
    return [values = std::move(values)](const Spot& spot) {
        return std::find(values.begin(), values.end(), spot.Is()) != values.end();
    };
}

Holds Factory() {
    return IsFromFactory;
}

Holds Equals(std::function<std::string(const Spot&)> expected) {
    return
        [expected = std::move(expected)](const Spot& spot) { return spot.Is() == expected(spot); };
}

Holds WasOneOf(std::vector<std::string> values) {
    return [values = std::move(values)](const Spot& spot) {
        return spot.Before() != nullptr &&
               std::find(values.begin(), values.end(), spot.Was()) != values.end();
    };
}

Holds IsThere() {
    return [](const Spot& spot) { return spot.Before() != nullptr; };
}

Holds InExtension() {
    return [](const Spot& spot) { return spot.IsKnownExtension(); };
}

std::function<std::vector<Target>(const Spot&)> To(std::vector<std::string> files,
                                                   std::string section, std::string key) {
    return [files = std::move(files), section = std::move(section),
            key = std::move(key)](const Spot& spot) {
        std::vector<Target> targets;
        for (const std::string& file : files)
            targets.push_back(
                {Filled(file, spot), Filled(section, spot), Filled(key, spot), spot.Was()});
        return targets;
    };
}

}  // namespace rehearse
