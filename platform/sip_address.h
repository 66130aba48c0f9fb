#pragma once

#include <string>

/// Joins the parts of a SIP address: user@host:port. Without a host it is the user, without a port
/// there is no ":port", without a user it begins with the host. The display name is no part of
/// it. Returns non-zero when `result` is not empty.
int MergeSIPAddress(std::string& result, const std::string& displayName,
                    const std::string& userName, const std::string& hostAddress,
                    const std::string& hostPort, bool flag = false);
