#pragma once

#include <string>
#include <vector>

/// True when an element equals `text`.
bool ListContains(const std::vector<std::string>& list, const std::string& text);

/// True when, for some element e, e + "/" occurs anywhere inside `path`.
bool PathInList(const std::vector<std::string>& list, const std::string& path);
