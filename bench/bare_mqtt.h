// The bare libmosquittopp side of the benchmarks: a client that counts what arrives, an echo
// peer, the request/response round trip through the broker that the library's round trips
// are compared with, and the latency counters (p50_us, p99_us) they all report.
#pragma once

#include <benchmark/benchmark.h>
#include <mosquittopp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/broker.h"
#include "support/mqtt_peer.h"

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
    BareClient(Arrivals& arrivals, const test::Broker& broker) : m_arrivals(arrivals) {
        connect("127.0.0.1", broker.port(), 60);
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

// The echo peer answers every request on the response topic with the request's QoS.
inline std::unique_ptr<test::MqttPeer> make_echo(const test::Broker& broker,
                                                 const std::string& request,
                                                 const std::string& response) {
    auto echo = std::make_unique<test::MqttPeer>(broker.host(), broker.port());
    test::MqttPeer* raw = echo.get();
    echo->set_handler([raw, response](const test::MqttPeer::Received& received) {
        raw->publish(response, received.payload, received.qos);
    });
    echo->subscribe(request, 1);
    return echo;
}

// Median and 99th percentile of round trips in microseconds, as counters named prefix +
// "p50_us" and prefix + "p99_us".
inline void report_latencies(benchmark::State& state, std::vector<double>& micros,
                             const std::string& prefix = "") {
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    state.counters[prefix + "p50_us"] = micros[micros.size() / 2];
    state.counters[prefix + "p99_us"] = micros[micros.size() * 99 / 100];
}

// The baseline of every request/response benchmark: a bare libmosquittopp client sends a
// payload through the broker to an echo peer and waits for it to come back.
class BareRoundTrip {
public:
    BareRoundTrip(const test::Broker& broker, int qos, std::string payload)
        : m_echo(make_echo(broker, "bench/bare/req", "bench/bare/resp")),
          m_client(m_arrivals, broker),
          m_qos(qos),
          m_payload(std::move(payload)) {
        m_client.subscribe_and_wait("bench/bare/resp", qos);
    }
    // One exchange; its time in microseconds, or a negative value without an answer.
    double once() {
        const uint64_t target = m_arrivals.now() + 1;
        const auto start = std::chrono::steady_clock::now();
        m_client.publish(nullptr, "bench/bare/req", static_cast<int>(m_payload.size()),
                         m_payload.data(), m_qos, false);
        if (!m_arrivals.wait_for(target)) {
            return -1;
        }
        return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
            .count();
    }

private:
    std::unique_ptr<test::MqttPeer> m_echo;
    Arrivals m_arrivals;
    BareClient m_client;
    int m_qos;
    std::string m_payload;
};

inline void bare_round_trip(benchmark::State& state, const test::Broker& broker, int qos,
                            const std::string& payload) {
    BareRoundTrip bare(broker, qos, payload);
    std::vector<double> micros;
    for (auto _ : state) {
        const double took = bare.once();
        if (took < 0) {
            state.SkipWithError("no answer");
            break;
        }
        micros.push_back(took);
    }
    report_latencies(state, micros);
}

}  // namespace ecu::tavi::bench
