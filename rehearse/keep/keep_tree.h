#pragma once

#include <string>

#include "rehearse/keep/kept.h"
#include "rehearse/ledger/ledger.h"
#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// What is kept of an upgraded tree. The secrets of `before` are hidden as well as its own, by
/// `key`; the ledger knows which steps made what.
KeptTree KeepTree(const TreeState& before, const TreeState& after, const Ledger& ledger,
                  const std::string& key);

/// A value as somebody may read it: without what tells equal secrets.
std::string Readable(const std::string& keptValue);

}  // namespace rehearse
