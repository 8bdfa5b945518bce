// Shared setup of the fuzz targets: a quiet log, and a transport that reaches no broker.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/logging/logging.h"

namespace fuzz {

// Rejected input is logged; keep the log off the fuzzer's console and out of syslog.
inline void quiet_logging() {
    ecu::tavi::logging::set_log_mode(ecu::tavi::logging::STDOUT);
    ecu::tavi::logging::set_log_level(0);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        std::abort();
    }
}

// Keeps what the clients publish and which observers they subscribe, so that a target can
// hand a client's observer any message directly. Every call counts as made on the network
// thread, so a blocking request is refused at once instead of waiting for an answer.
class OfflineTransport : public ecu::tavi::com::ITransportClient {
public:
    using Observer = std::shared_ptr<ecu::tavi::com::ISubscriptionObserver>;

    explicit OfflineTransport(std::string client_name) : m_client_name(std::move(client_name)) {}

    bool connect() override { return false; }
    int disconnect() override { return 0; }
    bool isConnected() override { return false; }
    bool is_ready() override { return false; }
    bool wait_ready(std::chrono::seconds) override { return false; }
    int publish(const std::string& topic, const ecu::tavi::com::Message& message) override {
        published.emplace_back(topic, message);
        return 0;
    }
    bool publish_wait_ack(const std::string& topic, const ecu::tavi::com::Message& message,
                          std::chrono::seconds) override {
        return publish(topic, message) == 0;
    }
    void subscribe(const std::string& topic, unsigned char, Observer observer) override {
        subscriptions.emplace(topic, std::move(observer));
    }
    void unsubscribe(const std::string& topic, Observer observer) override {
        const auto range = subscriptions.equal_range(topic);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == observer) {
                subscriptions.erase(it);
                return;
            }
        }
    }
    void add_connection_observer(std::shared_ptr<ecu::tavi::com::IConnectionObserver>) override {}
    void run(bool) override {}
    void start() override {}
    void stop() override {}
    void join() override {}
    std::string get_client_name() override { return m_client_name; }
    bool set_will(const std::string&, const ecu::tavi::com::Message&) override { return true; }
    bool clear_will() override { return true; }
    bool is_network_thread() const override { return true; }

    // The one observer subscribed to exactly this topic; aborts when there is none.
    Observer observer(const std::string& topic) const {
        const auto it = subscriptions.find(topic);
        if (it == subscriptions.end()) {
            std::abort();
        }
        return it->second;
    }

    std::vector<std::pair<std::string, ecu::tavi::com::Message>> published;
    std::multimap<std::string, Observer> subscriptions;

private:
    std::string m_client_name;
};

}  // namespace fuzz
