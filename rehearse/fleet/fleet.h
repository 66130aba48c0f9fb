#pragma once

#include <string>
#include <vector>

#include "rehearse/site/site.h"

namespace rehearse {

/// What is asked for of a fleet. Empty: what GNU parallel does by itself.
struct FleetRequest {
    std::string directory;  // of the backups: directories or archives
    std::string out;        // DIR-rehearsed when empty
    std::string jobs;
    std::vector<std::string> sshLogins;
    unsigned secondsAtMost = 600;  // for one site
};

/// Rehearses all sites of a directory as `site` would be, and leaves fleet.json, fleet.html and a
/// page for each. Sites that an interrupted fleet has rehearsed are not rehearsed again. Returns
/// the worst exit status of a site. Throws Failure.
int RehearseFleet(const FleetRequest& request, const Request& site, bool showsProgress);

}  // namespace rehearse
