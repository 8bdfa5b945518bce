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
#include "ecu/tavi/sim/testkit.h"
#include "support/broker.h"
#include "support/mqtt_peer.h"

namespace ecu::tavi::bench {

using Clock = std::chrono::steady_clock;

inline test::Broker* g_broker = nullptr;
// The simulator of the run, for the programs started by run_with_kit().
inline sim::TestKit* g_kit = nullptr;

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

inline const std::string kPayload(64, 'x');

// The baseline of every request/response benchmark: a bare libmosquittopp client sends the
// payload through the broker of the run to the echo peer and waits for it to come back.
class BareRoundTrip {
public:
    explicit BareRoundTrip(int qos)
        : m_echo(make_echo("bench/bare/req", "bench/bare/resp")), m_client(m_arrivals), m_qos(qos) {
        m_client.subscribe_and_wait("bench/bare/resp", qos);
    }
    // One exchange; its time in microseconds, or a negative value without an answer.
    double once() {
        const uint64_t target = m_arrivals.now() + 1;
        const auto start = Clock::now();
        m_client.publish(nullptr, "bench/bare/req", static_cast<int>(kPayload.size()),
                         kPayload.data(), m_qos, false);
        if (!m_arrivals.wait_for(target)) {
            return -1;
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    }

private:
    std::unique_ptr<test::MqttPeer> m_echo;
    Arrivals m_arrivals;
    BareClient m_client;
    int m_qos;
};

inline void bare_round_trip(benchmark::State& state, int qos) {
    BareRoundTrip bare(qos);
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

constexpr int kBatch = 1000;

// The baseline of every throughput benchmark: batches of QoS 0 messages from a bare
// publisher to a bare subscriber, each batch waited for in full.
inline void bare_publish_throughput(benchmark::State& state, const std::string& topic) {
    Arrivals received;
    BareClient sink(received);
    sink.subscribe_and_wait(topic, 0);
    Arrivals unused;
    BareClient client(unused);
    for (auto _ : state) {
        const uint64_t target = received.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            client.publish(nullptr, topic.c_str(), static_cast<int>(kPayload.size()),
                           kPayload.data(), 0, false);
        }
        if (!received.wait_for(target)) {
            state.SkipWithError("messages lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
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

// main() of a benchmark program against the simulator: starts a test kit with this unit
// configuration (its broker is the broker of the run), runs the benchmarks, stops it.
inline int run_with_kit(int argc, char** argv, const std::string& unit_text) {
    logging::set_log_level(3);  // errors only: clients and daemons log every exchange
    mosqpp::lib_init();
    sim::TestKit kit({unit_text, ""});
    if (!kit.start()) {
        std::fprintf(stderr, "cannot start the simulator: %s\n", kit.error().c_str());
        return 1;
    }
    g_kit = &kit;
    g_broker = &kit.broker();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace ecu::tavi::bench
