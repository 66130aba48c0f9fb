#include "store/merge_sections.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>

namespace Configuration {

bool MergeKeyedSections(MultiSectionFile& destination, MultiSectionFile& source,
                        const std::string& keyName, const std::string& idKey) {
    // One walk over the destination; what is added below is added here as well.
    std::set<std::string> known;
    long largestId = 0;
    const auto note = [&] {
        if (const auto key = destination.GetSectionEntry(keyName))
            known.insert(*key);
        const std::string id = destination.GetSectionEntry(idKey).value_or("");
        largestId = std::max(largestId, std::strtol(id.c_str(), nullptr, 10));
    };
    for (destination.Restart(); destination.GotoNextSection();)
        note();

    bool added = false;
    for (source.Restart(); source.GotoNextSection();) {
        if (!source.SectionName().empty())
            continue;
        const auto key = source.GetSectionEntry(keyName);
        if (!key || known.contains(*key))  // without a key it cannot be told from another
            continue;
        destination.AddSection(false);
        for (const Entry& entry : source.SectionEntries())
            destination.SetSectionEntry(entry.key, entry.value);
        // In 32 bits, so that an identifier at the type's end wraps alike on every machine.
        if (!idKey.empty())
            destination.SetSectionEntry(
                idKey, std::to_string(static_cast<long long>(
                           static_cast<std::int32_t>(static_cast<std::uint32_t>(largestId) + 1))));
        note();
        added = true;
    }
    return added;
}

}  // namespace Configuration
