// libFuzzer target: arbitrary payloads through PbInternalMessageAdapter<FUZZ_MESSAGE>.
// Nothing may crash, leak or trip a sanitizer, and whatever is accepted must frame again
// and come back with the same body bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/logging/logging.h"
#include FUZZ_HEADER

namespace {

using Body = FUZZ_MESSAGE;

template <typename T>
std::string body_bytes(const T& body) {
    if constexpr (std::is_same_v<T, std::string>) {
        return body;
    } else {
        return body.SerializeAsString();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Rejections are logged; keep them out of the system log (the runner closes stdout).
    ecu::tavi::logging::set_log_mode(ecu::tavi::logging::STDOUT);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace ecu::tavi::com;
    const Message message(data, size);
    message.get_timestamp();

    PbInternalMessageAdapter<Body> adapter(1);
    auto parsed = adapter.deserialize(message);
    if (!parsed.has_value()) {
        return 0;
    }
    auto again = adapter.serialize(parsed.value());
    if (!again.has_value()) {
        __builtin_trap();
    }
    auto back = adapter.deserialize(again.value());
    if (!back.has_value() || body_bytes(back.value()) != body_bytes(parsed.value())) {
        __builtin_trap();
    }
    return 0;
}
