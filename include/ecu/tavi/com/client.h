/// \file
/// The entry point of every application: turns a verified configuration into the one
/// transport client that all feature clients share.
#pragma once

#include <memory>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/export.h"

namespace ecu::tavi::com {

/// The kinds of transport create_client() can make.
enum TransportType : int {
    MQTT = 0  ///< the local MQTT broker
};

/// Creates the transport of the given type; an empty pointer (with an ERROR line) for a type
/// that is not supported. Unless "disable_remote_log_ctrl" is exactly "true", a remote log
/// control is attached that lives as long as the returned transport. The configuration must
/// be verified (reading an unverified one ends the process).
///
/// The transport is not connected yet: see ITransportClient::connect() and start(). The
/// configuration is read during the call only; it may be destroyed afterwards. The
/// "client_name" is the MQTT client id: two transports with the same name displace each
/// other at the broker.
TAVI_EXPORT std::shared_ptr<ITransportClient> create_client(
    std::unique_ptr<config::Configuration>& config, TransportType type);

/// A bare MQTT transport, without remote log control.
TAVI_EXPORT std::shared_ptr<ITransportClient> create_mqtt_client(
    std::unique_ptr<config::Configuration>& config);

}  // namespace ecu::tavi::com
