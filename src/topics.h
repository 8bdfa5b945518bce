// Topics that belong to one application: "app/" + the client name + a suffix such as
// "/uds/response", so that services and tools can address each application separately.
#pragma once

#include <string>

namespace ecu::tavi::com::_internal {

// Where subscribers of real-time ("rt/") topics announce them to the IPC daemon.
constexpr const char* kAnnouncementTopic = "subscription/announcement";

inline std::string app_topic(const std::string& client_name, const char* suffix) {
    return "app/" + client_name + suffix;
}

}  // namespace ecu::tavi::com::_internal
