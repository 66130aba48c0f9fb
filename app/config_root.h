#pragma once

#include <string>

/// The directories in it that every unit has, beside those of extensions and attendants.
inline constexpr const char* unitDirectories[] = {"default", "defatt", "system", "isdn", "e1t1"};

/// The live telephony directory, ending in "/": the program's argument when there is exactly one,
/// else what ORIX_PATH or, without it, `liveConf` leads to.
std::string FindConfigRoot(const std::string& liveConf);

/// What somebody who called the program by hand should know of their arguments, for `root` found as
/// above; empty when there is nothing to say. Looks at the disk without noting what it refuses: the
/// report is the same as without the question.
std::string AdviceOnArguments(const std::string& root);
