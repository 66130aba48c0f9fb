#include <csignal>

#include "app/config_upgrader.h"
#include "platform/thread.h"

int main(int argc, char** argv) {
    // A log or file that cannot take more is an error of that write, not the end of the upgrade.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Thread::SetCommandLine(argc, argv);
    ConfigUpgrader upgrader;
    upgrader.Run();
    return 0;
}
