// Steps that are still to be built.

#include "app/config_upgrader.h"

void ConfigUpgrader::ConvertSipSettings() {}
void ConfigUpgrader::ConvertNatSettings() {}
void ConfigUpgrader::UpdateEchoDelay() {}
void ConfigUpgrader::MergeSupplementaryServices() {}
void ConfigUpgrader::UpdateLocalRouteDB() {}
void ConfigUpgrader::UpdateDialPlan() {}
void ConfigUpgrader::UpdateGroupListDB() {}
void ConfigUpgrader::UpdateSystemExtension() {}
void ConfigUpgrader::UpdateFxoPrefix() {}
void ConfigUpgrader::UpdateStunFile() {}
void ConfigUpgrader::RestrictAttendants() {}
void ConfigUpgrader::UpdateCallPark() {}
void ConfigUpgrader::UpdateRtpPortRanges() {}
void ConfigUpgrader::MapIsdnFiles() {}
void ConfigUpgrader::UpdateExtensionLength() {}
