#pragma once

#include <string>
#include <vector>

namespace rehearse {

/// What the sandbox is made for: the program, started again as root of the copy. It upgrades the
/// appliance that it finds at the real places, looks on, starts it once more, upgrades it anew with
/// its directories in the other order, and leaves in /scratch: result, an InsideResult as
/// MessagePack; mend.log; kept, when there is a file "key"; and what is asked for.
struct Inside {
    std::string configRoot;  // setupmend's only argument; empty for none
    std::string explain;     // what to tell the ways of; empty for nothing
    bool keepsTree = false;  // leaves /scratch/upgraded as well, as the first run left it
    bool makesDifference = false;
    bool runsBinary = false;  // runs /setupmend, and the linked upgrade to compare with
    bool showsSecrets = false;
    int progress = -1;  // a descriptor that gets a line for each thing begun
};

/// The arguments that start this program so.
std::vector<std::string> ArgumentsOf(const Inside& inside);

/// Returns the exit status. Throws Failure.
int RunInside(const Inside& inside);

}  // namespace rehearse
