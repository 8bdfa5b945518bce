// Reading platform variables, against the bare request/response round trip of the transport
// benchmark in the same run on the same broker:
//   - a read answered from the cache (no traffic at all),
//   - a first read: subscribe, wait for the retained value, return it (a new client each
//     time; its destruction, which unsubscribes, is not timed).
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "bare_roundtrip.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/var/variables.h"

namespace {

using namespace ecu::tavi;
using bench::Clock;

// A connected, started transport, and "system/var/hwversion" retained on the broker.
std::shared_ptr<com::ITransportClient> transport_with_variable(const std::string& name) {
    pb::EcuVariable variable;
    variable.set_value("vcm");
    auto framed = com::PbInternalMessageAdapter<pb::EcuVariable>(com::PROTOCOL_ECU_VARIABLE)
                      .serialize(variable);
    test::MqttPeer service(bench::g_broker->host(), bench::g_broker->port());
    service.wait_connected();
    service.publish("system/var/hwversion", framed.value().get_data(), 1, true);

    std::istringstream text(bench::g_broker->client_config(name));
    auto config = config::Configuration::create_from_input(text);
    config->verify();
    auto transport = com::create_mqtt_client(config);
    transport->connect();
    transport->start();
    return transport;
}

void BM_RoundTrip_Bare(benchmark::State& state) {
    bench::bare_round_trip(state, 0);
}

void BM_Variable_Cached(benchmark::State& state) {
    auto transport = transport_with_variable("bench-var-cached");
    auto vars = var::create_var_client(transport);
    if (vars->get("hwversion", "", 10000) != "vcm") {
        state.SkipWithError("no retained value");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(vars->get("hwversion", "", 1000));
    }
    vars.reset();
    transport->stop();
}

void BM_Variable_FirstRead(benchmark::State& state) {
    auto transport = transport_with_variable("bench-var-first");
    std::vector<double> micros;
    for (auto _ : state) {
        const auto start = Clock::now();
        auto vars = var::create_var_client(transport);
        if (vars->get("hwversion", "", 10000) != "vcm") {
            state.SkipWithError("no retained value");
            break;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        state.PauseTiming();
        vars.reset();
        state.ResumeTiming();
    }
    bench::report_latencies(state, micros);
    transport->stop();
}

BENCHMARK(BM_RoundTrip_Bare)->UseRealTime()->MinTime(1.0);
BENCHMARK(BM_Variable_Cached);
BENCHMARK(BM_Variable_FirstRead)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    return bench::run_with_broker(argc, argv);
}
