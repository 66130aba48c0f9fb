#include "tests/support/appliance_at.h"

#include <cstdlib>

Appliance ApplianceAt(const std::string& root) {
    Appliance appliance;
    for (std::string* path :
         {&appliance.factoryTelephony, &appliance.factoryLabel, &appliance.factorySystemSettings,
          &appliance.liveConf, &appliance.liveLabel, &appliance.liveSystemSettings,
          &appliance.fxsNumber, &appliance.fxoNumber, &appliance.hwInfo, &appliance.eeprom,
          &appliance.regionalDirs, &appliance.internalVoiceData, &appliance.usbVoiceData,
          &appliance.routeTool, &appliance.lastError})
        path->insert(0, root);
    appliance.log = root + "/mend.log";
    setenv("ORIX_PATH", appliance.liveConf.c_str(), 1);
    return appliance;
}
