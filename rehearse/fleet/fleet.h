#pragma once

#include <string>
#include <vector>

#include "rehearse/site/site.h"

namespace rehearse {

/// What is asked for of a fleet. Empty: what GNU parallel does by itself, or not asked for.
struct FleetRequest {
    std::string directory;  // of the backups: directories or archives
    std::string out;        // DIR-rehearsed when empty
    std::string jobs;
    std::vector<std::string> sshLogins;
    std::vector<std::string> only;  // patterns of names
    bool triesAgain = false;        // what failed, whatever is kept of it
    std::string baseline;           // the OUT of another run
    std::string againstFirmware;    // rehearsed first, as the baseline
    std::string againstBinary;
    std::string junit;             // where to leave it
    unsigned secondsAtMost = 600;  // for one site
};

/// Rehearses all sites of a directory as `site` would be, and leaves fleet.json, fleet.html and a
/// page for each. Sites of which a result is kept that was asked for in the same way are not
/// rehearsed again. Returns the worst exit status of a site or, with a baseline, the comparison's.
/// Throws Failure.
int RehearseFleet(const FleetRequest& request, const Request& site, bool showsProgress);

}  // namespace rehearse
