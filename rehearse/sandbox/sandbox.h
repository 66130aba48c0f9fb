#pragma once

#include <functional>
#include <string>
#include <vector>

namespace rehearse {

// Where things stand in the sandbox.
constexpr const char* treeInside = "/tree";
constexpr const char* pristineInside = "/pristine";
constexpr const char* scratchInside = "/scratch";
constexpr const char* binaryInside = "/setupmend";
constexpr const char* upgradedInside = "/scratch/upgraded";
constexpr int progressInside = 3;  // a descriptor

/// What is run, and on what. All paths are of this machine.
struct Sandbox {
    std::string root;      // the copy of the appliance, which is changed
    std::string pristine;  // another, which is not
    std::string scratch;   // the working directory in the sandbox, for mend.log and the result
    std::string binary;    // a setupmend that is run; empty for none
    std::string orixPath;  // ORIX_PATH; empty for none
    std::vector<std::string> arguments;  // of this program, which is started again
};

/// Starts this program again in a sandbox in which the copy stands at the real places, beside this
/// machine's programs and libraries, and nothing else of this machine. `progress` is told each line
/// that comes through its descriptor, and called about ten times a second, with an empty text; it
/// may throw, which ends the run. Throws Failure, with the reason, when the sandbox can't be made,
/// and Crash when what runs in it is killed.
void RunInSandbox(const Sandbox& sandbox, const std::function<void(const std::string&)>& progress);

/// Whether a name at the top is the sandbox's own, and the copy's is seen below treeInside alone.
bool IsOwnTop(const std::string& name);

/// Whether the sandbox shows something of its own in a place of the appliance.
bool IsHidden(const std::string& place);

}  // namespace rehearse
