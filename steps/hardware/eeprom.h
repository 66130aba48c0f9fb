#pragma once

#include <string>

/// The value of an entry of the unit's EEPROM, which the kernel shows as a flat file; empty when
/// there is no such entry or no EEPROM.
std::string GetEEPROMEntry(const std::string& name, const std::string& eepromFile);
