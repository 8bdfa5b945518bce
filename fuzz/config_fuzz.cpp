// libFuzzer target: the configuration parser on any text. A configuration that verifies has
// a client name, and values come out trimmed, without the comment that may follow them.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "ecu/tavi/config/configuration.h"
#include "fuzz_support.h"

namespace {

bool space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool clean(const std::string& value) {
    return value.find_first_of("#\n") == std::string::npos &&
           (value.empty() || (!space(value.front()) && !space(value.back())));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using ecu::tavi::config::Configuration;
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    auto configuration = Configuration::create_from_input(input);
    if (!configuration->verify()) {
        return 0;
    }
    const std::string& name = configuration->get("client_name");
    if (name.empty() || !clean(name) || !clean(configuration->get("host")) ||
        !clean(configuration->get("port"))) {
        std::abort();
    }
    return 0;
}
