#pragma once

#include <span>

class ConfigUpgrader;

/// One versioned step. Each step tests its own gates; only the voice-mail migration is gated here.
struct VersionedStep {
    const char* name;  // that the observer is told
    void (*run)(ConfigUpgrader&);
    bool flushAfterwards;  // true for those that fill the report, which may get long
    const char* onlyBelow = nullptr;
};

/// The versioned steps, in the order of the run.
std::span<const VersionedStep> VersionedSteps();
