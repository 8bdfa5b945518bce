#include "ecu/tavi/com/backend.h"

#include <climits>
#include <stdexcept>
#include <utility>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "topics.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.com.backend");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::com {

namespace {

const char* const kPublishTopic = "be/publish";
const char* const kStatusTopic = "be/status";
const char* const kQueueStatusTopic = "be/queue/status";
const std::string kContentMarker = "/cid/";

using Handler = void (BackendClient::*)(const std::string&, const Message&);

// Keeps a plain back-pointer: the client unsubscribes its observers before it goes away.
template <Handler H>
class Forward : public ISubscriptionObserver {
public:
    explicit Forward(BackendClient* client) : m_client(client) {}
    void message(const std::string& topic, const Message& message) override {
        (m_client->*H)(topic, message);
    }

private:
    BackendClient* m_client;
};

std::string content_topic(unsigned int content_id) {
    return "app/cid/" + std::to_string(content_id);
}

// Every status but "queued" ends a request.
bool is_final(int status) {
    return status != pb::BackendProxyResponse::QUEUED;
}

const char* state_name(BackendClient::ConnectionState state) {
    switch (state) {
        case BackendClient::ConnectionState::Connected:
            return "Connected";
        case BackendClient::ConnectionState::Disconnected:
            return "Disconnected";
        default:
            return "Error";
    }
}

// The content id behind "/cid/", parsed as std::stoul does; the error text names stoul.
Result<unsigned int, std::string> parse_content_id(const std::string& topic) {
    using R = Result<unsigned int, std::string>;
    const auto at = topic.find(kContentMarker);
    if (at == std::string::npos) {
        return R::err("no '/cid/' in topic");
    }
    try {
        const unsigned long id = std::stoul(topic.substr(at + kContentMarker.size()));
        if (id > UINT_MAX) {
            throw std::out_of_range("stoul");
        }
        return R::ok(static_cast<unsigned int>(id));
    } catch (const std::exception& e) {
        return R::err(e.what());
    }
}

}  // namespace

class BackendClient::ResponseObserver : public Forward<&BackendClient::on_response> {
    using Forward::Forward;
};
class BackendClient::StatusObserver : public Forward<&BackendClient::on_status> {
    using Forward::Forward;
};
class BackendClient::QueueStatusObserver : public Forward<&BackendClient::on_queue_status> {
    using Forward::Forward;
};
class BackendClient::ContentObserver : public Forward<&BackendClient::on_content> {
    using Forward::Forward;
};

BackendClient::BackendClient(std::shared_ptr<ITransportClient> transport)
    : m_client_name(transport->get_client_name()),
      m_transport(std::move(transport)),
      m_response_observer(std::make_shared<ResponseObserver>(this)),
      m_status_observer(std::make_shared<StatusObserver>(this)),
      m_queue_status_observer(std::make_shared<QueueStatusObserver>(this)),
      m_content_observer(std::make_shared<ContentObserver>(this)) {
    m_transport->subscribe(_internal::app_topic(m_client_name, "/be/response"), 0,
                           m_response_observer);
    m_transport->subscribe(kStatusTopic, 0, m_status_observer);
}

BackendClient::~BackendClient() {
    std::vector<unsigned int> content_ids;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : m_content_callbacks) {
            if (entry.first != 0) {
                content_ids.push_back(entry.first);
            }
        }
    }
    for (unsigned int id : content_ids) {
        m_transport->unsubscribe(content_topic(id), m_content_observer);
    }
    if (m_queue_status_subscribed) {
        m_transport->unsubscribe(kQueueStatusTopic, m_queue_status_observer);
    }
    m_transport->unsubscribe(kStatusTopic, m_status_observer);
    m_transport->unsubscribe(_internal::app_topic(m_client_name, "/be/response"),
                             m_response_observer);
}

bool BackendClient::is_connected() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connection_state == ConnectionState::Connected;
}

void BackendClient::subscribe_queue_status() {
    if (!m_queue_status_subscribed.exchange(true)) {
        m_transport->subscribe(kQueueStatusTopic, 0, m_queue_status_observer);
    }
}

BackendClient::QueueStatus BackendClient::queue_status() {
    subscribe_queue_status();
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_queue_status;
}

void BackendClient::add_connection_callback(ConnectionCallback callback) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connection_callbacks.push_back(std::move(callback));
}

void BackendClient::add_queue_status_callback(QueueStatusCallback callback) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue_status_callbacks.push_back(std::move(callback));
    }
    // Only now: the retained status arrives as soon as the subscription is made.
    subscribe_queue_status();
}

void BackendClient::add_content_callback(unsigned int content_id, ContentCallback callback) {
    bool known = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        known = m_content_callbacks.count(content_id) > 0;
        m_content_callbacks[content_id] = std::move(callback);
    }
    if (content_id == 0) {
        WARNING << s_log << "Invalid content ID requested for callback";
        WARNING.do_flush();
        return;
    }
    if (!known) {
        m_transport->subscribe(content_topic(content_id), 0, m_content_observer);
    }
}

void BackendClient::clear_content_callbacks(unsigned int content_id) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_content_callbacks.erase(content_id) == 0) {
            WARNING << s_log << "Unable to find requested callback for deletion";
            WARNING.do_flush();
            return;
        }
    }
    if (content_id != 0) {
        m_transport->unsubscribe(content_topic(content_id), m_content_observer);
    }
}

std::uint64_t BackendClient::publish(const Message& data, unsigned int content_id,
                                     const TxOptions& options) {
    if (data.get_data().empty()) {
        NOTICE << s_log << "Refusing to publish an empty message to the backend";
        NOTICE.do_flush();
        return 0;
    }
    const std::uint64_t id = ++m_request_id;
    auto failed = [&] {
        if (options.response_callback) {
            options.response_callback(id, pb::BackendProxyResponse::FAILED);
        }
        return 0;
    };

    pb::BackendProxyTransmit transmit;
    transmit.set_client_name(m_client_name);
    transmit.set_request_id(id);
    transmit.set_content_id(content_id);
    transmit.set_priority(options.priority);
    transmit.set_ttl_ms(static_cast<std::int64_t>(options.ttl_s) * 1000);
    transmit.set_kl30robust(options.kl30robust);
    transmit.set_compress(options.compress);
    transmit.set_store_offline(options.store_offline);
    transmit.set_response_wanted(static_cast<bool>(options.response_callback));
    transmit.set_payload(data.get_data().data(), data.get_data().size());
    const auto framed = PbInternalMessageAdapter<pb::BackendProxyTransmit>(PROTOCOL_BACKEND_PROXY)
                            .serialize(transmit);
    if (!framed) {
        ERROR << s_log << "Unable to serialize data!";
        ERROR.do_flush();
        return failed();
    }
    // Stored before publishing: the proxy's answer may come back before publish() returns.
    if (options.response_callback) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_response_callbacks[id] = options.response_callback;
    }
    if (m_transport->publish(kPublishTopic, framed.value()) != 0) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_response_callbacks.erase(id);
        return failed();
    }
    return id;
}

void BackendClient::on_response(const std::string& /*topic*/, const Message& message) {
    const auto decoded = PbInternalMessageAdapter<pb::BackendProxyResponse>(PROTOCOL_BACKEND_PROXY)
                             .deserialize(message);
    if (!decoded) {
        return;
    }
    const std::uint64_t id = decoded.value().request_id();
    const int status = decoded.value().status();
    DEBUG << s_log << "BackendClient responded to request " << id << " with status ["
          << pb::BackendProxyResponse::Status_Name(decoded.value().status()) << "]";
    DEBUG.do_flush();

    ResponseCallback callback;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_response_callbacks.find(id);
        if (it == m_response_callbacks.end()) {
            INFO << s_log << "No callback registered for BackendClient request " << id;
            INFO.do_flush();
            return;
        }
        if (is_final(status)) {
            callback = std::move(it->second);
            m_response_callbacks.erase(it);
        } else {
            callback = it->second;
        }
    }
    // Called without the lock, so that the callback may publish again.
    if (callback) {
        callback(id, status);
    }
}

void BackendClient::on_status(const std::string& /*topic*/, const Message& message) {
    const auto decoded = PbInternalMessageAdapter<pb::BackendProxyStatus>(PROTOCOL_BACKEND_PROXY)
                             .deserialize(message);
    if (!decoded || !decoded.value().has_status()) {
        return;
    }
    ConnectionState state = ConnectionState::Error;
    if (decoded.value().status() == pb::BackendProxyStatus::PROXY_DISCONNECTED) {
        state = ConnectionState::Disconnected;
    } else if (decoded.value().status() == pb::BackendProxyStatus::PROXY_CONNECTED) {
        state = ConnectionState::Connected;
    }
    std::vector<ConnectionCallback> callbacks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connection_state = state;
        callbacks = m_connection_callbacks;
    }
    DEBUG << s_log << "BackendClient received Backend connection status: " << state_name(state);
    DEBUG.do_flush();
    for (const auto& callback : callbacks) {
        callback(state);
    }
}

void BackendClient::on_queue_status(const std::string& /*topic*/, const Message& message) {
    const auto decoded =
        PbInternalMessageAdapter<pb::BackendProxyQueueStatus>(PROTOCOL_BACKEND_PROXY)
            .deserialize(message);
    if (!decoded) {
        return;
    }
    const auto& received = decoded.value();
    QueueStatus status;
    std::vector<QueueStatusCallback> callbacks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue_status = {received.size(), received.available(), received.in_flight(),
                          received.kl30robust(), DateTime::time_since_boot_ms()};
        status = m_queue_status;
        callbacks = m_queue_status_callbacks;
    }
    DEBUG << s_log << "Received Send Queue status.  size: " << status.size
          << ", available: " << status.available << ", in-flight: " << status.in_flight
          << ", kl30robust: " << status.kl30robust;
    DEBUG.do_flush();
    for (const auto& callback : callbacks) {
        callback(status);
    }
}

void BackendClient::on_content(const std::string& topic, const Message& message) {
    const auto id = parse_content_id(topic);
    if (!id) {
        ERROR << s_log << "Failed to parse content id from topic '" << topic
              << "' : " << id.error();
        ERROR.do_flush();
        return;
    }
    DEBUG << s_log << "BackendClient received a message with content_id=" << id.value();
    DEBUG.do_flush();
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_content_callbacks.find(id.value());
    if (it != m_content_callbacks.end() && it->second) {
        it->second(id.value(), message);
    }
}

std::shared_ptr<BackendClient> create_be_client(std::shared_ptr<ITransportClient>& transport) {
    if (!transport) {
        ERROR << s_log << "Cannot create a backend client without a transport client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<BackendClient>(transport);
}

}  // namespace ecu::tavi::com
