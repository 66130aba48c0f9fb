#pragma once

#include <string>

namespace rehearse {

/// What a site needs otherwise than others, as its setupmend-site.toml says. Empty or 0: as asked
/// for.
struct OwnSettings {
    std::string configRoot;      // config-root
    std::string orixPath;        // orix-path
    unsigned secondsAtMost = 0;  // time-limit
};

constexpr const char* ownSettingsName = "setupmend-site.toml";

/// The file beside a backup that has settings for it: BACKUP.setupmend-site.toml or, for all that
/// lie there, setupmend-site.toml. Empty when there is none.
std::string OwnSettingsBeside(const std::string& tree);

/// Reads such a file. Throws Failure for one that is not understood: a slip would be a rehearsal of
/// something else.
OwnSettings ReadOwnSettings(const std::string& path);

}  // namespace rehearse
