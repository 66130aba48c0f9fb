#include "platform/sip_address.h"

int MergeSIPAddress(std::string& result, const std::string&, const std::string& userName,
                    const std::string& hostAddress, const std::string& hostPort, bool) {
    result = userName;
    if (!hostAddress.empty()) {
        if (!userName.empty())
            result += '@';
        result += hostAddress;
        if (!hostPort.empty())
            result += ':' + hostPort;
    }
    return !result.empty();
}
