#pragma once

namespace rehearse {

/// page.html, in which "@DATA@" stands for the result.
extern const char* const pageAsset;

}  // namespace rehearse
