#include "platform/thread.h"

namespace Thread {
namespace {

int argumentCount = 0;
std::string firstArgument;

}  // namespace

void SetCommandLine(int count, char** arguments) {
    argumentCount = count > 0 ? count - 1 : 0;
    firstArgument = argumentCount > 0 ? arguments[1] : "";
}

int GetCommandLine(std::string& line) {
    line = firstArgument;
    return argumentCount;
}

}  // namespace Thread
