#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "rehearse/ledger/ledger.h"
#include "rehearse/verdict/problems.h"
#include "rehearse/watch/change_table.h"
#include "rehearse/watch/tree_watch.h"

class ConfigUpgrader;

namespace rehearse {

/// What one step did.
struct StepRecord {
    std::string name;
    double seconds = 0;
    std::size_t changed = 0;
    std::size_t added = 0;
    std::size_t removed = 0;
    std::string report;
    std::string printed;  // by the commands that it ran
};

/// One run of an upgrade on the tree as it stands, and what was seen of it.
struct Trial {
    SharedTree before;
    SharedTree after;
    std::vector<StepRecord> steps;
    ChangeTable changes;
    std::vector<KeptFact> facts;
    RunContext context;
    std::unique_ptr<Ledger> ledger;  // of a run that was watched by step
    std::string oldStamp;
    std::string stamp;
    std::string crash;  // of a program from outside: how it died
    /// Tells the changes of a run that was seen at its end alone.
    void CompareTrees(const Extensions& extensions);
    bool Has(Fact::Kind kind) const;
};

/// The directories of extensions and attendants, by the extension index in its old form or the new.
Extensions ExtensionsIn(const TreeState& state, const std::string& root);

/// Runs upgrades in the sandbox.
class TrialRunner {
public:
    using Say = std::function<void(const std::string&)>;

    TrialRunner(std::string configRoot, Say say);

    /// Runs the linked upgrade and looks after each step. What the tree has in common with `known`
    /// is kept once.
    Trial RunWatched(const SharedTree& known);
    /// Runs the linked upgrade, or a program, on a tree that is known to be `before`, and looks at
    /// the end alone. What it leaves in common with `known` is kept once.
    Trial RunBlind(bool isProgram, const SharedTree& before, const SharedTree& known);

    /// The configuration root below the tree, with a "/" at its end.
    const std::string& Root() const { return root_; }
    /// The stun.cfg that lies outside of it.
    const std::string& StunFile() const { return stunFile_; }

private:
    void RunLinked(const std::function<void(ConfigUpgrader&, const char*)>& afterStep,
                   const std::function<void(const Fact&)>& onFact) const;
    std::string RunProgram() const;

    std::string configRoot_;
    Say say_;
    std::string root_;
    std::string stunFile_;
};

}  // namespace rehearse
