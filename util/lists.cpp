#include "util/lists.h"

#include <algorithm>

void NameList::push_back(std::string name) {
    known_.insert(name);
    if (std::find(lengths_.begin(), lengths_.end(), name.size()) == lengths_.end())
        lengths_.push_back(name.size());
    names_.push_back(std::move(name));
}

void NameList::clear() {
    known_.clear();
    lengths_.clear();
    names_.clear();
}

bool NameList::HasEndOf(const std::string& text) const {
    return std::any_of(lengths_.begin(), lengths_.end(), [&](std::size_t length) {
        return length <= text.size() && Contains(text.substr(text.size() - length));
    });
}

bool ListContains(const NameList& list, const std::string& text) {
    return list.Contains(text);
}

bool PathInList(const NameList& list, const std::string& path) {
    for (std::size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        if (list.HasEndOf(path.substr(0, slash)))
            return true;
    return false;
}
