#include "support/mqtt_peer.h"

#include <mosquitto.h>

#include <algorithm>

namespace ecu::tavi::test {

namespace {
// How long the peer waits between connection attempts: short, so that tests restarting the
// broker do not wait for it.
constexpr auto kRetry = std::chrono::milliseconds(10);
}  // namespace

MqttPeer::MqttPeer(const std::string& host, uint16_t port) : m_host(host), m_port(port) {
    static const int s_init = mosquitto_lib_init();
    (void)s_init;
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_threaded_set(m_mosq, true);
    // Without it every QoS 1 exchange waits for the broker's delayed ACK.
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_mosq, &MqttPeer::on_connect);
    mosquitto_disconnect_callback_set(m_mosq, &MqttPeer::on_disconnect);
    mosquitto_message_callback_set(m_mosq, &MqttPeer::on_message);
    mosquitto_subscribe_callback_set(m_mosq, &MqttPeer::on_subscribe);
    m_thread = std::thread([this] { run(); });
}

MqttPeer::~MqttPeer() {
    m_stop = true;
    m_cv.notify_all();
    m_thread.join();
    mosquitto_destroy(m_mosq);
}

void MqttPeer::run() {
    bool ever_connected = false;
    bool have_socket = false;
    while (!m_stop) {
        if (!have_socket) {
            int rc = ever_connected ? mosquitto_reconnect(m_mosq)
                                    : mosquitto_connect(m_mosq, m_host.c_str(), m_port, 60);
            if (rc != MOSQ_ERR_SUCCESS) {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_cv.wait_for(lock, kRetry, [this] { return m_stop.load(); });
                continue;
            }
            ever_connected = true;
            have_socket = true;
        }
        if (mosquitto_loop(m_mosq, 50, 1) != MOSQ_ERR_SUCCESS) {
            have_socket = false;
        }
    }
    if (have_socket) {
        mosquitto_disconnect(m_mosq);
        for (int i = 0; i < 10 && mosquitto_loop(m_mosq, 10, 1) == MOSQ_ERR_SUCCESS; ++i) {
        }
    }
}

void MqttPeer::on_connect(mosquitto* mosq, void* self, int rc) {
    auto* peer = static_cast<MqttPeer*>(self);
    if (rc != 0) {
        return;
    }
    std::function<void()> handler;
    {
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        for (const auto& [filter, qos] : peer->m_filters) {
            mosquitto_subscribe(mosq, nullptr, filter.c_str(), qos);
        }
        peer->m_connected = true;
        handler = peer->m_connect_handler;
    }
    peer->m_cv.notify_all();
    if (handler) {
        handler();
    }
}

void MqttPeer::on_disconnect(mosquitto*, void* self, int) {
    auto* peer = static_cast<MqttPeer*>(self);
    std::lock_guard<std::mutex> lock(peer->m_mutex);
    peer->m_connected = false;
}

void MqttPeer::on_subscribe(mosquitto*, void* self, int mid, int, const int*) {
    auto* peer = static_cast<MqttPeer*>(self);
    {
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        peer->m_acked_mids.push_back(mid);
    }
    peer->m_cv.notify_all();
}

void MqttPeer::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    auto* peer = static_cast<MqttPeer*>(self);
    Received received;
    received.topic = message->topic;
    received.payload.assign(static_cast<const char*>(message->payload),
                            static_cast<size_t>(message->payloadlen));
    received.qos = message->qos;
    received.retain = message->retain;
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        handler = peer->m_handler;
    }
    if (handler) {
        handler(received);
    }
    {
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        peer->m_received.push_back(std::move(received));
    }
    peer->m_cv.notify_all();
}

bool MqttPeer::wait_connected(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [this] { return m_connected; });
}

bool MqttPeer::subscribe(const std::string& filter, int qos) {
    if (!wait_connected()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_filters.emplace_back(filter, qos);  // subscribed once it connects
        return false;
    }
    int mid = 0;
    {
        // Under the lock that on_connect takes: a filter it already subscribed would be
        // subscribed twice, and a retained message delivered twice.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_filters.emplace_back(filter, qos);
        if (mosquitto_subscribe(m_mosq, &mid, filter.c_str(), qos) != MOSQ_ERR_SUCCESS) {
            return false;
        }
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::seconds(10), [&] {
        return std::find(m_acked_mids.begin(), m_acked_mids.end(), mid) != m_acked_mids.end();
    });
}

int MqttPeer::publish(const std::string& topic, const std::string& payload, int qos, bool retain) {
    return mosquitto_publish(m_mosq, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), qos, retain);
}

int MqttPeer::publish(const std::string& topic, const std::vector<uint8_t>& payload, int qos,
                      bool retain) {
    return mosquitto_publish(m_mosq, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                             payload.data(), qos, retain);
}

void MqttPeer::set_handler(Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handler = std::move(handler);
}

void MqttPeer::set_connect_handler(std::function<void()> handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connect_handler = std::move(handler);
}

std::vector<MqttPeer::Received> MqttPeer::received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

size_t MqttPeer::count(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<size_t>(std::count_if(m_received.begin(), m_received.end(),
                                             [&](const Received& r) { return r.topic == topic; }));
}

bool MqttPeer::wait_for(const std::string& topic, size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, timeout, [&] {
        return static_cast<size_t>(
                   std::count_if(m_received.begin(), m_received.end(),
                                 [&](const Received& r) { return r.topic == topic; })) >= count;
    });
}

void MqttPeer::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.clear();
}

}  // namespace ecu::tavi::test
