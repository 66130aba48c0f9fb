#include "rehearse/site/restore.h"

#include <filesystem>
#include <string>
#include <vector>

#include "rehearse/base/child.h"
#include "rehearse/base/failure.h"
#include "rehearse/sandbox/sandbox.h"

namespace fs = std::filesystem;

namespace rehearse {
namespace {

/// The directories at the top that the appliance has at its real places. They are mounted there,
/// so they themselves stay, and what is in them changes.
std::vector<std::string> Tops(const std::string& root) {
    std::vector<std::string> tops;
    for (const fs::directory_entry& entry : fs::directory_iterator(root))
        if (entry.is_directory() && !entry.is_symlink() && !IsOwnTop(entry.path().filename()))
            tops.push_back(entry.path().filename());
    return tops;
}

}  // namespace

bool OrderTree(Order order) {
    bool isOrdered = true;
    for (const std::string& top : Tops(treeInside))
        isOrdered = OrderDirectories(std::string(treeInside) + "/" + top, order) && isOrdered;
    return isOrdered;
}

bool RestoreTree(Order order) {
    for (const std::string& top : Tops(treeInside)) {
        const std::string place = std::string(treeInside) + "/" + top;
        std::error_code ignored;  // the place of a mount stays
        for (const fs::directory_entry& entry : fs::directory_iterator(place))
            fs::remove_all(entry.path(), ignored);
        const std::string source = std::string(pristineInside) + "/" + top;
        if (!fs::exists(source))
            continue;
        ChildPlan plan;
        plan.words = {"cp", "-a", "--", source + "/.", place};
        if (!Child(plan).Wait([] {}).IsGood())
            throw Failure("the copy can't be made anew");
    }
    return OrderTree(order);
}

}  // namespace rehearse
