// The transport against bare libmosquittopp, measured in one run on one broker (started on a
// free loopback port, as in the tests):
//   - request/response round trip through the broker with an echo peer (QoS 0 and 1),
//   - one-way throughput of 64-byte QoS 0 messages, end to end to a counting subscriber,
//   - dispatch throughput with 1,000 subscribed topics against 10, for exact-topic messages.
// Round trips report their median and 99th percentile as counters (p50_us, p99_us).
#include <benchmark/benchmark.h>
#include <mosquittopp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "bare_roundtrip.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "mqttclient.h"
#include "support/broker.h"
#include "support/mqtt_peer.h"

namespace {

using namespace ecu::tavi;
using bench::Arrivals;
using bench::BareClient;
using bench::g_broker;
using bench::kPayload;
using bench::make_echo;
using bench::report_latencies;
using Clock = std::chrono::steady_clock;

class CountingObserver : public com::ISubscriptionObserver {
public:
    explicit CountingObserver(Arrivals& arrivals) : m_arrivals(arrivals) {}
    void message(const std::string&, const com::Message&) override { m_arrivals.add(); }

private:
    Arrivals& m_arrivals;
};

std::unique_ptr<com::MqttClient> make_client(const std::string& name) {
    std::istringstream text(g_broker->client_config(name));
    auto config = config::Configuration::create_from_input(text);
    config->verify();
    auto client = std::make_unique<com::MqttClient>(config);
    client->connect();
    client->start();
    return client;
}

void BM_RoundTrip_Bare(benchmark::State& state) {
    bench::bare_round_trip(state, static_cast<int>(state.range(0)));
}

void BM_RoundTrip_MqttClient(benchmark::State& state) {
    const auto qos = static_cast<uint8_t>(state.range(0));
    auto echo = make_echo("bench/lib/req", "bench/lib/resp");
    Arrivals arrivals;
    auto client = make_client("bench-rt");
    client->subscribe("bench/lib/resp", qos, std::make_shared<CountingObserver>(arrivals));
    client->wait_ready(std::chrono::seconds(10));
    com::Message request(kPayload.data(), kPayload.size());
    request.set_qos(qos);
    std::vector<double> micros;
    for (auto _ : state) {
        const uint64_t target = arrivals.now() + 1;
        const auto start = Clock::now();
        client->publish("bench/lib/req", request);
        if (!arrivals.wait_for(target)) {
            state.SkipWithError("no answer");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    report_latencies(state, micros);
    client->stop();
}

constexpr int kBatch = 1000;

// The sink counts with bare libmosquittopp, the same for both publishers.
void BM_Publish64_Bare(benchmark::State& state) {
    Arrivals received;
    BareClient sink(received);
    sink.subscribe_and_wait("bench/bare/flood", 0);
    Arrivals unused;
    BareClient client(unused);
    for (auto _ : state) {
        const uint64_t target = received.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            client.publish(nullptr, "bench/bare/flood", static_cast<int>(kPayload.size()),
                           kPayload.data(), 0, false);
        }
        if (!received.wait_for(target)) {
            state.SkipWithError("messages lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_Publish64_MqttClient(benchmark::State& state) {
    Arrivals received;
    BareClient sink(received);
    sink.subscribe_and_wait("bench/lib/flood", 0);
    auto client = make_client("bench-pub");
    const com::Message message(kPayload.data(), kPayload.size());
    for (auto _ : state) {
        const uint64_t target = received.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            client->publish("bench/lib/flood", message);
        }
        if (!received.wait_for(target)) {
            state.SkipWithError("messages lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    client->stop();
}

std::vector<std::string> dispatch_topics(const char* who, int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof(name), "bench/%s/%d/t%04d", who, count, i);
        names.emplace_back(name);
    }
    return names;
}

// Sends batches spread over all topics from a bare publisher and waits for all of them.
void flood(benchmark::State& state, const std::vector<std::string>& topics, Arrivals& received) {
    Arrivals unused;
    BareClient source(unused);
    for (auto _ : state) {
        const uint64_t target = received.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            const std::string& topic = topics[static_cast<size_t>(i) % topics.size()];
            source.publish(nullptr, topic.c_str(), static_cast<int>(kPayload.size()),
                           kPayload.data(), 0, false);
        }
        if (!received.wait_for(target)) {
            state.SkipWithError("messages lost");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

// Exact-topic messages spread over all subscribed topics. The bare variant shows what the
// broker itself adds for the larger number of subscriptions.
void BM_Dispatch_Bare(benchmark::State& state) {
    const auto topics = dispatch_topics("bare", static_cast<int>(state.range(0)));
    Arrivals received;
    BareClient client(received);
    for (const auto& topic : topics) {
        client.subscribe_and_wait(topic, 0);
    }
    flood(state, topics, received);
}

void BM_Dispatch_MqttClient(benchmark::State& state) {
    const auto topics = dispatch_topics("lib", static_cast<int>(state.range(0)));
    Arrivals received;
    auto observer = std::make_shared<CountingObserver>(received);
    auto client = make_client("bench-dispatch");
    for (const auto& topic : topics) {
        client->subscribe(topic, 0, observer);
    }
    client->wait_ready(std::chrono::seconds(30));
    flood(state, topics, received);
    client->stop();
}

// Baseline and library alternate, so drifting load hits both alike.
BENCHMARK(BM_RoundTrip_Bare)->Arg(0)->Arg(1)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_RoundTrip_MqttClient)->Arg(0)->Arg(1)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Publish64_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Publish64_MqttClient)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Dispatch_Bare)->Arg(10)->Arg(1000)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Dispatch_MqttClient)->Arg(10)->Arg(1000)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    return bench::run_with_broker(argc, argv);
}
