#pragma once

#include <string>

#include "app/appliance.h"

/// An appliance whose every absolute location lies below `root`, and which sets ORIX_PATH so.
Appliance ApplianceAt(const std::string& root);
