// Cost of one real-time exchange on each side: pack plus unpack of the sample table's
// 16-signal engine group (20 data bytes), and each half alone. Target: well under 2 us
// for the pair.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "ecu/tavi/rt/signaladapter.h"

namespace {

using namespace ecu::tavi;

constexpr const char* kTopic = "rt/vekcan/rx/engine_conditions";

const rt::SignalGroup& engine_group() {
    static const rt::SignalGroup group = [] {
        rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
        auto sg = rt::SignalAdapter::instance().create_sg(kTopic);
        if (sg == nullptr || sg->signals().size() != 16) {
            std::fprintf(stderr, "%s is no 16-signal group\n", kTopic);
            std::abort();
        }
        double value = 10.0;
        for (const rt::Signal& s : std::vector<rt::Signal>(sg->signals())) {
            sg->set_signal_scaled_value(s.name(), value);
            value += 1.5;
        }
        return *sg;
    }();
    return group;
}

void BM_PackUnpack16Signals(benchmark::State& state) {
    const rt::SignalGroup& group = engine_group();
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    for (auto _ : state) {
        auto packed = adapter.pack(group);
        auto unpacked = adapter.unpack(kTopic, packed.value());
        benchmark::DoNotOptimize(unpacked);
    }
}
BENCHMARK(BM_PackUnpack16Signals);

void BM_Pack16Signals(benchmark::State& state) {
    const rt::SignalGroup& group = engine_group();
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    for (auto _ : state) {
        auto packed = adapter.pack(group);
        benchmark::DoNotOptimize(packed);
    }
}
BENCHMARK(BM_Pack16Signals);

void BM_Unpack16Signals(benchmark::State& state) {
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    const com::Message message = adapter.pack(engine_group()).value();
    for (auto _ : state) {
        auto unpacked = adapter.unpack(kTopic, message);
        benchmark::DoNotOptimize(unpacked);
    }
}
BENCHMARK(BM_Unpack16Signals);

}  // namespace

BENCHMARK_MAIN();
