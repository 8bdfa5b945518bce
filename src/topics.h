// Topics that belong to one application: "app/" + the client name + a suffix such as
// "/uds/response", so that services and tools can address each application separately.
#pragma once

#include <string>

namespace ecu::tavi::com::_internal {

inline std::string app_topic(const std::string& client_name, const char* suffix) {
    return "app/" + client_name + suffix;
}

}  // namespace ecu::tavi::com::_internal
