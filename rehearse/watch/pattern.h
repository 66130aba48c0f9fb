#pragma once

#include <set>
#include <string>

namespace rehearse {

/// The directories of extensions and attendants.
using Extensions = std::set<std::string>;

/// A path in which the directories of extensions and attendants are "*": what many of them have in
/// common.
std::string Pattern(const std::string& path, const Extensions& extensions);

/// A path of a site whose configuration lies below `root` ("data/pbx/"), as most sites have it.
std::string AtUsualPlace(const std::string& path, const std::string& root);

/// A line in which the names of extensions are "*".
std::string FoldLine(const std::string& line, const Extensions& extensions);

/// A step's report, with lines that differ only in the extension told once.
std::string FoldReport(const std::string& report, const Extensions& extensions);

}  // namespace rehearse
