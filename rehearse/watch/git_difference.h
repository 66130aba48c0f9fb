#pragma once

#include <ostream>
#include <vector>

#include "rehearse/watch/tree_watch.h"

namespace rehearse {

/// Changes in the form that `git apply` takes: with modes, links, empty files and names of any
/// bytes. A file that is too large to be told but was only renamed is told as that.
void WriteGitDifference(const std::vector<FileChange>& changes, std::ostream& text);

}  // namespace rehearse
