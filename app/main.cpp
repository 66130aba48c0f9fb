#include "app/config_upgrader.h"
#include "platform/thread.h"

int main(int argc, char** argv) {
    Thread::SetCommandLine(argc, argv);
    ConfigUpgrader upgrader;
    upgrader.Run();
    return 0;
}
