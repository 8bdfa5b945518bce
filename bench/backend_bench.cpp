// The backend client's publish with a response callback, answered by the simulator's
// backend proxy ("queued", then "delivered"), against bare libmosquittopp in the same run:
//   - Bare: the same framed transmissions published by a bare client, the proxy's answers
//     counted by a bare subscriber (the same traffic, without the library),
//   - Bare one-way: 64-byte messages to a subscriber, no proxy (for scale: every backend
//     request costs the broker three messages).
// A batch counts as done when every request's final status has arrived.
#include <benchmark/benchmark.h>
#include <mosquittopp.h>

#include <chrono>
#include <memory>
#include <string>

#include "bare_roundtrip.h"
#include "ecu/tavi/com/backend.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/backend.pb.h"

namespace {

using namespace ecu::tavi;
using bench::Arrivals;
using bench::BareClient;
using bench::kBatch;
using bench::kPayload;

using bench::g_kit;

void BM_Publish64_BareOneWay(benchmark::State& state) {
    bench::bare_publish_throughput(state, "bench/bare/flood");
}

void BM_ProxyPublish64_Bare(benchmark::State& state) {
    pb::BackendProxyTransmit transmit;
    transmit.set_client_name("bench-bare");
    transmit.set_request_id(1);
    transmit.set_content_id(7);
    transmit.set_response_wanted(true);
    transmit.set_payload(kPayload);
    const auto framed =
        com::PbInternalMessageAdapter<pb::BackendProxyTransmit>(com::PROTOCOL_BACKEND_PROXY)
            .serialize(transmit)
            .value()
            .get_data();
    Arrivals answers;
    BareClient sink(answers);
    sink.subscribe_and_wait("app/bench-bare/be/response", 0);
    Arrivals unused;
    BareClient client(unused);
    for (auto _ : state) {
        const uint64_t target = answers.now() + 2 * kBatch;  // queued and delivered
        for (int i = 0; i < kBatch; ++i) {
            client.publish(nullptr, "be/publish", static_cast<int>(framed.size()), framed.data(), 0,
                           false);
        }
        if (!answers.wait_for(target)) {
            state.SkipWithError("answers missing");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_BackendPublish64_WithCallback(benchmark::State& state) {
    auto config = g_kit->client_configuration("bench-be");
    std::shared_ptr<com::ITransportClient> transport = com::create_mqtt_client(config);
    transport->connect();
    auto backend = com::create_be_client(transport);
    transport->start();
    transport->wait_ready(std::chrono::seconds(10));
    Arrivals finals;
    com::BackendClient::TxOptions options;
    options.response_callback = [&finals](std::uint64_t, int status) {
        if (status != 2) {
            finals.add();
        }
    };
    const com::Message data(kPayload.data(), kPayload.size());
    for (auto _ : state) {
        const uint64_t target = finals.now() + kBatch;
        for (int i = 0; i < kBatch; ++i) {
            backend->publish(data, 7, options);
        }
        if (!finals.wait_for(target)) {
            state.SkipWithError("final statuses missing");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    backend.reset();
    transport->stop();
}

// Baseline and library alternate, so drifting load hits both alike.
BENCHMARK(BM_Publish64_BareOneWay)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ProxyPublish64_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_BackendPublish64_WithCallback)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_ProxyPublish64_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_BackendPublish64_WithCallback)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    return ecu::tavi::bench::run_with_kit(argc, argv, "backend.ack_delay_ms = 0\n");
}
