#include "rehearse/ledger/ledger.h"

#include <fnmatch.h>

#include <algorithm>
#include <fmt/format.h>
#include <numeric>
#include <set>

#include "app/version.h"
#include "rehearse/ledger/secrets.h"

namespace rehearse {
namespace {

bool Matches(const char* pattern, const std::string& text) {
    return fnmatch(pattern, text.c_str(), FNM_PATHNAME | FNM_EXTMATCH) == 0;
}

/// "*" is any section, and the top level as well.
bool MatchesSection(const char* pattern, const SettingsSection& section) {
    if (std::string_view(pattern) == "*")
        return true;
    return section.isTop ? *pattern == '\0' : *pattern != '\0' && Matches(pattern, section.name);
}

bool IsOpen(const Row& row, const RunContext& run) {
    return *row.below == '\0' || IsOlderVersion(run.liveVersion, row.below);
}

/// Such as a recording: it is all or nothing.
bool HasNone(const SettingsFile& file) {
    return std::all_of(file.sections.begin(), file.sections.end(),
                       [](const SettingsSection& section) { return section.settings.empty(); });
}

constexpr const char* fromFactory = "from the factory";
constexpr const char* nothingToTake = "there was nothing to take over";
constexpr const char* wasEmpty = "it was empty";

}  // namespace

/// A file that a step changed.
struct Ledger::FileStep {
    const FileChange* change;
    std::string name;  // below the configuration root
    const SettingsFile* before;
    const SettingsFile* after;
    std::vector<std::uint32_t> sectionsBefore;
    std::vector<std::uint32_t> sectionsAfter;
};

/// A setting that it changed there.
struct Ledger::Event {
    const FileStep* file;
    SettingChange change;
    NodeId before = none;
    NodeId after = none;
    bool isTold = false;
    const char* reason = "";
    const Row* row = nullptr;  // that says so, if one does
    Fate origin = Fate::Computed;

    const SettingsSection* SectionBefore() const { return At(*file->before, change.sectionBefore); }
    const SettingsSection* SectionAfter() const { return At(*file->after, change.sectionAfter); }
    static const SettingsSection* At(const SettingsFile& file, std::ptrdiff_t index) {
        return index < 0 ? nullptr : &file.sections[static_cast<std::size_t>(index)];
    }
};

/// The entry of one step.
class Ledger::Step {
public:
    Step(Ledger& ledger, const std::string& name, const std::vector<FileChange>& changes,
         SharedTree after, const RunContext& run)
        : ledger_(ledger),
          name_(name),
          run_(run),
          after_(std::move(after)),
          changes_(changes),
          treeBefore_(*ledger.state_, ledger.aliases_),
          treeAfter_(*after_, ledger.aliases_),
          rows_(RowsOf(name)) {
        number_ = static_cast<std::uint16_t>(ledger.steps_.size());
        ledger.steps_.push_back(name);
    }

    void Enter() {
        // The per-file checks are of the files that were there when the set was checked.
        if (name_ == "file set check")
            for (const auto& [path, state] : *ledger_.state_)
                ledger_.queued_.insert(path);
        std::map<std::string, std::vector<const FileChange*>> batches;
        for (const FileChange& change : changes_)
            if (const auto name = ledger_.aliases_.NameOf(change.path)) {
                waiting_.insert(change.path);
                const std::size_t slash = name->find('/');
                batches[slash == std::string::npos ? "" : name->substr(0, slash)].push_back(
                    &change);
            }
        // A directory after the other, so that thousands of extensions need the memory of one. What
        // moves out of the files at the top is waited for.
        for (const auto& [directory, batch] : batches)
            EnterBatch(directory, batch);
        CheckDue();
        ledger_.state_ = after_;
    }

private:
    void EnterBatch(const std::string& directory, const std::vector<const FileChange*>& batch) {
        for (const FileChange* change : batch)
            Read(*change);
        for (Event& event : events_)
            MakeNodes(event);
        Receive();
        for (Event& event : events_)
            if (event.change.before)
                AccountForOld(event);
        for (Event& event : events_)
            if (event.change.after && !event.isTold)
                AccountForNew(event);
        for (Event& event : events_)
            Close(event);
        for (FileStep& file : files_) {
            if (!file.change->before && !hasOthers_.contains(&file))
                ledger_.whole_.insert(file.change->path);
            if (file.change->after)
                ledger_.sections_[file.change->path] = std::move(file.sectionsAfter);
            else
                ledger_.sections_.erase(file.change->path);
        }
        files_.clear();
        filesByPath_.clear();
        hasOthers_.clear();
        events_.clear();
        made_.clear();
        if (!directory.empty()) {
            treeBefore_.Forget(directory);
            treeAfter_.Forget(directory);
        }
    }

    Spot SpotOf(const Event& event) const {
        return {
            context_,         event.file->name,       event.SectionBefore(), event.SectionAfter(),
            event.change.key, event.change.occurrence};
    }

    static Place PlaceIn(const FileStep& file, const SettingsSection* section,
                         const std::string& key) {
        return {file.change->path, section != nullptr ? section->Title() : "", key};
    }

    void Read(const FileChange& change) {
        const auto name = ledger_.aliases_.NameOf(change.path);
        if (!name)
            return;
        files_.push_back({&change,
                          *name,
                          &treeBefore_.FileAt(change.path),
                          &treeAfter_.FileAt(change.path),
                          {},
                          {}});
        FileStep& file = files_.back();
        waiting_.erase(change.path);
        filesByPath_[change.path] = &file;
        file.sectionsBefore = ledger_.SectionsOf(change.path, *file.before);
        const std::vector<std::ptrdiff_t> match = MatchSections(*file.before, *file.after);
        file.sectionsAfter.assign(file.after->sections.size(), UINT32_MAX);
        for (std::size_t i = 0; i < match.size(); ++i)
            if (match[i] >= 0)
                file.sectionsAfter[static_cast<std::size_t>(match[i])] = file.sectionsBefore[i];
        for (std::uint32_t& section : file.sectionsAfter)
            if (section == UINT32_MAX)
                section = ledger_.nextSection_++;
        for (SettingChange& one : CompareSettings(*file.before, *file.after))
            events_.push_back({&file, std::move(one)});
    }

    Slot SlotBefore(const Event& event) {
        return {event.file->sectionsBefore[static_cast<std::size_t>(event.change.sectionBefore)],
                ledger_.IdOf(event.change.key), event.change.occurrence};
    }
    Slot SlotAfter(const Event& event) {
        return {event.file->sectionsAfter[static_cast<std::size_t>(event.change.sectionAfter)],
                ledger_.IdOf(event.change.key), event.change.occurrence};
    }

    void MakeNodes(Event& event) {
        if (event.change.before)
            event.before = ledger_.NodeAt(
                SlotBefore(event), PlaceIn(*event.file, event.SectionBefore(), event.change.key),
                *event.change.before);
        if (!event.change.after)
            return;
        event.after = ledger_.Make(PlaceIn(*event.file, event.SectionAfter(), event.change.key),
                                   *event.change.after, Fate::Computed, SlotAfter(event).section);
        ledger_.nodes_[event.after].step = number_;
        made_[SlotAfter(event)] = &event;
    }

    std::vector<const Row*> RowsFor(const std::string& file) {
        if (rows_ == nullptr)
            return {};
        const std::size_t slash = file.find('/');
        const bool isExtension =
            slash != std::string::npos && run_.extensions.contains(file.substr(0, slash));
        const std::string shape = isExtension ? "0" + file.substr(slash) : file;
        const std::string key = name_ + "\n" + run_.liveVersion + "\n" + shape;
        const auto known = ledger_.matches_.find(key);
        if (known != ledger_.matches_.end())
            return known->second;
        std::vector<const Row*>& rows = ledger_.matches_[key];
        for (const Row& row : *rows_)
            if (IsOpen(row, run_) && Matches(row.file, shape))
                rows.push_back(&row);
        return rows;
    }

    static bool IsAbout(const Row& row, const Spot& spot, const SettingsSection* section) {
        return section != nullptr && MatchesSection(row.section, *section) &&
               Matches(row.key, spot.key) && (!row.applies || row.applies(spot));
    }

    /// What was there changed or went.
    void AccountForOld(Event& event) {
        const Spot spot = SpotOf(event);
        const std::vector<const Row*> rows = RowsFor(event.file->name);
        if (event.change.after) {
            if (!event.isTold)  // it may be what another became
                event.isTold = HoldsSome(rows, spot, event.SectionBefore(), event);
            return;
        }
        for (const Row* row : rows) {
            if (row->effect != Effect::Becomes && IsAbout(*row, spot, event.SectionBefore()) &&
                (row->effect == Effect::Goes || Follow(event, *row, spot))) {
                event.reason = row->reason;
                event.row = row;
                event.isTold = true;
                return;
            }
        }
        if (event.change.before->empty()) {
            event.reason = wasEmpty;
            event.isTold = true;
        }
    }

    /// What came, and is not what another became.
    void AccountForNew(Event& event) {
        const Spot spot = SpotOf(event);
        if (!event.change.before && IsFromFactory(spot)) {
            event.reason = fromFactory;
            event.origin = Fate::Factory;
            event.isTold = true;
            return;
        }
        if (event.change.before)
            return;  // was asked about before
        event.isTold = HoldsSome(RowsFor(event.file->name), spot, event.SectionAfter(), event);
        if (!event.isTold && event.change.after->empty()) {
            event.reason = nothingToTake;
            event.isTold = true;
        }
    }

    static bool HoldsSome(const std::vector<const Row*>& rows, const Spot& spot,
                          const SettingsSection* section, Event& event) {
        for (const Row* row : rows)
            if (row->effect == Effect::Becomes && IsAbout(*row, spot, section) &&
                row->holds(spot)) {
                event.reason = row->reason;
                event.row = row;
                return true;
            }
        return false;
    }

    /// Follows a setting to where it moved; false when it is in none of these places.
    bool Follow(Event& event, const Row& row, const Spot& spot) {
        bool isFound = false;
        for (const Target& target : row.targets(spot)) {
            const std::string path = ledger_.aliases_.PathOf(target.file);
            const SettingsFile& file = treeAfter_.FileAt(path);
            for (std::size_t i = 0; i < file.sections.size(); ++i) {
                const SettingsSection& section = file.sections[i];
                if (target.section.empty()
                        ? !section.isTop
                        : target.section != "*" && section.name != target.section &&
                              section.Title() != target.section)
                    continue;
                for (const Setting& setting : section.settings)
                    if (setting.key == target.key && setting.value == target.value) {
                        Lead(event, row, path, file, i, setting);
                        isFound = true;
                    }
            }
        }
        return isFound;
    }

    /// A setting that another became, in a file whose turn comes later.
    struct Expected {
        NodeId from;
        const Row* row;
        std::size_t section;
        std::string key;
        unsigned occurrence;
    };

    void Lead(const Event& event, const Row& row, const std::string& path, const SettingsFile& file,
              std::size_t section, const Setting& setting) {
        if (waiting_.contains(path)) {
            expected_[path].push_back(
                {event.before, &row, section, setting.key, setting.occurrence});
            return;
        }
        const auto changed = filesByPath_.find(path);
        const std::uint32_t number = changed != filesByPath_.end()
                                         ? changed->second->sectionsAfter[section]
                                         : ledger_.SectionsOf(path, file)[section];
        Link(event.before, row, {number, ledger_.IdOf(setting.key), setting.occurrence},
             {path, file.sections[section].Title(), setting.key}, setting.value);
    }

    void Link(NodeId from, const Row& row, const Slot& slot, const Place& place,
              const std::string& value) {
        const auto made = made_.find(slot);
        NodeId to = none;
        if (made != made_.end()) {
            Event& target = *made->second;
            to = target.after;
            target.isTold = true;
            target.origin = Fate::Moved;
            if (*target.reason == '\0')
                target.reason = row.reason;
        } else {
            to = ledger_.NodeAt(slot, place, value);
        }
        ledger_.edges_.push_back({from, to, ledger_.IdOf(row.reason), number_});
    }

    /// Takes in what came from files that were entered before.
    void Receive() {
        for (const FileStep& file : files_) {
            const auto expected = expected_.find(file.change->path);
            if (expected == expected_.end())
                continue;
            for (const Expected& one : expected->second) {
                const SettingsSection& section = file.after->sections[one.section];
                const std::string* value = section.Find(one.key, one.occurrence);
                Link(one.from, *one.row,
                     {file.sectionsAfter[one.section], ledger_.IdOf(one.key), one.occurrence},
                     {file.change->path, section.Title(), one.key}, value ? *value : "");
            }
            expected_.erase(expected);
        }
    }

    void Close(Event& event) {
        Ledger& ledger = ledger_;
        if (event.change.before) {
            Node& node = ledger.nodes_[event.before];
            node.isAlive = false;
            node.end = number_;
            if (event.change.after)
                ledger.edges_.push_back(
                    {event.before, event.after, ledger.IdOf(event.reason), number_});
            else
                node.reason = ledger.IdOf(event.reason);
            ledger.current_.erase(SlotBefore(event));
        }
        if (event.change.after) {
            Node& node = ledger.nodes_[event.after];
            node.reason = ledger.IdOf(event.reason);
            node.origin = event.change.before ? Fate::Changed : event.origin;
            if (event.origin != Fate::Factory)
                hasOthers_.insert(event.file);
            ledger.current_[SlotAfter(event)] = event.after;
        }
        if (!event.isTold)
            ledger.open_.push_back(Told(
                event,
                event.change.after
                    ? (event.change.before ? (event.change.after->empty() ? "emptied" : "changed")
                                           : "came from nowhere")
                    : "dropped"));
        else if (IsDoneAgain(event))
            ledger.again_.push_back(Told(event, event.reason));
    }

    Unaccounted Told(const Event& event, std::string what) const {
        const SettingsSection* section =
            event.change.before ? event.SectionBefore() : event.SectionAfter();
        return {name_,
                PlaceIn(*event.file, section, event.change.key),
                event.file->change->path,
                std::move(what),
                event.change.before.has_value(),
                event.change.after.has_value(),
                event.change.before.value_or(""),
                event.change.after.value_or("")};
    }

    /// Whether the conversion belongs to a version that the tree was stamped with already.
    bool IsDoneAgain(const Event& event) const {
        return event.row != nullptr && event.change.before && *event.row->below != '\0' &&
               !run_.stamp.empty() && run_.isDue && IsOlderVersion(run_.liveVersion, run_.stamp) &&
               !IsOlderVersion(run_.stamp, event.row->below);
    }

    // --- what should have changed, and did not ---------------------------------------------------

    void CheckDue() {
        if (!run_.isDue || rows_ == nullptr ||
            std::none_of(rows_->begin(), rows_->end(), [](const Row& row) { return row.isDue; }))
            return;
        for (const auto& [path, state] : *ledger_.state_) {
            // What came whole from the factory is in its new form.
            const auto name = ledger_.aliases_.NameOf(path);
            if (!name || ledger_.whole_.contains(path) ||
                (name_ == "file merge" && !ledger_.queued_.contains(path)))
                continue;
            const std::vector<const Row*> rows = RowsFor(*name);
            if (std::any_of(rows.begin(), rows.end(), [](const Row* row) { return row->isDue; }))
                CheckDueIn(path, *name, *state, rows);
        }
    }

    void CheckDueIn(const std::string& path, const std::string& name, const FileState& state,
                    const std::vector<const Row*>& rows) {
        const auto now = after_->find(path);
        if (now == after_->end())
            return;
        const SettingsFile before = ReadSettings(&state);
        const SettingsFile after = ReadSettings(now->second.get());
        if (!before.isReadable || !after.isReadable)
            return;
        const std::vector<std::ptrdiff_t> match = MatchSections(before, after);
        for (std::size_t i = 0; i < before.sections.size(); ++i) {
            const SettingsSection* kept =
                match[i] < 0 ? nullptr : &after.sections[static_cast<std::size_t>(match[i])];
            for (const Setting& setting : before.sections[i].settings) {
                const std::string* value =
                    kept != nullptr ? kept->Find(setting.key, setting.occurrence) : nullptr;
                if (value == nullptr || *value != setting.value)
                    continue;  // was accounted for, or complained of
                const Spot spot{context_, name,        &before.sections[i],
                                kept,     setting.key, setting.occurrence};
                CheckDueAt(path, spot, rows);
            }
        }
    }

    void CheckDueAt(const std::string& path, const Spot& spot,
                    const std::vector<const Row*>& rows) {
        const Row* due = nullptr;
        for (const Row* row : rows) {
            if (!IsAbout(*row, spot, spot.before))
                continue;
            if (row->effect == Effect::Becomes && row->holds(spot))
                return;
            if (row->isDue && due == nullptr)
                due = row;
        }
        if (due == nullptr || (due->effect == Effect::Becomes && due->holds(spot)))
            return;
        ledger_.open_.push_back({name_,
                                 {path, spot.before->Title(), spot.key},
                                 path,
                                 fmt::format("left as it was ({})", due->reason),
                                 true,
                                 true,
                                 spot.Was(),
                                 spot.Was()});
    }

    Ledger& ledger_;
    const std::string& name_;
    const RunContext& run_;
    SharedTree after_;
    const std::vector<FileChange>& changes_;
    TreeSettings treeBefore_;
    TreeSettings treeAfter_;
    StepContext context_{run_, treeBefore_, treeAfter_};
    const std::vector<Row>* rows_;
    std::uint16_t number_ = 0;
    std::deque<FileStep> files_;
    std::unordered_map<std::string, const FileStep*> filesByPath_;
    std::set<const FileStep*> hasOthers_;  // settings than the factory's
    std::deque<Event> events_;
    std::unordered_map<Slot, Event*, SlotHash> made_;
    std::set<std::string> waiting_;  // files that are not entered yet
    std::map<std::string, std::vector<Expected>> expected_;
};

Ledger::Ledger(SharedTree before, const std::string& root, const std::string& stunFile)
    : first_(std::move(before)), state_(first_), aliases_(*first_, root) {
    aliases_.Add(stunFile, "../stun.cfg");
    IdOf("");
}

std::size_t Ledger::Settings() const {
    std::size_t count = 0;
    for (const auto& [path, state] : *first_)
        if (aliases_.NameOf(path))
            for (const SettingsSection& section : ReadSettings(state.get()).sections)
                count += section.settings.size();
    return count;
}

Ledger::Id Ledger::IdOf(std::string_view text) {
    const auto known = ids_.find(text);
    if (known != ids_.end())
        return known->second;
    texts_.emplace_back(text);
    const Id id = static_cast<Id>(texts_.size() - 1);
    ids_.emplace(texts_.back(), id);
    return id;
}

std::vector<std::uint32_t>& Ledger::SectionsOf(const std::string& path, const SettingsFile& file) {
    std::vector<std::uint32_t>& sections = sections_[path];
    while (sections.size() < file.sections.size())
        sections.push_back(nextSection_++);
    return sections;
}

Ledger::NodeId Ledger::Make(const Place& place, const std::string& value, Fate origin,
                            std::uint32_t number) {
    nodes_.push_back({IdOf(place.file), IdOf(place.section), IdOf(place.key), IdOf(value), IdOf(""),
                      number, 0, 0, origin, true});
    return static_cast<NodeId>(nodes_.size() - 1);
}

Ledger::NodeId Ledger::NodeAt(const Slot& slot, const Place& place, const std::string& value) {
    const auto known = current_.find(slot);
    if (known != current_.end())
        return known->second;
    const NodeId node = Make(place, value, Fate::Carried, slot.section);
    current_[slot] = node;
    return node;
}

Place Ledger::PlaceOf(const Node& node) const {
    return {Text(node.file), Text(node.section), Text(node.key)};
}

void Ledger::Enter(const std::string& step, const std::vector<FileChange>& changes,
                   const SharedTree& after, const RunContext& run) {
    Step(*this, step, changes, after, run).Enter();
}

void Ledger::ForEachWay(const std::function<void(const Way&)>& visit) const {
    // The edges by where they begin: those of a node stand together, in the order of the run.
    std::vector<std::uint32_t> first(nodes_.size() + 2, 0);
    std::vector<bool> hasParent(nodes_.size(), false);
    for (const Edge& edge : edges_) {
        ++first[edge.from + 2];
        hasParent[edge.to] = true;
    }
    std::partial_sum(first.begin(), first.end(), first.begin());
    std::vector<std::uint32_t> order(edges_.size());
    for (std::uint32_t i = 0; i < edges_.size(); ++i)
        order[first[edges_[i].from + 1]++] = i;

    struct Walk {
        NodeId at;
        std::vector<std::uint16_t> steps;
        Id reason;
    };
    std::vector<Walk> walks;  // to all that an origin became
    std::set<NodeId> seen;
    for (NodeId origin = 0; origin < nodes_.size(); ++origin) {
        const Node& node = nodes_[origin];
        const bool isCustomers = node.origin == Fate::Carried;
        if (hasParent[origin] || (isCustomers && node.isAlive))
            continue;
        walks.assign(1, {origin, {}, node.reason});
        if (!isCustomers)
            walks.front().steps.push_back(node.step);
        seen.clear();
        for (std::size_t next = 0; next < walks.size(); ++next) {
            Walk walk = std::move(walks[next]);
            if (!seen.insert(walk.at).second)
                continue;
            const bool isEnd = first[walk.at] == first[walk.at + 1];
            if (isEnd)
                TellWay(node, nodes_[walk.at], walk.reason, walk.steps, visit);
            for (std::uint32_t i = first[walk.at]; i < first[walk.at + 1]; ++i) {
                const Edge& edge = edges_[order[i]];
                walks.push_back({edge.to, walk.steps, edge.reason});
                walks.back().steps.push_back(edge.step);
            }
        }
    }
}

void Ledger::TellWay(const Node& node, const Node& end, Id reason,
                     const std::vector<std::uint16_t>& steps,
                     const std::function<void(const Way&)>& visit) const {
    const bool isCustomers = node.origin == Fate::Carried;
    // What came and went again is nobody's loss.
    if (!isCustomers && !end.isAlive)
        return;
    Way way;
    for (const std::uint16_t step : steps)
        way.steps.push_back(steps_[step]);
    if (isCustomers) {
        way.from = PlaceOf(node);
        way.before = Text(node.value);
    }
    if (end.isAlive) {
        way.to = PlaceOf(end);
        way.after = Text(end.value);
        way.reason = Text(reason);
    } else {
        way.steps.push_back(steps_[end.end]);
        way.reason = Text(end.reason);
    }
    if (!isCustomers)
        way.fate = node.origin;
    else if (!end.isAlive)
        way.fate = Fate::Dropped;
    else if (end.file == node.file && end.key == node.key && end.number == node.number)
        way.fate = way.before == way.after ? Fate::Carried : Fate::Changed;
    else
        way.fate = Fate::Moved;
    if (way.fate != Fate::Carried)
        visit(way);
}

std::size_t Ledger::Carried() const {
    std::size_t count = 0;
    for (const Node& node : nodes_)
        count += node.origin == Fate::Carried && !node.isAlive ? 1 : 0;
    const std::size_t all = Settings();
    return all - std::min(all, count);
}

std::vector<std::pair<std::string, std::string>> Ledger::Exposed(const TreeState& after) const {
    std::vector<std::pair<std::string, std::string>> exposed;
    std::set<std::string> told;
    const auto look = [&](const std::string& from, const FileState& before, const std::string& to) {
        const auto now = after.find(to);
        if (now == after.end() || !told.insert(to).second)
            return;
        constexpr mode_t others = S_IRGRP | S_IROTH;
        const struct stat& info = now->second->info;
        const bool isOthers = info.st_uid != before.info.st_uid ||
                              (info.st_gid != before.info.st_gid && (info.st_mode & S_IRGRP) != 0);
        if ((info.st_mode & others & ~before.info.st_mode) == 0 && !isOthers) {
            told.erase(to);
            return;
        }
        exposed.emplace_back(to, fmt::format("{}; in {} its passwords had {}",
                                             ModeText(*now->second), from, ModeText(before)));
    };
    ForEachWay([&](const Way& way) {
        if (way.fate != Fate::Moved || !IsSecretKey(way.from.key) || way.before.empty())
            return;
        const auto before = first_->find(way.from.file);
        if (before != first_->end())
            look(way.from.file, *before->second, way.to.file);
    });
    for (const auto& [path, state] : *first_) {
        const auto now = after.find(path);
        if (now == after.end() || now->second == state || !S_ISREG(state->info.st_mode) ||
            !aliases_.NameOf(path))
            continue;
        const SettingsFile file = ReadSettings(now->second.get());
        for (const SettingsSection& section : file.sections)
            if (std::any_of(section.settings.begin(), section.settings.end(),
                            [](const Setting& setting) {
                                return IsSecretKey(setting.key) && !setting.value.empty();
                            }))
                look(path, *state, path);
    }
    return exposed;
}

void Ledger::Compare(const TreeState& other) {
    for (const FileChange& change : rehearse::Compare(*state_, other)) {
        // Recordings lie on a disk of their own.
        if (!aliases_.NameOf(change.path) && !change.path.starts_with("mnt/"))
            continue;
        const SettingsFile before = ReadSettings(change.before.get());
        const SettingsFile after = ReadSettings(change.after.get());
        if (change.before && change.after && ModeText(*change.before) != ModeText(*change.after))
            open_.push_back({"",
                             {change.path, "", ModeText(*change.after)},
                             change.path,
                             "though the steps leave it with " + ModeText(*change.before),
                             true,
                             true,
                             "",
                             ""});
        const char* const what = !change.after    ? "not there, though the steps leave it"
                                 : !change.before ? "there, though no step leaves it"
                                                  : "not what the steps make of it";
        const bool isSame = change.before && change.after && change.before->content &&
                            change.after->content &&
                            *change.before->content == *change.after->content;
        if (!isSame && HasNone(before) && HasNone(after))
            open_.push_back(
                {"", {change.path, "", "the file is"}, change.path, what, true, true, "", ""});
        for (const SettingChange& one : CompareSettings(before, after)) {
            const SettingsFile& file = one.before ? before : after;
            const auto index = one.before ? one.sectionBefore : one.sectionAfter;
            open_.push_back(
                {"",
                 {change.path, file.sections[static_cast<std::size_t>(index)].Title(), one.key},
                 change.path,
                 !one.after    ? "not there, though the steps leave it"
                 : !one.before ? "there, though no step leaves it"
                               : "not what the steps make of it",
                 one.before.has_value(),
                 one.after.has_value(),
                 one.before.value_or(""),
                 one.after.value_or("")});
        }
    }
}

}  // namespace rehearse
