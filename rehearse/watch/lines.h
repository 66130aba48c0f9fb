#pragma once

#include <dtl/dtl.hpp>
#include <string>
#include <vector>

#include "rehearse/watch/tree_watch.h"

namespace rehearse {

using Lines = std::vector<std::string>;
using LineDiff = dtl::Diff<std::string, Lines>;

/// A file's lines, none when there is no file. A last line without a line end is another line than
/// the same with one, as for patch, and says so.
Lines LinesIn(const std::shared_ptr<const FileState>& state);

/// Whether the exact comparison would take too long: its time grows with what differs. Such files
/// are told as a whole.
bool IsTooLong(const Lines& a, const Lines& b);

}  // namespace rehearse
