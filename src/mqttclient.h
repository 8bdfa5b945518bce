// The transport on libmosquittopp: one broker connection with its own network thread that
// reconnects forever, the table of subscriptions with their observers, and the readiness
// handshake with the IPC daemon. The locking rules are written down in mqttclient.cpp.
#pragma once

#include <mosquittopp.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/pb/subscription.pb.h"

namespace ecu::tavi::config {
class Configuration;
}

namespace ecu::tavi::com {

class IPCdSubscriptionsObserver;

class MqttClient : public ITransportClient {
public:
    explicit MqttClient(std::unique_ptr<config::Configuration>& configuration);
    // Disconnects and joins the network thread if it still runs.
    ~MqttClient() override;
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    bool connect() override;
    int disconnect() override;
    bool isConnected() override;
    bool is_ready() override;
    bool wait_ready(std::chrono::seconds timeout) override;
    int publish(const std::string& topic, const Message& message) override;
    bool publish_wait_ack(const std::string& topic, const Message& message,
                          std::chrono::seconds timeout) override;
    void subscribe(const std::string& topic, unsigned char qos,
                   std::shared_ptr<ISubscriptionObserver> observer) override;
    void unsubscribe(const std::string& topic,
                     std::shared_ptr<ISubscriptionObserver> observer) override;
    void add_connection_observer(std::shared_ptr<IConnectionObserver> observer) override;
    void run(bool) override;
    void start() override;
    void stop() override;
    void join() override;
    std::string get_client_name() override;
    bool set_will(const std::string& topic, const Message& message) override;
    bool clear_will() override;
    bool is_network_thread() const override;

    // Pauses between connection attempts: while the first connection fails, and after a
    // connection was lost. Tests shorten them (before connect()); nothing else should.
    void set_retry_delays(std::chrono::milliseconds first_connect,
                          std::chrono::milliseconds after_loss);

    enum ConnectionState : int { INITIAL = 0, CONNECTING = 1, DISCONNECTED = 2, CONNECTED = 3 };

    struct MosqSubscription {
        std::vector<std::shared_ptr<ISubscriptionObserver>> observers;
        uint8_t qos = 0;
        int mid = 0;
        bool subscribed = false;
        bool announce_pending = false;
    };

    struct SubActionQueueItem {
        enum Action : int { SUBSCRIBE = 0, UNSUBSCRIBE = 1 };
        int action;
        std::string topic;
        std::shared_ptr<ISubscriptionObserver> observer;
        uint8_t qos;
    };

private:
    friend class IPCdSubscriptionsObserver;

    // Receives libmosquitto's callbacks on the network thread and hands them to its owner.
    class Mosq_Client : public mosqpp::mosquittopp {
    public:
        Mosq_Client(MqttClient& owner, const char* id, bool clean_session);
        void on_connect(int rc) override;
        void on_disconnect(int rc) override;
        void on_publish(int mid) override;
        void on_message(const struct mosquitto_message* message) override;
        void on_subscribe(int mid, int qos_count, const int* granted_qos) override;
        void on_log(int level, const char* text) override;
        void on_error() override;

    private:
        MqttClient& m_owner;
    };

    // Network thread.
    void thread_start();
    void thread_main();
    bool do_connect();
    bool setup_tls();
    bool wait_until_connected();
    // Sleeps on the readiness condition variable; returns early (false) on a stop request.
    bool retry_pause(std::chrono::milliseconds delay);

    // Callbacks, on the network thread.
    void handle_connect(int rc);
    void handle_disconnect(int rc);
    void handle_publish(int mid);
    void handle_message(const struct mosquitto_message* message);
    void handle_subscribe(int mid);
    void handle_log(int level, const char* text);
    void handle_error();
    std::vector<std::shared_ptr<IConnectionObserver>> connection_observers();

    // publish() that also hands out the message id.
    int publish_with_mid(const std::string& topic, const Message& message, int* mid);

    // Subscriptions; all with the client mutex held.
    void resubscribeAll();
    void do_subscribe(const std::string& topic, MosqSubscription& subscription);
    void announce_rt_topic(const std::string& topic, MosqSubscription& subscription);
    // First: every subscription acknowledged; second: every real-time topic confirmed.
    std::pair<bool, bool> is_all_subscribed_and_announced();
    void deliver(const std::vector<std::shared_ptr<ISubscriptionObserver>>& observers,
                 const std::string& topic, const Message& message);

    // Wakes every readiness waiter; each call counts as one event, so a waiter that checked
    // its condition before the event never misses it.
    void notify_ready_waiters();
    // Topics not yet acknowledged by the broker, and real-time topics not yet confirmed by
    // IPCd, for the time-out report of wait_ready.
    std::string describe_missing();
    // Once ready, the IPCd report is no longer needed.
    void drop_ipcd_observer();
    std::string broker() const;

    // Configuration.
    std::string m_client_name;
    std::string m_host;
    uint16_t m_port = 1883;
    uint16_t m_keepalive = 60;
    int m_protocol_version = 3;
    std::string m_username;
    std::string m_password;
    bool m_tls_enabled = false;
    std::string m_tls_cafile;
    std::string m_tls_capath;
    std::string m_tls_certfile;
    std::string m_tls_keyfile;
    std::string m_tls_version;
    std::string m_tls_ciphers;
    std::chrono::milliseconds m_first_connect_delay{1000};
    std::chrono::milliseconds m_after_loss_delay{5000};

    PbInternalMessageAdapter<pb::SubscriptionMessage> m_announce_adapter;
    std::unique_ptr<Mosq_Client> m_mosq;
    std::atomic<int> m_state{INITIAL};
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_stop_requested{false};

    std::mutex m_thread_mutex;  // m_thread
    std::thread m_thread;
    std::atomic<std::thread::id> m_network_thread_id{};

    std::mutex m_observers_mutex;  // m_connection_observers
    std::vector<std::shared_ptr<IConnectionObserver>> m_connection_observers;

    std::recursive_mutex m_client_mutex;  // everything down to m_ipcd_observer
    std::map<std::string, MosqSubscription> m_subscriptions;
    std::vector<SubActionQueueItem> m_action_queue;
    bool m_dispatching = false;
    std::shared_ptr<IPCdSubscriptionsObserver> m_ipcd_observer;

    std::mutex m_ready_mutex;  // m_ready_events
    std::condition_variable m_ready_cv;
    uint64_t m_ready_events = 0;

    std::mutex m_ack_mutex;  // m_pending_acks
    std::condition_variable m_ack_cv;
    std::set<int> m_pending_acks;
};

// Collects the real-time topics that the IPC daemon reports as relayed, and wakes the
// readiness waiters of its client on every report.
class IPCdSubscriptionsObserver : public ISubscriptionObserver {
public:
    explicit IPCdSubscriptionsObserver(MqttClient& client);
    void message(const std::string& topic, const Message& message) override;
    bool is_active(const std::string& topic);

private:
    MqttClient& m_client;
    PbInternalMessageAdapter<pb::SubscriptionStatus> m_adapter;
    std::mutex m_mutex;  // m_topics
    std::unordered_set<std::string> m_topics;
};

}  // namespace ecu::tavi::com
