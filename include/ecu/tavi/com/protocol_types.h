/// \file
/// Protocol type of every framed message kind: the number an adapter writes into the
/// header of the messages it frames. The library, the simulator and the tests take the
/// numbers from here only.
///
/// Receivers accept any non-zero protocol type, so the numbers label the traffic; only the
/// low 16 bits travel.
#pragma once

#include <cstdint>

namespace ecu::tavi::com {

/// The protocol types of the framed messages; see PbInternalMessageAdapter.
enum ProtocolType : std::uint16_t {
    PROTOCOL_NOT_USED = 0,        ///< never sent; rejected on reception
    PROTOCOL_SUBSCRIPTION = 1,    ///< pb::SubscriptionMessage, pb::SubscriptionStatus
    PROTOCOL_BT_STATUS = 1,       ///< pb::BtStatus
    PROTOCOL_RT_SIGNAL = 2,       ///< pb::RtSignal
    PROTOCOL_LOG_CONFIG = 3,      ///< pb::LogConfig
    PROTOCOL_UDS = 4,             ///< pb::UdsIfMessage
    PROTOCOL_PGN_TOKEN = 5,       ///< pb::PgnRequestTokenRequest, pb::PgnRequestTokenResponse
    PROTOCOL_ECU_VARIABLE = 6,    ///< pb::EcuVariable
    PROTOCOL_SYSPARAMS = 7,       ///< pb::SystemParameterList
    PROTOCOL_BOOT_FLAGS = 8,      ///< pb::BootFlags
    PROTOCOL_ACL = 9,             ///< pb::AclIfMessage
    PROTOCOL_BACKEND_PROXY = 10,  ///< pb::BackendProxyTransmit, ...Response, ...Status, ...
    PROTOCOL_BT_DISCOVERY = 11,   ///< pb::BtDiscoveryRequest, ...Response, ...Results
    PROTOCOL_RAW = 12,            ///< unframed strings of the VCP and backend adapters
};

}  // namespace ecu::tavi::com
