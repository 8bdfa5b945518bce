#include "ecu/tavi/com/client.h"

#include <utility>

#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/logging/remotelogcontrol.h"
#include "mqttclient.h"

namespace ecu::tavi::com {
namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.com.client");

// Ties a remote log control to the transport it listens on. The control itself holds the
// transport, so the transport cannot own it; instead the pointer handed to the application
// owns both, and the control (declared last) unsubscribes before the transport goes.
struct TransportWithLogControl {
    std::shared_ptr<ITransportClient> transport;
    std::unique_ptr<RemoteLogControl> log_control;
};

}  // namespace

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type) {
    if (type != MQTT) {
        ERROR << s_log << "ProtocolType " << static_cast<int>(type) << " for creating "
              << "TransportClient not used - unable to proccedd";
        ERROR.do_flush();
        return nullptr;
    }
    auto transport = create_mqtt_client(config);
    if (config->get("disable_remote_log_ctrl") == "true") {
        return transport;
    }
    auto holder = std::make_shared<TransportWithLogControl>();
    holder->transport = transport;
    holder->log_control = create_remote_log_control(transport);
    return std::shared_ptr<ITransportClient>(holder, transport.get());
}

std::shared_ptr<ITransportClient> create_mqtt_client(
    std::unique_ptr<config::Configuration>& config) {
    return std::make_shared<MqttClient>(config);
}

}  // namespace ecu::tavi::com
