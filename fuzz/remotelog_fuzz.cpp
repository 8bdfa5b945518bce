// libFuzzer target: the remote log control's handling of any request payload. Whatever
// decodes is applied and answered exactly once with the configuration as it then stands;
// anything else is refused without an answer.
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/remotelogcontrol.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "fuzz_support.h"

namespace {

using namespace ecu::tavi;
using Adapter = com::PbInternalMessageAdapter<pb::LogConfig>;

std::shared_ptr<fuzz::OfflineTransport> s_transport;
logging::RemoteLogControl* s_control = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    s_transport = std::make_shared<fuzz::OfflineTransport>("fuzz");
    s_control = new logging::RemoteLogControl(s_transport);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every input starts from the same module tree, so that a finding reproduces alone.
    logging::_internal::reset_modules();
    s_transport->published.clear();

    const com::Message request(data, size);
    s_transport->observer("app/fuzz/log/configure")->message("app/fuzz/log/configure", request);

    const bool decodes = Adapter(com::PROTOCOL_LOG_CONFIG).deserialize(request).has_value();
    if (s_transport->published.size() != (decodes ? 1u : 0u)) {
        std::abort();
    }
    if (decodes) {
        const auto& [topic, message] = s_transport->published.front();
        const auto reply = Adapter(com::PROTOCOL_LOG_CONFIG).deserialize(message);
        if (topic != "app/fuzz/log/config" || !reply ||
            static_cast<int>(reply.value().mode()) != static_cast<int>(logging::get_log_mode()) ||
            static_cast<int>(reply.value().level()) != logging::get_log_level() ||
            reply.value().modules_size() == 0) {
            std::abort();
        }
    }
    // A request may have turned the log to standard error or syslog, or up to DEBUG.
    logging::set_log_mode(logging::STDOUT);
    logging::set_log_level(0);
    return 0;
}
