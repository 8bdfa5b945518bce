// Cost of framing: serialize plus deserialize of a 64-byte body through
// PbInternalMessageAdapter, against bare protobuf serialize plus parse of the same body.
// Compare the two within one run; absolute times vary between runs.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/pb/rtsignal.pb.h"

namespace {

using namespace ecu::tavi;

// 55 bytes of data field and a 9-byte time stamp field: 64 bytes serialized.
pb::RtSignal body_64() {
    pb::RtSignal signal;
    signal.set_data(std::string(53, '\x5a'));
    signal.set_timestamp(1ULL << 50);
    if (signal.ByteSizeLong() != 64) {
        std::fprintf(stderr, "body is %zu bytes, not 64\n", signal.ByteSizeLong());
        std::abort();
    }
    return signal;
}

void BM_BareProtobufRoundTrip(benchmark::State& state) {
    const pb::RtSignal body = body_64();
    for (auto _ : state) {
        std::string bytes;
        body.SerializeToString(&bytes);
        pb::RtSignal parsed;
        benchmark::DoNotOptimize(
            parsed.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK(BM_BareProtobufRoundTrip);

void BM_FramedRoundTrip(benchmark::State& state) {
    const pb::RtSignal body = body_64();
    com::PbInternalMessageAdapter<pb::RtSignal> adapter(com::PROTOCOL_RT_SIGNAL);
    for (auto _ : state) {
        auto message = adapter.serialize(body);
        auto parsed = adapter.deserialize(message.value());
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK(BM_FramedRoundTrip);

// The parts on their own, to see where the difference goes.
void BM_FramedSerialize(benchmark::State& state) {
    const pb::RtSignal body = body_64();
    com::PbInternalMessageAdapter<pb::RtSignal> adapter(com::PROTOCOL_RT_SIGNAL);
    for (auto _ : state) {
        auto message = adapter.serialize(body);
        benchmark::DoNotOptimize(message);
    }
}
BENCHMARK(BM_FramedSerialize);

void BM_FramedDeserialize(benchmark::State& state) {
    com::PbInternalMessageAdapter<pb::RtSignal> adapter(com::PROTOCOL_RT_SIGNAL);
    const com::Message message = adapter.serialize(body_64()).value();
    for (auto _ : state) {
        auto parsed = adapter.deserialize(message);
        benchmark::DoNotOptimize(parsed);
    }
}
BENCHMARK(BM_FramedDeserialize);

void BM_TimeSinceBoot(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(DateTime::time_since_boot_ns());
    }
}
BENCHMARK(BM_TimeSinceBoot);

}  // namespace

BENCHMARK_MAIN();
