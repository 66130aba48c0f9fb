#pragma once

#include <string>

#include "rehearse/verdict/result.h"

namespace rehearse {

/// The page that shows a result, of a site or a fleet.
std::string Page(Json result);

}  // namespace rehearse
