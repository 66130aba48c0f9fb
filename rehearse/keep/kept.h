#pragma once

#include <optional>
#include <string>
#include <vector>

#include "rehearse/verdict/result.h"

namespace rehearse {

// What is kept of a result, so that another can be compared with it: some ten KB.

/// A setting of the upgraded tree. `made` is an index into the steps that made it what it is.
struct KeptSetting {
    std::string key;
    std::string value;
    int made = 0;
};
void to_json(Json& json, const KeptSetting& setting);
void from_json(const Json& json, KeptSetting& setting);

struct KeptSection {
    std::string name;
    std::vector<KeptSetting> settings;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(KeptSection, name, settings)

/// A file or a link. The top level is the first section; a file without settings has none.
struct KeptFile {
    std::string path;
    std::string mode;  // and owner
    std::string digest;
    std::vector<KeptSection> sections;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(KeptFile, path, mode, digest, sections)

/// The upgraded tree, without what the firmware brings. Secrets and digests are keyed by the
/// backup's content: who has that knows them, and nobody else can try them out.
struct KeptTree {
    std::vector<std::string> steps;  // the first is none
    std::vector<KeptFile> files;     // sorted by path
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(KeptTree, steps, files)

/// What a fleet tells of a site.
struct KeptSummary {
    std::string format = "setupmend-kept/1";
    std::string run;     // what was asked for: backup, firmware, program and options
    std::string common;  // of that, what all sites of the fleet have
    std::string backup;  // tells one backup from another
    ProgramResult program;
    std::string root;  // where the configuration really lies, below the tree; ends with "/"
    double seconds = 0;
    Verdict verdict;
    std::vector<Problem> problems;
    std::size_t harmless = 0;
    std::vector<StepResult> steps;  // without what they said
    std::vector<std::string> extensions;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(KeptSummary, format, run, common, backup, program, root, seconds,
                                   verdict, problems, harmless, steps, extensions)

/// A tree for a file of results. Beside its summary it takes most of the room.
std::string PackedTree(const KeptTree& tree);

/// Writes a file of one result; `packedTree` is empty when there is no upgraded tree.
void WriteKept(const std::string& path, const KeptSummary& summary, const std::string& packedTree);

/// A result as it is kept. Its tree is unpacked only where it is looked into.
struct KeptResult {
    KeptSummary summary;
    std::string packedTree;  // empty when there is none
};

/// Nothing when there is no such file, or it is not whole.
std::optional<KeptSummary> ReadKept(const std::string& path);
std::optional<KeptResult> ReadKeptResult(const std::string& path);
std::optional<KeptTree> UnpackedTree(const std::string& packedTree);

}  // namespace rehearse
