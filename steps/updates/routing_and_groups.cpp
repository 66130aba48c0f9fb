// The local routing table, the dial plan and the group lists.

#include <optional>

#include "app/config_upgrader.h"
#include "platform/string_utils.h"
#include "util/shell.h"

using Configuration::ConfigFile;
using Configuration::FileError;
using Configuration::MultiSectionFile;

namespace {

/// Goes to the first section with this pattern.
bool GotoPattern(MultiSectionFile& dialPlan, const std::string& pattern) {
    for (dialPlan.Restart(); dialPlan.GotoNextSection();)
        if (dialPlan.GetSectionEntry("pattern") == pattern)
            return true;
    return false;
}

/// Deletes emergency and access-code routes and has the route tool rebuild its data.
void DropAccessRoutes(ConfigUpgrader& upgrader, MultiSectionFile& routes) {
    upgrader.Trace(3, "Starting update localrouttabledb.\n");
    bool changed = false;
    for (routes.Restart(); routes.GotoNextSection();) {
        // "emergancy" is how the files spell it.
        if (routes.GetSectionEntry("emergancy") == "1" ||
            routes.GetSectionEntry("access_code") == "1") {
            routes.DeleteSection();
            changed = true;
        }
    }
    if (changed)
        upgrader.Save(routes);
    // The tool also runs when no route went. Should it fail, the table stays as it is saved. Saves
    // replace files; it may write into them.
    const std::string error = upgrader.recovery.Unshare();
    const std::string outcome =
        error.empty() ? upgrader.RunWithErrorText(ShellPath(upgrader.appliance.routeTool))
                      : "Failed: " + error;
    upgrader.Trace(3, "Update done - %s.\n", outcome.c_str());
}

}  // namespace

void ConfigUpgrader::UpdateLocalRouteDB() {
    if (!IsVersionBelow("3.0.0"))
        return;
    Trace(3, "Check extensions for update localrouttabledb.\n");
    bool permitted = true;
    for (const std::string& extension : liveExtensions) {
        const std::string path = configRoot + extension + "/servicesdb";
        try {
            ConfigFile services(path, false);
            const auto routing = services.GetEntry("routing_on");
            if (!routing)
                continue;
            // Whoever has it off gets it switched on: this is meant. Only an extension that had it
            // on already keeps the table from being changed.
            if (*routing != "1") {
                services.SetEntry("routing_on", "1");
                Save(services);
            } else if (permitted && ListContains(routingExtensions, extension)) {
                Trace(3, "Extension %s is in routing mode, Update canceled.\n", extension.c_str());
                Tell(Fact::Kind::Canceled, "localrouttabledb", extension);
                permitted = false;
            }
        } catch (const FileError& error) {
            Trace(1, "MINOR ERROR in UpdateLocalRouteDB: Invalid file: %s\n", path.c_str());
            TraceReason(error);
        }
    }
    const std::string path = configRoot + "localrouttabledb";
    try {
        MultiSectionFile routes(path, true);
        if (permitted)
            DropAccessRoutes(*this, routes);
    } catch (const FileError& error) {
        TraceInvalidFile(path, error);
        return;
    }
    Trace(3, "Done.\n");
}

void ConfigUpgrader::UpdateDialPlan() {
    if (!IsVersionBelow("3.0.7"))
        return;
    Trace(3, "Starting update dialplan.cfg.\n");
    const std::string path = configRoot + "dialplan.cfg";
    try {
        // The site's dial plan gives way to the factory's as a whole, with all patterns that the
        // site has added. This time-out is all that is kept of it.
        std::optional<std::string> timeout;
        {
            MultiSectionFile dialPlan(path, false);
            if (GotoPattern(dialPlan, "0*"))
                timeout = dialPlan.GetSectionEntry("timeout");
        }
        // The text has two blanks and ends with one; it is known so.
        Trace(3, "%s.\n", "File  dialplan.cfg is copied from default-conf ");
        const std::string factoryPath = appliance.factoryTelephony + "dialplan.cfg";
        const bool failed = ShellFailed(CopyWhole("-p -r", factoryPath, path));
        Trace(3, "cp -p -r %s %s - %s.\n", ShellPath(factoryPath).c_str(), ShellPath(path).c_str(),
              failed ? "Failed" : "Success");
        if (!timeout)
            return;
        MultiSectionFile dialPlan(path, false);
        if (!GotoPattern(dialPlan, "R*"))
            return;
        dialPlan.SetSectionEntry("timeout", *timeout);
        Save(dialPlan);
        Trace(3, "Set timeout = %s for pattern \"R*\".\n", timeout->c_str());
    } catch (const FileError& error) {
        TraceInvalidFile(path, error);
    }
}

void ConfigUpgrader::UpdateGroupListDB() {
    if (!IsVersionBelow("3.1.0"))
        return;
    Trace(3, "Starting update grouplistdb.\n");
    for (const std::string& extension : liveExtensions) {
        Trace(3, "Update for extension %s.\n", extension.c_str());
        const std::string path = configRoot + extension + "/grouplistdb";
        try {
            MultiSectionFile groups(path, true);
            bool changed = false;
            for (groups.Restart(); groups.GotoNextSection();) {
                const auto addresses = groups.GetSectionEntry("address_list");
                if (!addresses)
                    continue;
                groups.DeleteSectionEntry("address_list");
                for (std::string& item : StringUtils::ParseCommaLine(*addresses, ',')) {
                    const std::size_t slash = item.find('/');
                    if (slash == std::string::npos)
                        continue;       // no address; dropped on purpose
                    item[slash] = '-';  // the first one only
                    groups.AddSectionEntry("addr", item);
                    changed = true;
                }
            }
            // A file whose lists hold no address at all is not saved, and keeps them.
            if (changed)
                Save(groups);
        } catch (const FileError& error) {
            Trace(1, "MINOR ERROR in UpdateGroupListDB: Invalid file: %s\n", path.c_str());
            TraceReason(error);
        }
    }
    Trace(3, "Done.\n");
}
