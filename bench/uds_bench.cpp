// The UDS client's synchronous request/response round trip against the simulator's UDS
// daemon, side by side with the bare libmosquittopp round trip through the same broker in
// the same run (QoS 1 both, as the UDS traffic).
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <vector>

#include "bare_roundtrip.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/diag/uds_client.h"

namespace {

using namespace ecu::tavi;
using Clock = std::chrono::steady_clock;

using bench::g_kit;

// ReadDataByIdentifier of the VIN, answered from the unit's table; each iteration makes one
// bare exchange and one UDS request in turn, so that both meet the same load. Reports
// bare_p50_us, uds_p50_us (and p99) and their ratio.
void BM_RoundTrip_UdsRequestVsBare(benchmark::State& state) {
    bench::BareRoundTrip bare(1);
    auto configuration = g_kit->client_configuration("bench-uds");
    auto transport = com::create_client(configuration, com::MQTT);
    auto uds = diag::create_uds_client(transport, nullptr);
    transport->connect();
    transport->start();
    transport->wait_ready(std::chrono::seconds(10));
    if (uds->allocate_interface({1, 1, 0}, 5000) != diag::UDS_INTERFACE_ALLOCATED) {
        state.SkipWithError("no interface");
        transport->stop();
        return;
    }
    const diag::UdsMessage vin{0x17, {0x22, 0xf1, 0x90}};
    std::vector<double> bare_micros;
    std::vector<double> uds_micros;
    for (auto _ : state) {
        const double took = bare.once();
        const auto start = Clock::now();
        const bool answered = uds->send_request(vin, 5000, 0xFF, 255).has_value();
        if (took < 0 || !answered) {
            state.SkipWithError("no answer");
            break;
        }
        uds_micros.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        bare_micros.push_back(took);
    }
    bench::report_latencies(state, bare_micros, "bare_");
    bench::report_latencies(state, uds_micros, "uds_");
    if (!bare_micros.empty()) {
        state.counters["ratio_p50"] = state.counters["uds_p50_us"] / state.counters["bare_p50_us"];
    }
    uds->release_interface(5000);
    uds.reset();
    transport->stop();
}

BENCHMARK(BM_RoundTrip_UdsRequestVsBare)->UseRealTime()->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
    return ecu::tavi::bench::run_with_kit(
        argc, argv, "uds.answer.17.22f190 = 62f190574442393633343033314c393837363534\n");
}
