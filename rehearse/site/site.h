#pragma once

#include <string>
#include <vector>

#include "rehearse/base/progress.h"
#include "rehearse/verdict/result.h"

namespace rehearse {

/// What is asked for. Empty: not asked for.
struct Request {
    std::string tree;        // a directory, or an archive of one
    std::string configRoot;  // as the appliance sees it
    std::string orixPath;
    std::string binary;
    std::string firmware;  // a tree, or an archive of one
    std::string expected;  // the version that must be upgraded to
    std::string waivers;   // a file
    std::string explain;   // tells the ways of settings that hold this text
    bool showsSecrets = false;
    // Where to leave what; "-" for standard output, of the JSON.
    std::string apply;
    std::string report;
    std::string diff;
    std::string json;
    std::string html;
    // Of a fleet: a file that keeps the result for comparisons, and what all sites have in common.
    std::string keep;
    std::string common;
    std::string programs;  // of the machine that asks: see ProgramsDigest
};

/// A result, and what --explain asked for.
struct Rehearsed {
    SiteResult result;
    std::vector<std::string> explained;
};

/// Tells what is asked for of one site from anything else: its backup, its own settings, and what
/// it has in common with other sites of a fleet.
std::string RunOf(const std::string& tree, const std::string& backup, const std::string& common);

/// Tells the rehearsal that runs, and the program that it is to run, from any other.
std::string ProgramsDigest(const std::string& binary);

/// Rehearses the upgrade of one site. A rehearsal that can't be held is a result too. Throws
/// Failure when what was asked for can't be written, the programs are not those that were meant, or
/// the user interrupted it.
Rehearsed RehearseSite(const Request& request, Progress& progress);

}  // namespace rehearse
