#include "rehearse/ledger/settings.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <numeric>
#include <tuple>

#include "store/document.h"

using Configuration::Document;

namespace rehearse {
namespace {

using Sections = std::vector<SettingsSection>;
using Indexes = std::deque<std::ptrdiff_t>;

constexpr const char* identifier = "section_id";
constexpr const char* subjects[] = {"pattern", "dialing_template"};

bool IsBefore(const Setting& a, const Setting& b) {
    return std::tie(a.key, a.occurrence) < std::tie(b.key, b.occurrence);
}

/// Numbers the settings of one key. An index of thousands of extensions is sorted for that: each is
/// looked for among all.
void Number(SettingsSection& section) {
    constexpr std::size_t many = 32;
    std::vector<Setting>& settings = section.settings;
    if (settings.size() < many) {
        for (auto setting = settings.begin(); setting != settings.end(); ++setting)
            setting->occurrence = static_cast<unsigned>(
                std::count_if(settings.begin(), setting,
                              [&](const Setting& one) { return one.key == setting->key; }));
        return;
    }
    section.byKey.resize(settings.size());
    std::iota(section.byKey.begin(), section.byKey.end(), 0U);
    std::stable_sort(
        section.byKey.begin(), section.byKey.end(),
        [&](std::uint32_t a, std::uint32_t b) { return settings[a].key < settings[b].key; });
    for (std::size_t i = 1; i < section.byKey.size(); ++i) {
        const Setting& last = settings[section.byKey[i - 1]];
        Setting& setting = settings[section.byKey[i]];
        setting.occurrence = setting.key == last.key ? last.occurrence + 1 : 0;
    }
}

SettingsSection SectionOf(const Document& document, std::string name, Document::Scope scope) {
    SettingsSection section{std::move(name), scope == Document::Scope::TopLevel, {}, {}};
    for (Configuration::Entry& entry : document.Entries(scope))
        section.settings.push_back({std::move(entry.key), std::move(entry.value)});
    Number(section);
    return section;
}

SettingsFile SettingsOf(Document& document) {
    SettingsFile file;
    file.sections.push_back(SectionOf(document, "", Document::Scope::TopLevel));
    for (document.Restart(); document.GotoNextSection();)
        file.sections.push_back(
            SectionOf(document, std::string(document.SectionName()), Document::Scope::Section));
    return file;
}

/// What tells a section from others of its name, with or without its number.
std::string Fingerprint(const SettingsSection& section, bool withIdentifier) {
    std::string text;
    for (const Setting& setting : section.settings)
        if (withIdentifier || setting.key != identifier)
            text += setting.key + '=' + setting.value + '\n';
    return text;
}

std::size_t CountShared(const SettingsSection& a, const SettingsSection& b) {
    return static_cast<std::size_t>(
        std::count_if(a.settings.begin(), a.settings.end(), [&](const Setting& setting) {
            return setting.key != identifier && !setting.value.empty() &&
                   b.Holds(setting.key, setting.value);
        }));
}

/// What a record is about does not change: another pattern is another record.
bool AreAboutOthers(const SettingsSection& a, const SettingsSection& b) {
    return std::any_of(std::begin(subjects), std::end(subjects), [&](const char* key) {
        const std::string* one = a.Find(key);
        const std::string* other = b.Find(key);
        return one != nullptr && other != nullptr && *one != *other;
    });
}

/// Whether two sections can be one, before and after an edit: they share a value, or most keys.
bool AreAlike(const SettingsSection& a, const SettingsSection& b) {
    if (AreAboutOthers(a, b))
        return false;
    if (CountShared(a, b) != 0)
        return true;
    const auto keys = static_cast<std::size_t>(
        std::count_if(a.settings.begin(), a.settings.end(), [&](const Setting& setting) {
            return b.Find(setting.key, setting.occurrence) != nullptr;
        }));
    return keys * 2 > std::max(a.settings.size(), b.settings.size());
}

/// The sections of one name on both sides, paired.
class Pairing {
public:
    Pairing(const Sections& before, const Sections& after, std::vector<std::ptrdiff_t>& match)
        : before_(before), after_(after), match_(match) {}

    void Pair(Indexes old, Indexes now) {
        if (old.size() == 1 && now.size() == 1 && !Name(before_, old[0]).empty()) {
            match_[static_cast<std::size_t>(old[0])] = now[0];
            return;
        }
        PairEqual(old, now, true);
        PairEqual(old, now, false);
        if (old.size() == now.size())
            PairInOrder(old, now);
        PairAlike(old, now);
    }

private:
    static const std::string& Name(const Sections& sections, std::ptrdiff_t index) {
        return sections[static_cast<std::size_t>(index)].name;
    }
    const SettingsSection& Before(std::ptrdiff_t index) const {
        return before_[static_cast<std::size_t>(index)];
    }
    const SettingsSection& After(std::ptrdiff_t index) const {
        return after_[static_cast<std::size_t>(index)];
    }

    void PairEqual(Indexes& old, Indexes& now, bool withIdentifier) {
        std::map<std::string, Indexes> free;
        for (const std::ptrdiff_t index : now)
            free[Fingerprint(After(index), withIdentifier)].push_back(index);
        PairBy(old, now, [&](std::ptrdiff_t index) -> std::ptrdiff_t {
            Indexes& equal = free[Fingerprint(Before(index), withIdentifier)];
            if (equal.empty())
                return -1;
            const std::ptrdiff_t found = equal.front();
            equal.pop_front();
            return found;
        });
    }

    /// An edit keeps the order: as many on both sides are the same ones, where they share anything.
    void PairInOrder(Indexes& old, Indexes& now) {
        std::size_t at = 0;
        const Indexes targets = now;
        PairBy(old, now, [&](std::ptrdiff_t index) {
            const std::ptrdiff_t target = targets[at++];
            return AreAlike(Before(index), After(target)) ? target : -1;
        });
    }

    /// The one that shares most, of those that are left.
    void PairAlike(Indexes& old, Indexes& now) {
        constexpr std::size_t most = 4'000'000;  // comparisons
        if (old.size() * now.size() > most)
            return;
        Indexes free = now;
        PairBy(old, now, [&](std::ptrdiff_t index) -> std::ptrdiff_t {
            std::size_t best = 0;
            auto found = free.end();
            for (auto candidate = free.begin(); candidate != free.end(); ++candidate) {
                const std::size_t shared = CountShared(Before(index), After(*candidate));
                if (shared > best && !AreAboutOthers(Before(index), After(*candidate))) {
                    best = shared;
                    found = candidate;
                }
            }
            if (found == free.end())
                return -1;
            const std::ptrdiff_t target = *found;
            free.erase(found);
            return target;
        });
    }

    void PairBy(Indexes& old, Indexes& now,
                const std::function<std::ptrdiff_t(std::ptrdiff_t)>& find) {
        Indexes left;
        std::vector<std::ptrdiff_t> taken;
        for (const std::ptrdiff_t index : old) {
            const std::ptrdiff_t target = find(index);
            if (target < 0) {
                left.push_back(index);
                continue;
            }
            match_[static_cast<std::size_t>(index)] = target;
            taken.push_back(target);
        }
        std::sort(taken.begin(), taken.end());
        std::erase_if(now, [&](std::ptrdiff_t index) {
            return std::binary_search(taken.begin(), taken.end(), index);
        });
        old = left;
    }

    const Sections& before_;
    const Sections& after_;
    std::vector<std::ptrdiff_t>& match_;
};

void CompareSections(const SettingsSection* before, const SettingsSection* after,
                     SettingChange change, std::vector<SettingChange>& changes) {
    const auto add = [&](const Setting& setting, std::optional<std::string> was,
                         std::optional<std::string> is) {
        change.key = setting.key;
        change.occurrence = setting.occurrence;
        change.before = std::move(was);
        change.after = std::move(is);
        changes.push_back(change);
    };
    if (before != nullptr)
        for (const Setting& setting : before->settings) {
            const std::string* now =
                after != nullptr ? after->Find(setting.key, setting.occurrence) : nullptr;
            if (now == nullptr)
                add(setting, setting.value, std::nullopt);
            else if (*now != setting.value)
                add(setting, setting.value, *now);
        }
    if (after != nullptr)
        for (const Setting& setting : after->settings)
            if (before == nullptr || before->Find(setting.key, setting.occurrence) == nullptr)
                add(setting, std::nullopt, setting.value);
}

}  // namespace

const std::string* SettingsSection::Find(const std::string& key, unsigned occurrence) const {
    if (byKey.empty()) {
        for (const Setting& setting : settings)
            if (setting.occurrence == occurrence && setting.key == key)
                return &setting.value;
        return nullptr;
    }
    const Setting wanted{key, "", occurrence};
    const auto found = std::lower_bound(
        byKey.begin(), byKey.end(), wanted,
        [&](std::uint32_t at, const Setting& one) { return IsBefore(settings[at], one); });
    const bool isThere = found != byKey.end() && !IsBefore(wanted, settings[*found]);
    return isThere ? &settings[*found].value : nullptr;
}

bool SettingsSection::Holds(const std::string& key, const std::string& value) const {
    return std::any_of(settings.begin(), settings.end(), [&](const Setting& setting) {
        return setting.key == key && setting.value == value;
    });
}

std::string SettingsSection::Title() const {
    if (isTop || !name.empty())
        return name;
    for (const char* key : {"pattern", "dialing_template", "address", "caller", "name", "group",
                            "user_name", "host", "index", "id", identifier})
        if (const std::string* value = Find(key); value != nullptr && !value->empty())
            return std::string(key) + "=" + *value;
    return "(without a name)";
}

const SettingsSection* SettingsFile::Section(const std::string& name) const {
    for (const SettingsSection& section : sections)
        if (section.name == name && (!name.empty() || section.isTop))
            return &section;
    return nullptr;
}

SettingsFile ReadSettings(const FileState* state) {
    SettingsFile none{true, {{"", true, {}, {}}}};
    if (state == nullptr || !S_ISREG(state->info.st_mode) || !state->content)
        return none;
    try {
        Document document(*state->content, Document::Layout::Sectioned, "");
        return SettingsOf(document);
    } catch (const Configuration::FileError&) {
        // The store keeps a NUL like any other byte; but this is no text, such as a recording.
        if (state->content->find('\0') != std::string::npos)
            return none;
        Document document(*state->content, Document::Layout::Flat, "");
        SettingsFile file = SettingsOf(document);
        file.isReadable = false;
        return file;
    }
}

std::vector<std::ptrdiff_t> MatchSections(const SettingsFile& before, const SettingsFile& after) {
    std::vector<std::ptrdiff_t> match(before.sections.size(), -1);
    std::map<std::string, std::pair<Indexes, Indexes>> byName;
    for (std::size_t i = 1; i < before.sections.size(); ++i)
        byName[before.sections[i].name].first.push_back(static_cast<std::ptrdiff_t>(i));
    for (std::size_t i = 1; i < after.sections.size(); ++i)
        byName[after.sections[i].name].second.push_back(static_cast<std::ptrdiff_t>(i));
    match[0] = 0;
    Pairing pairing(before.sections, after.sections, match);
    for (const auto& [name, sides] : byName)
        pairing.Pair(sides.first, sides.second);
    return match;
}

std::vector<SettingChange> CompareSettings(const SettingsFile& before, const SettingsFile& after) {
    std::vector<SettingChange> changes;
    const std::vector<std::ptrdiff_t> match = MatchSections(before, after);
    std::vector<bool> isKnown(after.sections.size(), false);
    for (std::size_t i = 0; i < match.size(); ++i) {
        const auto target = match[i];
        const SettingsSection* now =
            target < 0 ? nullptr : &after.sections[static_cast<std::size_t>(target)];
        if (now != nullptr)
            isKnown[static_cast<std::size_t>(target)] = true;
        SettingChange change;
        change.sectionBefore = static_cast<std::ptrdiff_t>(i);
        change.sectionAfter = target;
        CompareSections(&before.sections[i], now, change, changes);
    }
    for (std::size_t i = 0; i < after.sections.size(); ++i) {
        SettingChange change;
        change.sectionAfter = static_cast<std::ptrdiff_t>(i);
        if (!isKnown[i])
            CompareSections(nullptr, &after.sections[i], change, changes);
    }
    return changes;
}

}  // namespace rehearse
