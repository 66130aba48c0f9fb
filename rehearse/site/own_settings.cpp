#include "rehearse/site/own_settings.h"

#include <filesystem>
#include <fmt/format.h>
#include <toml++/toml.h>

#include "rehearse/base/failure.h"
#include "rehearse/base/text_file.h"

namespace fs = std::filesystem;

namespace rehearse {

std::string OwnSettingsBeside(const std::string& tree) {
    fs::path path = fs::absolute(tree).lexically_normal();
    if (!path.has_filename())  // "customer/"
        path = path.parent_path();
    for (const fs::path& file :
         {fs::path(path.string() + "." + ownSettingsName), path.parent_path() / ownSettingsName}) {
        std::error_code error;
        if (fs::is_regular_file(fs::symlink_status(file, error)))
            return file;
    }
    return {};
}

OwnSettings ReadOwnSettings(const std::string& path) {
    OwnSettings own;
    const auto refuse = [&](const std::string& what) {
        throw Failure(path + ": " + what +
                      "; it knows config-root = \"/...\", orix-path = \"/...\" and time-limit = "
                      "SECONDS");
    };
    try {
        for (const auto& [key, value] : toml::parse(ReadAll(path))) {
            const auto text = value.value<std::string>();
            const auto number = value.value<std::int64_t>();
            if (key == "config-root" && text)
                own.configRoot = *text;
            else if (key == "orix-path" && text)
                own.orixPath = *text;
            else if (key == "time-limit" && value.is_integer() && *number > 0 &&
                     *number < 1'000'000)
                own.secondsAtMost = static_cast<unsigned>(*number);
            else
                refuse(fmt::format("\"{}\" is not understood", key.str()));
        }
    } catch (const toml::parse_error& error) {
        refuse(fmt::format("line {}: {}", error.source().begin.line, error.description()));
    }
    return own;
}

}  // namespace rehearse
