#include "util/lists.h"

#include <algorithm>

bool ListContains(const std::vector<std::string>& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool PathInList(const std::vector<std::string>& list, const std::string& path) {
    return std::any_of(list.begin(), list.end(), [&](const std::string& name) {
        return path.find(name + "/") != std::string::npos;
    });
}
