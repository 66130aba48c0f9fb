// upgrade_at ROOT: upgrades the appliance that lies below ROOT, for the scripts that kill the run,
// make its disk fail or measure it. What it runs is what setupmend runs.

#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

#include "app/config_upgrader.h"
#include "tests/support/appliance_at.h"

namespace {

/// When the power goes, it does not go for cp alone.
int RunOrDieWithIt(const std::string& command) {
    const int result = std::system(command.c_str());
    const bool killed = WIFSIGNALED(result) || (WIFEXITED(result) && WEXITSTATUS(result) > 128);
    if (result != -1 && killed)
        std::raise(SIGKILL);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Appliance appliance = ApplianceAt(argv[1]);
    appliance.runShell = RunOrDieWithIt;
    appliance.voiceStorageSize = [](const std::string&) { return std::uint64_t{8'000'000}; };
    try {
        ConfigUpgrader upgrader(appliance);
        upgrader.Run();
    } catch (const std::exception&) {  // as setupmend itself
    }
    return 0;
}
