// The UDS client's synchronous request/response round trip against the simulator's UDS
// daemon, side by side with the bare libmosquittopp round trip through the same broker in
// the same run (QoS 1 both, as the UDS traffic). Both report p50_us and p99_us.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "bare_mqtt.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/diag/uds_client.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/sim/testkit.h"

namespace {

using namespace ecu::tavi;
using Clock = std::chrono::steady_clock;

sim::TestKit* g_kit = nullptr;

// About the size of a framed UDS request.
const std::string kPayload(64, 'x');

void BM_RoundTrip_Bare(benchmark::State& state) {
    bench::bare_round_trip(state, g_kit->broker(), 1, kPayload);
}

// ReadDataByIdentifier of the VIN, answered from the unit's table.
void BM_RoundTrip_UdsRequest(benchmark::State& state) {
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
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!uds->send_request(vin, 5000, 0xFF, 255)) {
            state.SkipWithError("no answer");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    bench::report_latencies(state, micros);
    uds->release_interface(5000);
    uds.reset();
    transport->stop();
}

// Baseline and library alternate, so drifting load hits both alike.
BENCHMARK(BM_RoundTrip_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_RoundTrip_UdsRequest)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_RoundTrip_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_RoundTrip_UdsRequest)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    logging::set_log_level(3);  // errors only: client and daemon log every exchange
    mosqpp::lib_init();
    sim::TestKit kit({"uds.answer.17.22f190 = 62f190574442393633343033314c393837363534\n", ""});
    if (!kit.start()) {
        std::fprintf(stderr, "cannot start the simulator: %s\n", kit.error().c_str());
        return 1;
    }
    g_kit = &kit;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
