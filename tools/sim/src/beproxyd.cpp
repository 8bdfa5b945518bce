// The backend proxy: takes content for the remote backend on "be/publish", answers each
// transmission that wants results on "app/<client>/be/response" with "queued" at once and
// a final status after the backend's delay, and plays the backend itself by echoing
// configured content ids back on "app/cid/<id>". Its connection state ("be/status") and
// send queue ("be/queue/status") are published retained.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.beproxyd");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kTransmitTopic = "be/publish";
const char* const kStatusTopic = "be/status";
const char* const kQueueStatusTopic = "be/queue/status";
const char* const kBehaviourKey = "backend.behaviour";
const char* const kDelayKey = "backend.ack_delay_ms";
const char* const kEchoKey = "backend.echo_content_ids";
const char* const kQueueSizeKey = "backend.queue_size";
const unsigned long kDefaultQueueSize = 100;

bool is_number(const std::string& text) {
    return !text.empty() && text.size() <= 9 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

unsigned long number_or(const std::string& text, unsigned long fallback) {
    return is_number(text) ? std::strtoul(text.c_str(), nullptr, 10) : fallback;
}

class Beproxyd : public Daemon {
public:
    Beproxyd() : Daemon("beproxyd") {}

    std::vector<UnitKey> keys() const override {
        return {
            {kBehaviourKey,
             "what the backend does with content: ack (delivered), fail (failed) or offline "
             "(proxy disconnected, content expires)"},
            {kDelayKey, "milliseconds between the \"queued\" answer and the final one"},
            {kEchoKey,
             "content ids, comma-separated, that the backend sends back on app/cid/<id> once "
             "delivered"},
            {kQueueSizeKey, "size of the proxy's send queue (default 100)"},
        };
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        const std::string behaviour = unit.get(kBehaviourKey);
        if (!behaviour.empty() && behaviour != "ack" && behaviour != "fail" &&
            behaviour != "offline") {
            errors.push_back(unit.origin(kBehaviourKey) + ": " + kBehaviourKey + ": '" + behaviour +
                             "' is none of ack, fail, offline");
        }
        for (const char* key : {kDelayKey, kQueueSizeKey}) {
            const std::string value = unit.get(key);
            if (!value.empty() && !is_number(value)) {
                errors.push_back(unit.origin(key) + ": " + key + ": '" + value + "' is no number");
            }
        }
        for (const auto& id : unit.get_list(kEchoKey)) {
            if (!is_number(id)) {
                errors.push_back(unit.origin(kEchoKey) + ": " + kEchoKey + ": '" + id +
                                 "' is no content id");
            }
        }
    }

    Result<void, std::string> setup() override {
        listen(kTransmitTopic, [this](const auto&, const auto& m) { transmitted(m); });
        return Result<void, std::string>::ok();
    }

    void publish_state() override {
        pb::BackendProxyStatus status;
        status.set_status(offline() ? pb::BackendProxyStatus::PROXY_DISCONNECTED
                                    : pb::BackendProxyStatus::PROXY_CONNECTED);
        send_framed(kStatusTopic, status, com::PROTOCOL_BACKEND_PROXY, true);
        const auto size =
            static_cast<std::uint32_t>(number_or(unit().get(kQueueSizeKey), kDefaultQueueSize));
        pb::BackendProxyQueueStatus queue;
        queue.set_size(size);
        queue.set_available(size);
        queue.set_in_flight(0);
        queue.set_kl30robust(0);
        send_framed(kQueueStatusTopic, queue, com::PROTOCOL_BACKEND_PROXY, true);
    }

    void teardown() override {
        clear_retained(kStatusTopic);
        clear_retained(kQueueStatusTopic);
    }

private:
    bool offline() const { return unit().get(kBehaviourKey) == "offline"; }

    void transmitted(const com::Message& message) {
        auto decoded = m_transmit_adapter.deserialize(message);
        if (!decoded) {
            WARNING << s_log << "Ignoring a transmission that does not decode";
            WARNING.do_flush();
            return;
        }
        const pb::BackendProxyTransmit& transmit = decoded.value();
        const std::string behaviour = unit().get(kBehaviourKey);
        const std::chrono::milliseconds delay(number_or(unit().get(kDelayKey), 0));
        DEBUG << s_log << transmit.client_name() << " sent request " << transmit.request_id()
              << " with content id " << transmit.content_id() << ", " << transmit.payload().size()
              << " bytes";
        DEBUG.do_flush();

        if (transmit.response_wanted()) {
            const std::string reply_topic = "app/" + transmit.client_name() + "/be/response";
            pb::BackendProxyResponse response;
            response.set_request_id(transmit.request_id());
            response.set_status(pb::BackendProxyResponse::QUEUED);
            send_framed(reply_topic, response, com::PROTOCOL_BACKEND_PROXY);
            response.set_status(behaviour == "fail"      ? pb::BackendProxyResponse::FAILED
                                : behaviour == "offline" ? pb::BackendProxyResponse::EXPIRED
                                                         : pb::BackendProxyResponse::DELIVERED);
            send_framed(reply_topic, response, com::PROTOCOL_BACKEND_PROXY, false, delay);
        }
        const auto echoed = unit().get_list(kEchoKey);
        const std::string id = std::to_string(transmit.content_id());
        if ((behaviour.empty() || behaviour == "ack") &&
            std::find(echoed.begin(), echoed.end(), id) != echoed.end()) {
            // Content is raw bytes on its way back, as the backend sends it.
            com::Message echo(transmit.payload().data(), transmit.payload().size());
            send("app/cid/" + id, echo, delay);
        }
    }

    com::PbInternalMessageAdapter<pb::BackendProxyTransmit> m_transmit_adapter{
        com::PROTOCOL_BACKEND_PROXY};
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Beproxyd()); });

}  // namespace

}  // namespace ecu::tavi::sim
