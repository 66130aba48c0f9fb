#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "rehearse/ledger/row.h"
#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// Where a setting stands, for a reader.
struct Place {
    std::string file;  // below the tree
    std::string section;
    std::string key;
    bool operator==(const Place&) const = default;
};

/// What became of one setting in the end, or where a new one came from.
enum class Fate : std::uint8_t { Carried, Changed, Moved, Dropped, Factory, Computed };
constexpr const char* fateNames[] = {"carried", "changed", "moved",
                                     "dropped", "factory", "computed"};

/// The way of one setting. A new one has no place before, a dropped one none after; one that went
/// to several places has a way to each.
struct Way {
    Fate fate = Fate::Carried;
    Place from;
    std::string before;
    Place to;
    std::string after;
    std::vector<std::string> steps;
    std::string reason;  // of the last step that has one
};

/// A setting that changed, went, came or stayed without a row that says so.
struct Unaccounted {
    std::string step;
    Place place;
    std::string path;  // the file's
    std::string text;  // what happened, without values
    bool hadValue = false;
    bool hasValue = false;
    std::string before;
    std::string after;
};

/// Accounts for every setting of the live tree: what came in, what went out, and what is left after
/// each step, held against the table of what the steps do on purpose.
class Ledger {
public:
    /// Begins with the tree as it is before the first step.
    /// `stunFile` is the one that lies outside of the configuration root.
    Ledger(SharedTree before, const std::string& root, const std::string& stunFile);

    /// Enters what a step changed, and the tree that it left.
    void Enter(const std::string& step, const std::vector<FileChange>& changes,
               const SharedTree& after, const RunContext& run);

    const std::vector<Unaccounted>& Open() const { return open_; }
    /// What was converted although the tree bore a stamp of a version that has it already.
    const std::vector<Unaccounted>& Again() const { return again_; }
    /// The customer's settings, and how many of them are where and what they were.
    std::size_t Settings() const;
    std::size_t Carried() const;
    /// The ways of all that is not carried over. `visit` is called for each.
    void ForEachWay(const std::function<void(const Way&)>& visit) const;
    /// Passwords that more users can read than before, as texts.
    std::vector<std::pair<std::string, std::string>> Exposed(const TreeState& after) const;

    /// Enters what another program left otherwise than these steps did.
    void Compare(const TreeState& other);

private:
    using Id = std::uint32_t;
    using NodeId = std::uint32_t;
    static constexpr NodeId none = UINT32_MAX;

    /// A setting as it was between two steps.
    struct Node {
        Id file, section, key, value;
        Id reason;
        std::uint32_t number;  // of the section, whatever it is called
        std::uint16_t step;    // that made it; 0 for none
        std::uint16_t end;     // that ended it
        Fate origin;           // Carried for the customer's own
        bool isAlive;
    };
    struct Edge {
        NodeId from, to;
        Id reason;
        std::uint16_t step;
    };
    struct Slot {
        std::uint32_t section;
        Id key;
        std::uint32_t occurrence;
        bool operator==(const Slot&) const = default;
    };
    struct SlotHash {
        std::size_t operator()(const Slot& slot) const noexcept {
            return (std::size_t{slot.section} * 1000003U + slot.key) * 31U + slot.occurrence;
        }
    };
    struct FileStep;
    struct Event;
    class Step;

    Id IdOf(std::string_view text);
    const std::string& Text(Id id) const { return texts_[id]; }
    /// The numbers of a file's sections, which they keep whatever is inserted before them.
    std::vector<std::uint32_t>& SectionsOf(const std::string& path, const SettingsFile& file);
    NodeId NodeAt(const Slot& slot, const Place& place, const std::string& value);
    NodeId Make(const Place& place, const std::string& value, Fate origin, std::uint32_t number);
    Place PlaceOf(const Node& node) const;
    /// The way from an origin to one of the ends that it led to.
    void TellWay(const Node& node, const Node& end, Id reason,
                 const std::vector<std::uint16_t>& steps,
                 const std::function<void(const Way&)>& visit) const;

    SharedTree first_;
    SharedTree state_;
    Aliases aliases_;
    std::deque<std::string> texts_;
    std::unordered_map<std::string_view, Id> ids_;
    std::deque<Node> nodes_;  // which need not move when they grow
    std::deque<Edge> edges_;
    std::unordered_map<Slot, NodeId, SlotHash> current_;
    std::unordered_map<std::string, std::vector<std::uint32_t>> sections_;
    std::uint32_t nextSection_ = 0;
    std::vector<std::string> steps_{""};
    std::map<std::string, std::vector<const Row*>> matches_;  // by step and shape of the file
    std::set<std::string> whole_;                             // files that came from the factory
    std::set<std::string> queued_;                            // for the per-file checks
    std::vector<Unaccounted> open_;
    std::vector<Unaccounted> again_;
};

}  // namespace rehearse
