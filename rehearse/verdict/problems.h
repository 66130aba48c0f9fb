#pragma once

#include <set>
#include <span>
#include <string>
#include <vector>

#include "app/fact.h"
#include "rehearse/verdict/result.h"
#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// What the run told, kept.
struct KeptFact {
    Fact::Kind kind;
    std::string path;  // below the tree where it is a file's
    std::string reason;
    std::size_t line = 0;
    bool isMissing = false;
    std::string step;
};

/// What a rehearsal found that somebody has to look at: from what the run tells as data, from the
/// ledger and, of a program that tells nothing, from its report.
class Problems {
public:
    /// `before` and `after` tell which files the unit had and has; they stay the caller's.
    Problems(const TreeState& before, const TreeState& after) : before_(before), after_(after) {}

    void Add(const std::string& rule, ProblemItem item);
    void AddFacts(const std::vector<KeptFact>& facts);
    /// Reads the report of a program that tells no facts.
    void ReadReport(const std::string& report);

    std::size_t Count() const { return items_.size(); }
    bool Has(const std::string& rule) const;
    /// Messages on files that this unit never had.
    std::size_t Harmless() const { return harmless_.size(); }
    /// The worst first.
    std::vector<Problem> Sorted() const;

private:
    struct Item {
        std::string rule;
        ProblemItem item;
    };

    bool IsAbsent(const std::string& file) const {
        return !before_.contains(file) && !after_.contains(file);
    }
    void AddOnce(const std::string& rule, ProblemItem item);

    const TreeState& before_;
    const TreeState& after_;
    std::vector<Item> items_;
    std::set<std::string> known_;  // one message about one file is one problem
    std::set<std::string> harmless_;
};

/// The gravity of a kind of problem: 0 for the worst.
std::size_t RankOf(const std::string& rule);

/// All texts by which a report is sorted, for the test that has each of them printed by a step.
std::vector<std::string> ReportTexts();

}  // namespace rehearse
