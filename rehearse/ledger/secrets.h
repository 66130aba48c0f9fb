#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "rehearse/ledger/settings.h"

namespace rehearse {

/// Whether values under this key are passwords, PINs or keys.
bool IsSecretKey(const std::string& key);

/// Takes secrets out of what is told: a value becomes "hidden, N characters", with a number that
/// equal values share.
class Secrets {
public:
    explicit Secrets(bool areShown) : areShown_(areShown) {}

    /// Learns the secrets of a file, to know them in texts that do not name their keys.
    void Learn(const SettingsFile& file);
    /// Those of all files of a tree, of which equal ones are looked into once.
    void Learn(const TreeState& state);

    /// A setting's value, hidden when its key or the value itself is a secret's.
    std::string Value(const std::string& key, const std::string& value);
    /// A line of a configuration file or of a difference, or of a report.
    std::string Line(const std::string& line);
    std::string Text(const std::string& text);

private:
    std::string Hidden(const std::string& value);
    unsigned NumberOf(const std::string& value);
    std::string WithoutKnown(const std::string& text) const;
    std::size_t KnownAtBegin(std::string_view text) const;

    bool areShown_;
    std::map<std::string, unsigned, std::less<>> numbers_;  // by value
    std::set<std::size_t, std::greater<>> sizes_;           // of the values, the longest first
    std::set<const std::string*> learned_;                  // bytes of files
};

}  // namespace rehearse
