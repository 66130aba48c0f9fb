#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <vector>

/// Names in the order in which they were added, repeated ones included, with a look-up that does
/// not depend on their number: a unit may have thousands of extensions.
class NameList {
public:
    using const_iterator = std::vector<std::string>::const_iterator;
    using iterator = const_iterator;
    using value_type = std::string;

    NameList() = default;
    NameList(std::initializer_list<std::string> names) { Assign(names); }
    NameList(const NameList& other) { Assign(other); }
    NameList& operator=(const NameList&) = delete;
    NameList& operator=(const std::vector<std::string>& names) {
        Assign(names);
        return *this;
    }
    NameList& operator=(std::initializer_list<std::string> names) {
        Assign(names);
        return *this;
    }

    void push_back(std::string name);
    void clear();

    const_iterator begin() const { return names_.begin(); }
    const_iterator end() const { return names_.end(); }
    std::size_t size() const { return names_.size(); }

    bool Contains(const std::string& name) const { return known_.contains(name); }
    /// Whether a name of the list ends the text.
    bool HasEndOf(const std::string& text) const;

    bool operator==(const std::vector<std::string>& names) const { return names_ == names; }

private:
    template <typename Names>
    void Assign(const Names& names) {
        clear();
        for (const std::string& name : names)
            push_back(name);
    }

    std::vector<std::string> names_;
    std::set<std::string> known_;
    std::vector<std::size_t> lengths_;  // each once
};

/// Whether a table of texts has this one.
template <std::size_t N>
bool IsOneOf(const char* const (&table)[N], std::string_view text) {
    return std::find(std::begin(table), std::end(table), text) != std::end(table);
}

/// Whether `part` stands anywhere in the text.
inline bool Contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

/// True when an element equals `text`.
bool ListContains(const NameList& list, const std::string& text);

/// True when, for some element e, e + "/" occurs anywhere inside `path`. The end of a name is
/// enough: 1 is found in "/21/". This is meant.
bool PathInList(const NameList& list, const std::string& path);
