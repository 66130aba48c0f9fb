#pragma once

#include <functional>
#include <string>
#include <vector>

namespace rehearse {

/// Copies what a rehearsal takes of a firmware, from a tree or an archive of one, to `to`, which is
/// a directory: the factory configuration with its label, the per-country files and the programs.
/// Throws Failure.
void TakeFirmware(const std::string& source, const std::string& to,
                  const std::function<void()>& goOn);

/// Lays a firmware's tree under the copy of a backup. What that holds in its places is removed, and
/// named. Throws Failure.
std::vector<std::string> LayFirmware(const std::string& firmware, const std::string& root,
                                     const std::function<void()>& goOn);

/// The version on the factory's label of a tree; empty when there is none.
std::string TargetOf(const std::string& root);

}  // namespace rehearse
