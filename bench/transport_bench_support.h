// Pieces the transport benchmarks share: a bare libmosquittopp client as the baseline, the
// library's transport made from a configuration, and arrival counting with a deadline.
#pragma once

#include <benchmark/benchmark.h>
#include <mosquittopp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/config/configuration.h"
#include "mqttclient.h"

namespace ecu::tavi::bench {

// Counts arrivals and wakes one waiter; shared by the bare client and the observer.
struct Arrivals {
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t count = 0;

    void add() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++count;
        }
        cv.notify_all();
    }
    uint64_t now() {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }
    bool wait_for(uint64_t target) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(10), [&] { return count >= target; });
    }
};

class BareClient : public mosqpp::mosquittopp {
public:
    BareClient(Arrivals& arrivals, uint16_t port) : m_arrivals(arrivals) {
        connect("127.0.0.1", port, 60);
        loop_start();
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_connected; });
    }
    ~BareClient() override {
        disconnect();
        loop_stop();
    }
    void subscribe_and_wait(const std::string& topic, int qos) {
        int mid = 0;
        subscribe(&mid, topic.c_str(), qos);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_last_suback == mid; });
    }
    void on_connect(int) override {
        const int one = 1;
        ::setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected = true;
        m_cv.notify_all();
    }
    void on_subscribe(int mid, int, const int*) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_last_suback = mid;
        m_cv.notify_all();
    }
    void on_message(const struct mosquitto_message*) override { m_arrivals.add(); }

private:
    Arrivals& m_arrivals;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_connected = false;
    int m_last_suback = 0;
};

class CountingObserver : public com::ISubscriptionObserver {
public:
    explicit CountingObserver(Arrivals& arrivals) : m_arrivals(arrivals) {}
    void message(const std::string&, const com::Message&) override { m_arrivals.add(); }

private:
    Arrivals& m_arrivals;
};

// The library's transport with this configuration, connected and started.
inline std::unique_ptr<com::MqttClient> make_client(const std::string& config_text) {
    std::istringstream text(config_text);
    auto config = config::Configuration::create_from_input(text);
    config->verify();
    auto client = std::make_unique<com::MqttClient>(config);
    client->connect();
    client->start();
    return client;
}

constexpr int kBatch = 1000;

// Bare one-way throughput: batches of QoS 0 messages from a bare publisher to a bare
// subscriber on the broker at port, each batch waited for in full.
inline void bare_publish_throughput(benchmark::State& state, uint16_t port,
                                    const std::string& topic, const std::string& payload) {
    Arrivals received;
    BareClient sink(received, port);
    sink.subscribe_and_wait(topic, 0);
    Arrivals unused;
    BareClient client(unused, port);
    for (auto _ : state) {
        const uint64_t target = received.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            client.publish(nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                           0, false);
        }
        if (!received.wait_for(target)) {
            state.SkipWithError("messages lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

}  // namespace ecu::tavi::bench
