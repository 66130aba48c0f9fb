#pragma once

#include <stdexcept>

namespace rehearse {

/// Why a rehearsal cannot be held, in words for the one who asked for it.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What is asked for contradicts itself or what is there.
class Misuse : public Failure {
public:
    using Failure::Failure;
};

/// This machine would rehearse with another program than the one that asks it to.
class OtherProgram : public Failure {
public:
    using Failure::Failure;
    static constexpr int exitStatus = 69;
};

/// What ran in the sandbox did not come to its end: it died, or took too long.
class Crash : public Failure {
public:
    using Failure::Failure;
};

}  // namespace rehearse
