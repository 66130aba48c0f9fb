#pragma once

#include <string>

#include "store/multi_section_file.h"

namespace Configuration {

/// Adds to `destination` every anonymous section of `source` whose `keyName` value no section of
/// it has. Unless `idKey` is empty, each is numbered behind the largest one in use, in 32 bits.
/// True when a section was added; nothing is saved.
bool MergeKeyedSections(MultiSectionFile& destination, MultiSectionFile& source,
                        const std::string& keyName, const std::string& idKey);

}  // namespace Configuration
