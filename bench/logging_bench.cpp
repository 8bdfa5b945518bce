// Cost of a log line: suppressed by the level, and emitted to a redirected standard output.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "ecu/tavi/logging/logging.h"

namespace {

using namespace ecu::tavi::logging;

const auto s_log = module("bench.logging");

void BM_SuppressedDebugLine(benchmark::State& state) {
    set_log_mode(STDOUT);
    set_log_level(5);
    for (auto _ : state) {
        DEBUG << s_log << "text " << 42;
        DEBUG.do_flush();
    }
}
BENCHMARK(BM_SuppressedDebugLine);

void BM_EmittedConsoleLine(benchmark::State& state) {
    std::fflush(stdout);
    const int saved = ::dup(1);
    const int devnull = ::open("/dev/null", O_WRONLY);
    ::dup2(devnull, 1);
    set_log_mode(STDOUT);
    set_log_level(6);
    enable("bench.logging", false);
    for (auto _ : state) {
        INFO << s_log << "text " << 42;
        INFO.do_flush();
    }
    std::fflush(stdout);
    ::dup2(saved, 1);
    ::close(devnull);
    ::close(saved);
    set_log_level(5);
}
BENCHMARK(BM_EmittedConsoleLine);

}  // namespace

BENCHMARK_MAIN();
