#pragma once

#include <cstdint>

/// A range of media ports; one that ends at 0 is none.
struct PortRange {
    std::uint32_t start = 0;
    std::uint32_t end = 0;

    std::uint32_t Length() const { return end == 0 ? 0 : end - start + 1; }
};

/// Folds the media unit's public range into the NAT range: overlapping or adjacent ranges become
/// one, of two apart the longer remains (of equal ones `nat`).
PortRange MergeNatRange(const PortRange& nat, const PortRange& unit);

/// Folds the media unit's range into the RTP range in the same way. A merged range that is longer
/// than `mostPorts` is cut to it, unless that is 0. Of two ranges apart the longer remains, and is
/// never cut; this difference is meant.
PortRange MergeRtpRange(const PortRange& rtp, const PortRange& unit, std::uint32_t mostPorts);
