#include "steps/hardware/eeprom.h"

#include "store/config_file.h"

std::string GetEEPROMEntry(const std::string& name, const std::string& eepromFile) {
    try {
        return Configuration::ConfigFile(eepromFile).GetEntry(name).value_or("");
    } catch (const Configuration::FileError&) {
        return {};
    }
}
