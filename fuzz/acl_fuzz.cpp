// libFuzzer target: the user name and topic rules of the ACL client on any text.
//
// Input: byte 0 picks the request (low 2 bits) and the platform features granted with an
// MQTT access list (the other bits); the rest is lines: the user name, then subscription
// topics up to an empty line, then publish topics. A request the rules refuse is an invalid
// request; one they pass is sent, which the offline transport refuses at once.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ecu/tavi/com/acl.h"
#include "fuzz_support.h"

namespace {

using namespace ecu::tavi::com;

std::shared_ptr<ITransportClient> s_transport;
AclClientImpl* s_client = nullptr;

bool alphanumeric(const std::string& text) {
    for (const char c : text) {
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'))) {
            return false;
        }
    }
    return !text.empty();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    s_transport = std::make_shared<fuzz::OfflineTransport>("fuzz");
    s_client = new AclClientImpl(s_transport);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::istringstream lines(std::string(reinterpret_cast<const char*>(data + 1), size - 1));
    std::string user;
    std::getline(lines, user);
    std::vector<std::string> subscribe;
    std::vector<std::string> publish;
    bool in_publish = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() && !in_publish) {
            in_publish = true;
            continue;
        }
        (in_publish ? publish : subscribe).push_back(line);
    }

    AclResult result = AclResult::ok(false);
    switch (data[0] & 3) {
        case 0:
            result = s_client->add_mqtt_user(user, "secret");
            break;
        case 1:
            result = s_client->add_rest_acl(user, subscribe, publish);
            break;
        case 2:
            result = s_client->add_websocket_user(
                user, "secret", static_cast<unsigned int>(subscribe.size()) * 997);
            break;
        default: {
            TaviFeatures features;
            features.uds = (data[0] & 0x04) != 0;
            features.variables = (data[0] & 0x08) != 0;
            features.pgn = (data[0] & 0x10) != 0;
            features.sysparams = (data[0] & 0x20) != 0;
            features.backend = (data[0] & 0x40) != 0;
            result = s_client->add_mqtt_acl(user, subscribe, publish, features);
        }
    }
    if (result.has_value()) {
        std::abort();
    }
    const bool passed = result.error() == AclResponseError::FAILED;
    if (!passed && result.error() != AclResponseError::INVALID_REQUEST) {
        std::abort();
    }
    if (passed && !alphanumeric(user)) {
        std::abort();
    }
    return 0;
}
