// libFuzzer target: SignalAdapter::unpack on every topic of the sample support library's
// table.
//
// Input: byte 0 picks the topic (low 7 bits) and the form of the rest (high bit): either a
// whole received payload, or the data of a correctly framed pb::RtSignal, so that the size
// rules and the cutting into signals are reached at once. Every group that unpacks is judged
// signal by signal and must survive pack and unpack unchanged.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "fuzz_support.h"

namespace {

using namespace ecu::tavi;

std::vector<std::string> s_topics;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    // The sample table is compiled into this target, so no library has to be found.
    rt::SignalAdapter::enforce_definition(mapping_factory());
    s_topics = rt::SignalAdapter::instance().get_topics("");
    if (s_topics.empty()) {
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    const std::string& topic = s_topics[(data[0] & 0x7F) % s_topics.size()];
    com::Message message;
    if ((data[0] & 0x80) != 0) {
        pb::RtSignal rt_signal;
        rt_signal.set_data(reinterpret_cast<const char*>(data + 1), size - 1);
        rt_signal.set_timestamp(1);
        message = com::PbInternalMessageAdapter<pb::RtSignal>(com::PROTOCOL_RT_SIGNAL)
                      .serialize(rt_signal)
                      .value();
    } else {
        message = com::Message(data + 1, size - 1);
    }

    auto group = adapter.unpack(topic, message);
    if (!group.has_value()) {
        return 0;
    }
    for (const rt::Signal& s : group.value().signals()) {
        const rt::Signal::Status status = s.status();
        const rt::Signal::ScaleResult scaled = s.value_scaled();
        if (scaled.ok && status != rt::Signal::OK) {
            std::abort();
        }
    }
    auto packed = adapter.pack(group.value());
    if (!packed.has_value()) {
        std::abort();
    }
    auto again = adapter.unpack(topic, packed.value());
    if (!again.has_value() || again.value() != group.value()) {
        std::abort();
    }
    return 0;
}
