// Flattens stun.cfg, and reconciles the media port ranges of nat.cfg and rtp.cfg.

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "app/config_upgrader.h"
#include "files/remove.h"
#include "files/replace.h"
#include "steps/sipnat/port_ranges.h"
#include "util/numbers.h"

using Configuration::MultiSectionFile;

namespace {

/// `second` begins inside `first` or right behind it. In 64 bits, so that a range which ends at the
/// top has nothing right behind it.
bool BeginsWithin(const PortRange& first, const PortRange& second) {
    return first.start <= second.start && second.start <= static_cast<std::uint64_t>(first.end) + 1;
}

/// The union of two ranges that overlap or touch; nothing when they are apart.
std::optional<PortRange> Union(const PortRange& a, const PortRange& b) {
    const std::uint32_t end = std::max(a.end, b.end);
    if (BeginsWithin(a, b))
        return PortRange{a.start, end};
    if (BeginsWithin(b, a))
        return PortRange{b.start, end};
    return std::nullopt;
}

PortRange ReadRange(MultiSectionFile& file, const std::string& kind) {
    const auto port = [&](const char* end) {
        return StringToNumber<std::uint32_t>(
            file.GetSectionEntry(kind + "_port_range_" + end).value_or(""));
    };
    return {port("start"), port("end")};
}

/// For the "%lu" of the log's texts: 32 bits are no unsigned long on every machine.
unsigned long Wide(std::uint32_t number) {
    return number;
}

}  // namespace

PortRange MergeNatRange(const PortRange& nat, const PortRange& unit) {
    if (const auto merged = Union(nat, unit))
        return *merged;
    return nat.Length() < unit.Length() ? unit : nat;
}

PortRange MergeRtpRange(const PortRange& rtp, const PortRange& unit, std::uint32_t mostPorts) {
    if (auto merged = Union(rtp, unit)) {
        if (mostPorts != 0 && mostPorts < merged->Length())
            merged->end = merged->start + mostPorts - 1;
        return *merged;
    }
    return rtp.Length() < unit.Length() ? unit : rtp;
}

namespace {

void TraceRanges(ConfigUpgrader& upgrader, const PortRange& rtp, const PortRange& nat) {
    upgrader.Trace(3, "RtpStart: %lu, \tRtpEnd: %lu, \tRtpLen: %lu\n", Wide(rtp.start),
                   Wide(rtp.end), Wide(rtp.Length()));
    upgrader.Trace(3, "NatStart: %lu, \tNatEnd: %lu, \tNatLen: %lu\n", Wide(nat.start),
                   Wide(nat.end), Wide(nat.Length()));
}

void ReconcilePortRanges(ConfigUpgrader& upgrader, MultiSectionFile& nat, bool isNatOn) {
    const auto enter = [&](const char* section) {
        if (nat.GotoSection(section))
            return true;
        upgrader.Trace(1, "ERROR: \"%s\" section does not exists.\n", section);
        upgrader.Tell(Fact::Kind::Absent, nat.Path(), section);
        return false;
    };
    if (!enter("dynamic"))
        return;
    // With STUN the server tells the public ports, and the mapped ranges say nothing.
    const bool isTraversalOn = nat.GetSectionEntry("use_stun") != "1";
    PortRange rtpRange = ReadRange(nat, "self");
    PortRange natRange = ReadRange(nat, "mapped");
    if (!enter("um_dynamic"))
        return;
    const PortRange umRtpRange = ReadRange(nat, "self");
    const PortRange umNatRange = ReadRange(nat, "mapped");

    upgrader.Trace(3, "isNatOn: %d, dynamic_IsNatTraversalOn: %d\n", isNatOn, isTraversalOn);
    upgrader.Trace(3, "Current port ranges\n");
    TraceRanges(upgrader, rtpRange, natRange);
    upgrader.Trace(3, "umRtpStart: %lu, \tumRtpEnd: %lu, \tumRtpLen: %lu\n", Wide(umRtpRange.start),
                   Wide(umRtpRange.end), Wide(umRtpRange.Length()));
    upgrader.Trace(3, "umNatStart: %lu, \tumNatEnd: %lu, \tumNatLen: %lu\n", Wide(umNatRange.start),
                   Wide(umNatRange.end), Wide(umNatRange.Length()));

    const bool throughNat = isNatOn && isTraversalOn;
    if (throughNat)
        natRange = MergeNatRange(natRange, umNatRange);
    rtpRange = MergeRtpRange(rtpRange, umRtpRange, throughNat ? natRange.Length() : 0);
    upgrader.Trace(3, "Updated port ranges\n");
    TraceRanges(upgrader, rtpRange, natRange);

    if (!enter("dynamic"))
        return;
    const bool hasNat = natRange.start != 0;  // 0 is no port: without a range both are empty
    // um_dynamic itself stays in the file as it is.
    nat.SetSectionEntry("self_port_range_start", NumberToString(rtpRange.start));
    nat.SetSectionEntry("self_port_range_end", NumberToString(rtpRange.end));
    nat.SetSectionEntry("mapped_port_range_start", hasNat ? NumberToString(natRange.start) : "");
    nat.SetSectionEntry("mapped_port_range_end", hasNat ? NumberToString(natRange.end) : "");
    upgrader.Save(nat);

    SectionFile rtp = upgrader.OpenSectionFile(upgrader.configRoot + "rtp.cfg", false);
    if (!rtp || !rtp->GotoSection("common"))
        return;
    upgrader.Trace(3, "update rtp.cfg: RtpStart: %lu, \tRtpEnd: %lu, \tRtpLen: %lu\n",
                   Wide(rtpRange.start), Wide(rtpRange.end), Wide(rtpRange.Length()));
    rtp->SetSectionEntry("min_rtp_port", NumberToString(rtpRange.start));
    rtp->SetSectionEntry("max_rtp_port", NumberToString(rtpRange.end));
    upgrader.Save(*rtp);
}

}  // namespace

void ConfigUpgrader::UpdateStunFile() {
    if (!IsVersionBelow("3.1.2"))
        return;
    Trace(3, "Starting update stun.cfg file\n");
    // This file does not lie in the configuration root but above it, and only the environment
    // moves it: an argument of the program does not.
    const char* root = std::getenv("ORIX_PATH");
    const std::string path = (root != nullptr ? root : appliance.liveConf) + "stun.cfg";
    // What a killed run left beside it: outside the telephony directory no put-back removes it.
    files::RemoveTree(files::TemporaryFor(path));
    SectionFile reading = OpenSectionFile(path, false);
    SectionFile writing = OpenSectionFile(path, false);
    if (!reading || !writing)
        return;
    // Opened twice: sections are read from one copy and deleted from the other, so that the walk
    // does not lose its place. Both walk in step, for a name may repeat: the section that is
    // deleted must be the one that was copied.
    for (reading->Restart(), writing->Restart();
         reading->GotoNextSection() && writing->GotoNextSection();) {
        const std::string section = reading->SectionName();
        if (section.empty())
            continue;
        Trace(3, "\tSection: %s\n", section.c_str());
        bool copied = true;
        for (const auto& [key, value] : reading->SectionEntries()) {
            copied = writing->SetEntry(key, value) && copied;
            Trace(3, "\t\tCopy Entry: %s=%s\n", key.c_str(), value.c_str());
        }
        if (!copied) {  // a key that cannot stand at the top level keeps its section
            TraceInvalidFile(path);
            Tell(Fact::Kind::Incomplete, path, section);
            continue;
        }
        Trace(3, "\tDelete section: %s.\n", section.c_str());
        writing->DeleteSection();
    }
    Save(*writing);
    CloseSectionFile(reading);
    CloseSectionFile(writing);
    Trace(3, "Done.\n");
}

void ConfigUpgrader::UpdateRtpPortRanges() {
    if (!IsVersionBelow("3.1.25"))
        return;
    Trace(3, "Starting update RTP port ranges\n");
    bool isNatOn = false;  // old files have got this section in the file merge
    if (SectionFile sip = OpenSectionFile(configRoot + "sip.cfg", false)) {
        if (sip->GotoSection("features")) {
            const std::string agent = sip->GetSectionEntry("nat agent").value_or("");
            isNatOn = !agent.empty() && agent != "0";
        }
    }
    if (SectionFile nat = OpenSectionFile(configRoot + "nat.cfg", false))
        ReconcilePortRanges(*this, *nat, isNatOn);
    Trace(3, "Done.\n");
}
