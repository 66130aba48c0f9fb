// Steps that are still to be built.

#include "app/config_upgrader.h"

void ConfigUpgrader::CheckVoiceDataAndLinks() {}
void ConfigUpgrader::SplitExtensionDatabase() {}
void ConfigUpgrader::CheckLineDatabase() {}
void ConfigUpgrader::CheckLineSections(Configuration::MultiSectionFile&,
                                       Configuration::MultiSectionFile&) {}
void ConfigUpgrader::MigrateVoicemail() {}
void ConfigUpgrader::ProcessMergeList() {}
void ConfigUpgrader::CheckCallerDatabases(const std::string&, const std::string&) {}
void ConfigUpgrader::AddSectionIds(const std::string&, Configuration::MultiSectionFile*) {}
void ConfigUpgrader::CheckCallerTypes(Configuration::MultiSectionFile&, const std::string&) {}
void ConfigUpgrader::CheckConfigFile(const std::pair<std::string, std::string>&) {}
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
