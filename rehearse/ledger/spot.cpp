#include "rehearse/ledger/spot.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace rehearse {
namespace {

constexpr const char* factoryRoot = "etc/default-conf/telephony/";

/// Where a link leads, below the tree; through links that it leads to, at most a few.
std::string LinkTarget(const TreeState& state, std::string path) {
    for (int i = 0; i < 8; ++i) {
        const auto found = state.find(path);
        if (found == state.end() || !S_ISLNK(found->second->info.st_mode) ||
            !found->second->content)
            return path;
        const fs::path target = *found->second->content;
        path = (target.is_absolute() ? target : fs::path("/" + path).parent_path() / target)
                   .lexically_normal()
                   .relative_path();
        if (path.ends_with('/'))
            path.pop_back();
    }
    return path;
}

const SettingsFile& NoFile() {
    static const SettingsFile none{true, {{"", true, {}, {}}}};
    return none;
}

}  // namespace

Aliases::Aliases(const TreeState& state, const std::string& root) : root_(root) {
    for (auto entry = state.lower_bound(root);
         entry != state.end() && entry->first.starts_with(root); ++entry)
        if (S_ISLNK(entry->second->info.st_mode) && entry->first != root + "regional")
            names_[LinkTarget(state, entry->first)] = entry->first.substr(root.size());
}

std::optional<std::string> Aliases::NameOf(const std::string& path) const {
    if (path.starts_with(root_))
        return path.substr(root_.size());
    for (std::size_t end = path.size(); end != std::string::npos && end != 0;
         end = path.rfind('/', end - 1)) {
        const auto alias = names_.find(path.substr(0, end));
        if (alias != names_.end())
            return alias->second + path.substr(end);
    }
    return std::nullopt;
}

std::string Aliases::PathOf(const std::string& name) const {
    for (const auto& [real, alias] : names_)
        if (name == alias || name.starts_with(alias + "/"))
            return real + name.substr(alias.size());
    return root_ + name;
}

const SettingsFile& TreeSettings::File(const std::string& name) {
    return FileAt(aliases_.PathOf(name));
}

const SettingsFile& TreeSettings::FileAt(const std::string& path) {
    const auto known = files_.find(path);
    if (known != files_.end())
        return known->second;
    const auto state = state_.find(path);
    if (state == state_.end())
        return NoFile();
    return files_.emplace(path, ReadSettings(state->second.get())).first->second;
}

void TreeSettings::Forget(const std::string& directory) {
    const std::string path = aliases_.PathOf(directory) + "/";
    auto end = files_.lower_bound(path);
    while (end != files_.end() && end->first.starts_with(path))
        end = files_.erase(end);
}

std::optional<std::string> TreeSettings::Value(const std::string& name, const std::string& section,
                                               const std::string& key) {
    const SettingsSection* found = File(name).Section(section);
    const std::string* value = found != nullptr ? found->Find(key) : nullptr;
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

std::vector<std::string> FactoryFiles(const RunContext& run, const std::string& file) {
    const std::string factory = factoryRoot;
    std::vector<std::string> files = {factory + file, factory + run.linesDir + file};
    const std::size_t slash = file.find('/');
    const std::string directory = file.substr(0, slash);
    if (slash != std::string::npos &&
        (run.extensions.contains(directory) || run.attendants.contains(directory)))
        for (const std::string& part : {run.linesDir + "default", run.linesDir + "defatt",
                                        std::string("default"), std::string("defatt")})
            files.push_back(factory + part + file.substr(slash));
    return files;
}

bool IsFromFactory(const Spot& spot) {
    const std::string* value = spot.After();
    if (value == nullptr)
        return false;
    for (const std::string& path : FactoryFiles(spot.step.run, spot.file)) {
        const SettingsFile& file = spot.step.before.FileAt(path);
        const std::string section = spot.Section();
        const bool isTop = spot.after != nullptr && spot.after->isTop;
        for (const SettingsSection& one : file.sections)
            if (one.isTop == isTop && one.name == section && one.Holds(spot.key, *value))
                return true;
    }
    return false;
}

std::optional<std::string> FactoryValue(const Spot& spot) {
    for (const std::string& path : FactoryFiles(spot.step.run, spot.file)) {
        const SettingsSection* section = spot.step.before.FileAt(path).Section(spot.Section());
        const std::string* value = section != nullptr ? section->Find(spot.key) : nullptr;
        if (value != nullptr)
            return *value;
    }
    return std::nullopt;
}

}  // namespace rehearse
