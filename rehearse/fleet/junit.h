#pragma once

#include <string>

#include "rehearse/fleet/gather.h"

namespace rehearse {

/// A fleet as a test suite, in the form that Jenkins and GitLab read: a case a site, which fails
/// with its problems or, where something was compared, with what differs; skipped when all of it is
/// waived.
std::string JUnit(const std::string& name, const FleetResult& fleet,
                  const std::vector<GatheredSite>& sites);

}  // namespace rehearse
