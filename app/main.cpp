#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>

#include "app/config_root.h"
#include "app/config_upgrader.h"
#include "platform/thread.h"

namespace {

/// A slip on the command line changes neither the run nor the exit status, for start scripts rely
/// on both; only a person sees it.
void AdviseOnArguments(const ConfigUpgrader& upgrader) {
    try {
        const std::string advice = AdviceOnArguments(FindConfigRoot(upgrader.appliance.liveConf));
        if (!advice.empty())
            std::fprintf(stderr, "setupmend %s: %s (usage: setupmend [CONFIG_ROOT])\n",
                         SETUPMEND_VERSION, advice.c_str());
    } catch (const std::exception&) {  // no memory for advice is no reason not to upgrade
    }
}

/// Makes the process one that nobody's terminal, pipe or limit can stop.
void PrepareProcess() {
    // A log or file that cannot take more is an error of that write, not the end of the upgrade.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    // A file that is opened must not take the number of a standard stream.
    int file = 0;
    do
        file = open("/dev/null", O_RDWR);
    while (file >= 0 && file <= STDERR_FILENO);
    close(file);
    // Some mv or cp would ask on a terminal, and hold up the start of the appliance.
    if (std::freopen("/dev/null", "r", stdin) == nullptr)
        std::fclose(stdin);
}

}  // namespace

int main(int argc, char** argv) {
    PrepareProcess();
    try {
        Thread::SetCommandLine(argc, argv);
        ConfigUpgrader upgrader;
        AdviseOnArguments(upgrader);
        upgrader.Run();
    } catch (const std::exception&) {  // no memory for as much as a report: the next start tries
    }
    return 0;
}
