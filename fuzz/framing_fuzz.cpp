// libFuzzer target: unframing of every message kind the library receives or sends behind the
// frame header. Byte 0 picks the kind, the rest is the payload. Nothing may crash, leak or
// trip a sanitizer, and whatever unframes must frame again and come back with the same body
// and protocol type.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <type_traits>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/acl.pb.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "ecu/tavi/pb/sysparams.pb.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "fuzz_support.h"

namespace {

using namespace ecu::tavi;

template <typename T>
std::string body_bytes(const T& body) {
    if constexpr (std::is_same_v<T, std::string>) {
        return body;
    } else {
        return body.SerializeAsString();
    }
}

template <typename T, std::uint32_t Protocol>
void round_trip(const com::Message& message) {
    com::PbInternalMessageAdapter<T> adapter(Protocol);
    const auto parsed = adapter.deserialize(message);
    if (!parsed) {
        return;
    }
    const std::uint32_t received = adapter.protocol_type();
    const auto again = adapter.serialize(parsed.value());
    if (!again) {
        std::abort();
    }
    com::PbInternalMessageAdapter<T> other(Protocol);
    const auto back = other.deserialize(again.value());
    if (!back || body_bytes(back.value()) != body_bytes(parsed.value()) ||
        other.protocol_type() != received) {
        std::abort();
    }
}

using Kind = void (*)(const com::Message&);

const Kind kKinds[] = {
    round_trip<pb::SubscriptionMessage, com::PROTOCOL_SUBSCRIPTION>,
    round_trip<pb::SubscriptionStatus, com::PROTOCOL_SUBSCRIPTION>,
    round_trip<pb::BtStatus, com::PROTOCOL_BT_STATUS>,
    round_trip<pb::RtSignal, com::PROTOCOL_RT_SIGNAL>,
    round_trip<pb::LogConfig, com::PROTOCOL_LOG_CONFIG>,
    round_trip<pb::UdsIfMessage, com::PROTOCOL_UDS>,
    round_trip<pb::PgnRequestTokenRequest, com::PROTOCOL_PGN_TOKEN>,
    round_trip<pb::PgnRequestTokenResponse, com::PROTOCOL_PGN_TOKEN>,
    round_trip<pb::EcuVariable, com::PROTOCOL_ECU_VARIABLE>,
    round_trip<pb::SystemParameterList, com::PROTOCOL_SYSPARAMS>,
    round_trip<pb::BootFlags, com::PROTOCOL_BOOT_FLAGS>,
    round_trip<pb::AclIfMessage, com::PROTOCOL_ACL>,
    round_trip<pb::BackendProxyTransmit, com::PROTOCOL_BACKEND_PROXY>,
    round_trip<pb::BackendProxyResponse, com::PROTOCOL_BACKEND_PROXY>,
    round_trip<pb::BackendProxyStatus, com::PROTOCOL_BACKEND_PROXY>,
    round_trip<pb::BackendProxyQueueStatus, com::PROTOCOL_BACKEND_PROXY>,
    round_trip<pb::BtDiscoveryRequest, com::PROTOCOL_BT_DISCOVERY>,
    round_trip<pb::BtDiscoveryResponse, com::PROTOCOL_BT_DISCOVERY>,
    round_trip<pb::BtDiscoveryResults, com::PROTOCOL_BT_DISCOVERY>,
    round_trip<std::string, com::PROTOCOL_RAW>,
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const com::Message message(data + 1, size - 1);
    message.get_timestamp();
    kKinds[data[0] % (sizeof(kKinds) / sizeof(kKinds[0]))](message);
    return 0;
}
