#include "rehearse/keep/keep_tree.h"

#include <fmt/format.h>
#include <map>
#include <tuple>

#include "rehearse/base/digest.h"
#include "rehearse/ledger/secrets.h"

namespace rehearse {
namespace {

constexpr std::string_view secretMark = "hidden, ";
constexpr std::size_t shortDigest = 12;  // digits; enough for what is not attacked

bool IsFirmwares(const std::string& path) {
    // Not all of usr: a site's configuration may lie below.
    return path.starts_with("etc/default-conf/") || path.starts_with("usr/share/regional/") ||
           path.starts_with("bin/");
}

class TreeKeeper {
public:
    TreeKeeper(const Ledger& ledger, const std::string& key) : key_(key) {
        tree_.steps.emplace_back("");
        ledger.ForEachWay([&](const Way& way) {
            if (way.to.file.empty())
                return;
            std::string steps;
            for (const std::string& step : way.steps)
                steps += (steps.empty() ? "" : ", then ") + step;
            const auto known = steps_.emplace(steps, tree_.steps.size());
            if (known.second)
                tree_.steps.push_back(steps);
            made_[{way.to.file, way.to.section, way.to.key}] =
                static_cast<int>(known.first->second);
        });
    }

    KeptTree Keep(const TreeState& before, const TreeState& after) {
        std::vector<std::pair<const TreeState::value_type*, SettingsFile>> files;
        for (const auto& entry : after) {
            if (IsFirmwares(entry.first))
                continue;
            files.emplace_back(&entry, ReadSettings(entry.second.get()));
            secrets_.Learn(files.back().second);
        }
        for (const auto& [path, state] : before) {
            const auto now = after.find(path);
            if (!IsFirmwares(path) && (now == after.end() || now->second != state))
                secrets_.Learn(ReadSettings(state.get()));
        }
        for (const auto& [entry, file] : files)
            tree_.files.push_back(Kept(entry->first, *entry->second, file));
        return std::move(tree_);
    }

private:
    std::string Keyed(const std::string& text) const {
        return Digest().Add(key_).Add(text).Text().substr(0, shortDigest);
    }

    KeptFile Kept(const std::string& path, const FileState& state, const SettingsFile& file) {
        KeptFile kept{path,
                      ModeText(state),
                      Keyed(state.content ? *state.content : std::to_string(state.info.st_size)),
                      {}};
        for (const SettingsSection& section : file.sections) {
            KeptSection& one = kept.sections.emplace_back(KeptSection{section.name, {}});
            const std::string title = section.Title();
            for (const Setting& setting : section.settings) {
                const auto made = made_.find({path, title, setting.key});
                one.settings.push_back(
                    {setting.key, Hidden(setting), made == made_.end() ? 0 : made->second});
            }
        }
        if (kept.sections.size() == 1 && kept.sections.front().settings.empty())
            kept.sections.clear();
        return kept;
    }

    std::string Hidden(const Setting& setting) {
        if (setting.value.empty() || secrets_.Value(setting.key, setting.value) == setting.value)
            return setting.value;
        return fmt::format("{}{} characters #{}", secretMark, setting.value.size(),
                           Keyed(setting.value));
    }

    const std::string& key_;
    Secrets secrets_{false};
    KeptTree tree_;
    std::map<std::string, std::size_t> steps_;
    std::map<std::tuple<std::string, std::string, std::string>, int> made_;
};

}  // namespace

KeptTree KeepTree(const TreeState& before, const TreeState& after, const Ledger& ledger,
                  const std::string& key) {
    return TreeKeeper(ledger, key).Keep(before, after);
}

std::string Readable(const std::string& keptValue) {
    const std::size_t end = keptValue.find(" #");
    const bool isHidden =
        keptValue.starts_with(secretMark) && end + 2 + shortDigest == keptValue.size();
    return isHidden ? keptValue.substr(0, end) : keptValue;
}

}  // namespace rehearse
