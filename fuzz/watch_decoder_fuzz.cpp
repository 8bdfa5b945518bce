// libFuzzer target: tavictl's watch decoder on every kind of topic it knows, and on one it
// does not. Byte 0 picks the topic (low 7 bits) and whether the rest is the whole payload or
// a body put behind a valid frame header (high bit), so that every body parser is reached.
// The text and JSON views of whatever decodes must be produced without fault.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "decoder.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "fuzz_support.h"

namespace {

const char* const kTopics[] = {
    "subscription/announcement",
    "system/ipc/subscriptions",
    "app/a/log/config",
    "system/udsifd/request",
    "app/a/uds/response",
    "system/pgnreqd/request",
    "app/a/pgn/response",
    "system/var/vin",
    "system/sysparams",
    "system/bootflags",
    "system/bt/status",
    "system/bt/discovery/results",
    "app/a/bt/discovery/response",
    "system/aclifd/request",
    "be/publish",
    "app/a/be/response",
    "be/status",
    "be/queue/status",
    "rt/vekcan/rx/ccvs",
    "rttx/vekcan/rx/eec1",
    "rt/vekcan/rx/tire",
    "rt/not/in/table",
    "app/cid/7",
    "some/other/topic",
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    tavictl::use_rt_table(mapping_factory());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace ecu::tavi;
    if (size == 0) {
        return 0;
    }
    const std::string topic = kTopics[(data[0] & 0x7F) % (sizeof(kTopics) / sizeof(kTopics[0]))];
    std::vector<uint8_t> payload(data + 1, data + size);
    if ((data[0] & 0x80) != 0) {
        auto framed = com::PbInternalMessageAdapter<std::string>(com::PROTOCOL_RAW)
                          .serialize(std::string(payload.begin(), payload.end()));
        if (!framed) {
            std::abort();
        }
        payload = framed.value().get_data();
    }
    const tavictl::Decoded decoded = tavictl::decode(topic, payload);
    if (decoded.body_ok && !decoded.header) {
        std::abort();
    }
    const std::string text = tavictl::to_text(topic, payload, decoded);
    const std::string json =
        tavictl::to_json(decoded).dump(-1, ' ', false, tavictl::Json::error_handler_t::replace);
    if (text.empty() || json.empty()) {
        std::abort();
    }
    return 0;
}
