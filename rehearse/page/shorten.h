#pragma once

#include "rehearse/verdict/result.h"

namespace rehearse {

/// Leaves of a site's result what a person looks at: of thousands of extensions the first of what
/// is alike, with a count of the rest, which the JSON has. A browser opens it at once.
void Shorten(Json& site);

}  // namespace rehearse
