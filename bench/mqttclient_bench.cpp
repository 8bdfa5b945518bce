// The transport against bare libmosquittopp, measured in one run on one broker (started on a
// free loopback port, as in the tests):
//   - request/response round trip through the broker with an echo peer (QoS 0 and 1),
//   - one-way throughput of 64-byte QoS 0 messages, end to end to a counting subscriber,
//   - dispatch throughput with 1,000 subscribed topics against 10, for exact-topic messages.
// Round trips report their median and 99th percentile as counters (p50_us, p99_us).
#include <benchmark/benchmark.h>
#include <mosquittopp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

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

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "mqttclient.h"
#include "support/broker.h"
#include "support/mqtt_peer.h"
#include "transport_bench_support.h"

namespace {

using namespace ecu::tavi;
using bench::Arrivals;
using bench::BareClient;
using bench::CountingObserver;
using bench::kBatch;
using bench::make_client;
using Clock = std::chrono::steady_clock;

test::Broker* g_broker = nullptr;

// The echo peer answers every request on the response topic with the request's QoS.
std::unique_ptr<test::MqttPeer> make_echo(const std::string& request, const std::string& response) {
    auto echo = std::make_unique<test::MqttPeer>(g_broker->host(), g_broker->port());
    test::MqttPeer* raw = echo.get();
    echo->set_handler([raw, response](const test::MqttPeer::Received& received) {
        raw->publish(response, received.payload, received.qos);
    });
    echo->subscribe(request, 1);
    return echo;
}

void report_latencies(benchmark::State& state, std::vector<double>& micros) {
    if (micros.empty()) {
        return;
    }
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}

const std::string kPayload(64, 'x');

void BM_RoundTrip_Bare(benchmark::State& state) {
    const int qos = static_cast<int>(state.range(0));
    auto echo = make_echo("bench/bare/req", "bench/bare/resp");
    Arrivals arrivals;
    BareClient client(arrivals, g_broker->port());
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

void BM_RoundTrip_MqttClient(benchmark::State& state) {
    const auto qos = static_cast<uint8_t>(state.range(0));
    auto echo = make_echo("bench/lib/req", "bench/lib/resp");
    Arrivals arrivals;
    auto client = make_client(g_broker->client_config("bench-rt"));
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

// The sink counts with bare libmosquittopp, the same for both publishers.
void BM_Publish64_Bare(benchmark::State& state) {
    bench::bare_publish_throughput(state, g_broker->port(), "bench/bare/flood", kPayload);
}

void BM_Publish64_MqttClient(benchmark::State& state) {
    Arrivals received;
    BareClient sink(received, g_broker->port());
    sink.subscribe_and_wait("bench/lib/flood", 0);
    auto client = make_client(g_broker->client_config("bench-pub"));
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
    BareClient source(unused, g_broker->port());
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
    BareClient client(received, g_broker->port());
    for (const auto& topic : topics) {
        client.subscribe_and_wait(topic, 0);
    }
    flood(state, topics, received);
}

void BM_Dispatch_MqttClient(benchmark::State& state) {
    const auto topics = dispatch_topics("lib", static_cast<int>(state.range(0)));
    Arrivals received;
    auto observer = std::make_shared<CountingObserver>(received);
    auto client = make_client(g_broker->client_config("bench-dispatch"));
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
