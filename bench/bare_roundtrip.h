// What the benchmarks that run against a broker share: the broker of the run (a private
// mosquitto on a free loopback port, as in the tests), bare libmosquittopp clients, an echo
// peer, and the bare request/response round trip that the library's round trips are
// measured against in the same run.
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
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/logging/logging.h"
#include "support/broker.h"
#include "support/mqtt_peer.h"

namespace ecu::tavi::bench {

using Clock = std::chrono::steady_clock;

inline test::Broker* g_broker = nullptr;

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
    explicit BareClient(Arrivals& arrivals) : m_arrivals(arrivals) {
        connect("127.0.0.1", g_broker->port(), 60);
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
inline std::unique_ptr<test::MqttPeer> make_echo(const std::string& request,
                                                 const std::string& response) {
    auto echo = std::make_unique<test::MqttPeer>(g_broker->host(), g_broker->port());
    test::MqttPeer* raw = echo.get();
    echo->set_handler([raw, response](const test::MqttPeer::Received& received) {
        raw->publish(response, received.payload, received.qos);
    });
    echo->subscribe(request, 1);
    return echo;
}

inline void report_latencies(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

inline const std::string kPayload(64, 'x');

// The baseline of every request/response benchmark: bare libmosquittopp through the same
// broker, with the echo peer, at this QoS.
inline void bare_round_trip(benchmark::State& state, int qos) {
    auto echo = make_echo("bench/bare/req", "bench/bare/resp");
    Arrivals arrivals;
    BareClient client(arrivals);
    client.subscribe_and_wait("bench/bare/resp", qos);
    std::vector<double> micros;
    for (auto _ : state) {
        const uint64_t target = arrivals.now() + 1;
        const auto start = Clock::now();
        client.publish(nullptr, "bench/bare/req", static_cast<int>(kPayload.size()),
                       kPayload.data(), qos, false);
        if (!arrivals.wait_for(target)) {
            state.SkipWithError("no answer");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    report_latencies(state, micros);
}

// main() of a benchmark program: starts the broker, runs the benchmarks, stops it.
inline int run_with_broker(int argc, char** argv) {
    logging::set_log_level(3);  // errors only: the transport logs every publish at DEBUG
    mosqpp::lib_init();
    test::Broker broker;
    if (!broker.start()) {
        std::fprintf(stderr, "cannot start mosquitto\n");
        return 1;
    }
    g_broker = &broker;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace ecu::tavi::bench
