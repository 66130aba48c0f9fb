#include "app/config_root.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/file_utility.h"
#include "platform/thread.h"
#include "util/numbers.h"

namespace {

bool IsDirectory(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsThere(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

}  // namespace

std::string FindConfigRoot(const std::string& liveConf) {
    std::string root;
    // An empty argument names no directory.
    if (Thread::GetCommandLine(root) != 1 || root.empty()) {
        // An ORIX_PATH without a separator at its end names a sibling, /xtelephony/ for /x: the
        // start scripts set it with one.
        const char* set = std::getenv("ORIX_PATH");
        root = (set != nullptr ? set : liveConf) + "telephony/";
    }
    FileUtility::AdjustPath(root, '/');
    return root;
}

std::string AdviceOnArguments(const std::string& root) {
    std::string argument;
    const int count = Thread::GetCommandLine(argument);
    if (count == 0)
        return "";
    const std::string taken = "the configuration root is " + root;
    if (count > 1)
        return NumberToString(count) + " arguments count as none, " + taken;
    if (argument.empty())
        return "an empty argument counts as none, " + taken;
    if (!IsDirectory(root))
        return taken + ", which is no directory";
    if (!IsThere(root + "linedb") && IsThere(root + "telephony/linedb"))
        return taken + ", which has no linedb: did you mean " + root + "telephony/?";
    return "";
}
