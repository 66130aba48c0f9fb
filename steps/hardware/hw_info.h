#pragma once

#include <cstdint>
#include <string>

/// Which trunk boards the unit has.
struct HwFacts {
    bool e1t1 = false;
    bool fxo = false;
    bool fxoTold = false;  // some FXO key says YES or NO
    std::int32_t isdn = 0;
    std::uint32_t isdnTotal = 0;  // with the ISDN ports of the combined board
};

/// Reads the text of the kernel's hw-info: lines of a key, a blank or "=", and a value.
HwFacts ParseHwInfo(const std::string& hwInfo);
