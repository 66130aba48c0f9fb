#pragma once

#include <string>

namespace rehearse {

/// In which order a directory lists its names. Firmware images list them in ascending order, a
/// unit's own file system in any; where a program lets the order decide which of two files wins,
/// two equal units differ.
enum class Order { Ascending, Descending };

/// Has all directories below `root` list their names so, by moving them out and in again. False
/// when the file system has an order of its own, as ext4 has.
bool OrderDirectories(const std::string& root, Order order);

}  // namespace rehearse
