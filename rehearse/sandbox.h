#pragma once

#include <functional>
#include <string>

namespace rehearse {

/// What is run, and on what. All paths are of this machine.
struct Sandbox {
    std::string root;        // the copy of the appliance, which is changed
    std::string scratch;     // the working directory in the sandbox, for mend.log and the result
    std::string binary;      // the setupmend to run; empty for the linked one
    std::string configRoot;  // its argument, as the appliance sees it; empty for none
    std::string orixPath;    // ORIX_PATH; empty for none
    bool keepsTree = false;  // a copy of what the first run left, in the scratch directory
};

/// Upgrades the copy in a sandbox in which it stands at the real places, beside this machine's
/// programs and libraries, and nothing else of this machine. `progress` is told each thing begun,
/// and called about ten times a second, with an empty text; it may throw, which ends the run.
/// Throws Failure, with the reason, when the sandbox can't be made or what runs in it died.
void RunInSandbox(const Sandbox& sandbox, const std::function<void(const std::string&)>& progress);

/// Whether the sandbox shows something of its own in a place of the appliance.
bool IsHidden(const std::string& place);

}  // namespace rehearse
