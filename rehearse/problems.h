#pragma once

#include <set>
#include <string>
#include <vector>

#include "rehearse/change_table.h"
#include "rehearse/tree_watch.h"

namespace rehearse {

/// A kind of problem, with what it means for the site and what to do about it.
struct ProblemRule;

/// What a rehearsal found that somebody has to look at, sorted out of the report and of what the
/// commands printed.
class Problems {
public:
    /// `before` and `after` tell which files the unit had and has; they stay the caller's.
    Problems(const TreeState& before, const TreeState& after) : before_(before), after_(after) {}

    /// Reads what one step reported, and what its commands printed.
    void Read(const std::string& step, const std::string& report, const std::string& printed);

    /// Adds what no message tells: the next start's changes, a label without a line end. `rule` is
    /// the name of one of the rules that have no texts.
    void Add(const std::string& rule, const std::string& text, const std::string& file = "");

    /// Writes the array "problems", the worst first, and "harmless", a number.
    void Write(Json& result) const;

private:
    struct Item {
        const ProblemRule* rule;
        std::string text;
        std::string file;  // below the tree
        long line = 0;
        std::string reason;
        std::string step;
    };

    void ReadLine(const std::string& previous, const std::string& line, const std::string& next,
                  const std::string& step);
    bool IsHarmless(const Item& item) const;
    void TakeReason(Item& item, const std::string& next) const;

    const TreeState& before_;
    const TreeState& after_;
    std::vector<Item> items_;
    std::set<std::string> known_;  // one message about one file is one problem
    std::set<std::string> harmless_;
};

/// A line in which the names of extensions are "*".
std::string FoldLine(const std::string& line, const std::set<std::string>& extensions);

/// A step's report, with lines that differ only in the extension told once.
std::string FoldReport(const std::string& report, const std::set<std::string>& extensions);

}  // namespace rehearse
