#pragma once

#include <string>

namespace rehearse {

// Where things stand in the sandbox.
constexpr const char* treeInside = "/tree";
constexpr const char* scratchInside = "/scratch";
constexpr const char* binaryInside = "/setupmend";
constexpr const char* upgradedInside = "/scratch/upgraded";

/// What the sandbox is made for: the program, started again as root of the copy. It upgrades the
/// appliance that it finds at the real places, looks on, starts it once more, and leaves in
/// /scratch: result.json, the steps, changes and problems; diff; mend.log.
struct Inside {
    std::string configRoot;   // setupmend's only argument; empty for none
    bool keepsTree = false;   // leaves /scratch/upgraded as well, as the first run left it
    bool runsBinary = false;  // runs /setupmend instead of the linked upgrade
    int progress = -1;        // a descriptor that gets a line for each thing begun
};

/// Returns the exit status. Throws Failure.
int RunInside(const Inside& inside);

}  // namespace rehearse
