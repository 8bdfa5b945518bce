// libFuzzer target: the simulator's unit file on any text, parsed and then checked by every
// daemon as tavi-sim does before it connects. An error names the file and line; a unit that
// parses has lower-case keys without "=" and values without a comment.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "ecu/tavi/sim/simulator.h"
#include "ecu/tavi/sim/unit.h"
#include "fuzz_support.h"

namespace {

ecu::tavi::sim::Simulator* s_simulator = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    // Never started: only its daemons' checks are used.
    s_simulator = new ecu::tavi::sim::Simulator({}, std::make_shared<ecu::tavi::sim::Unit>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ecu::tavi::sim::Unit;
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    const auto unit = Unit::parse(input, "fuzz.unit");
    if (!unit) {
        if (unit.error().compare(0, 10, "fuzz.unit:") != 0) {
            std::abort();
        }
        return 0;
    }
    for (const std::string& key : unit.value()->keys()) {
        for (const char c : key) {
            if (c == '=' || (c >= 'A' && c <= 'Z')) {
                std::abort();
            }
        }
        if (key.empty() || unit.value()->get(key).find('#') != std::string::npos) {
            std::abort();
        }
        for (const std::string& item : unit.value()->get_list(key)) {
            if (item.empty() || item.find(',') != std::string::npos) {
                std::abort();
            }
        }
    }
    s_simulator->check(*unit.value());
    return 0;
}
