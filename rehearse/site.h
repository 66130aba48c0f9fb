#pragma once

#include <string>

#include "rehearse/change_table.h"
#include "rehearse/progress.h"

namespace rehearse {

/// What is asked for. Empty: not asked for.
struct Request {
    std::string tree;        // a directory, or an archive of one
    std::string configRoot;  // as the appliance sees it
    std::string orixPath;
    std::string binary;
    // Where to leave what.
    std::string apply;
    std::string report;
    std::string diff;
    std::string json;
    std::string html;
};

/// Rehearses the upgrade of one site and returns the result, as docs/rehearsal.schema.json has it.
/// A rehearsal that can't be held is a result too. Throws Failure when what was asked for can't be
/// written, or the user interrupted it.
Json RehearseSite(const Request& request, Progress& progress);

/// The verdict in ten to thirty lines of text.
std::string VerdictText(const Json& result);

/// The page that shows a result, of a site or a fleet.
std::string Page(const Json& result);

/// JSON as it is written to files: bytes that are no UTF-8 are replaced.
std::string Text(const Json& json, int indent = 1);

}  // namespace rehearse
