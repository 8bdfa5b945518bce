// A plain libmosquitto client for tests, independent of the library's transport: it
// publishes and receives raw bytes, and reconnects quickly by itself after a broker restart,
// subscribing again to everything it subscribed before.
//
// Thread safe. The handler runs on the peer's own network thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace ecu::tavi::test {

class MqttPeer {
public:
    struct Received {
        std::string topic;
        std::string payload;
        int qos = 0;
        bool retain = false;
    };
    using Handler = std::function<void(const Received&)>;

    MqttPeer(const std::string& host, uint16_t port);
    ~MqttPeer();
    MqttPeer(const MqttPeer&) = delete;
    MqttPeer& operator=(const MqttPeer&) = delete;

    bool wait_connected(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Subscribes now and again after every reconnect; waits for the broker's acknowledgement.
    bool subscribe(const std::string& filter, int qos = 0);
    // Returns the libmosquitto code.
    int publish(const std::string& topic, const std::string& payload, int qos = 0,
                bool retain = false);
    int publish(const std::string& topic, const std::vector<uint8_t>& payload, int qos = 0,
                bool retain = false);

    // Called on the peer's thread for every message, before it is stored.
    void set_handler(Handler handler);
    // Called on the peer's thread after every (re)connect, once the subscriptions are sent.
    void set_connect_handler(std::function<void()> handler);

    std::vector<Received> received();
    size_t count(const std::string& topic);
    bool wait_for(const std::string& topic, size_t count = 1,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void clear();

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_disconnect(mosquitto*, void* self, int rc);
    static void on_message(mosquitto*, void* self, const mosquitto_message* message);
    static void on_subscribe(mosquitto*, void* self, int mid, int, const int*);
    void run();

    std::string m_host;
    uint16_t m_port;
    mosquitto* m_mosq = nullptr;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_connected = false;
    std::vector<std::pair<std::string, int>> m_filters;
    std::vector<int> m_acked_mids;
    std::vector<Received> m_received;
    Handler m_handler;
    std::function<void()> m_connect_handler;
    std::thread m_thread;
};

}  // namespace ecu::tavi::test
