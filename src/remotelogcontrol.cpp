#include "ecu/tavi/logging/remotelogcontrol.h"

#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "topics.h"

namespace ecu::tavi::logging {
namespace {

using Adapter = com::PbInternalMessageAdapter<pb::LogConfig>;

// Looked up on every use rather than kept: a reset of the module tree would leave a kept
// module detached, and its switches would no longer be the ones a tool sees.
std::shared_ptr<LogModule> control_log(com::ITransportClient& transport) {
    return module(transport.get_client_name() + ".log");
}

// Each module before its children, children in name order.
void add_modules(pb::LogConfig& config, const LogModule& current) {
    auto* entry = config.add_modules();
    entry->set_name(current.name());
    entry->set_enabled(current.enabled());
    for (const auto& child : current.children()) {
        add_modules(config, *child.second);
    }
}

}  // namespace

// Keeps a plain back-pointer: the control unsubscribes it before it goes away.
class RemoteLogControl::RequestObserver : public com::ISubscriptionObserver {
public:
    explicit RequestObserver(RemoteLogControl* owner) : m_owner(owner) {}
    void message(const std::string& topic, const com::Message& message) override {
        m_owner->message(topic, message);
    }

private:
    RemoteLogControl* m_owner;
};

RemoteLogControl::RemoteLogControl(std::shared_ptr<com::ITransportClient> transport)
    : m_observer(std::make_shared<RequestObserver>(this)), m_transport(std::move(transport)) {
    const std::string client_name = m_transport->get_client_name();
    m_request_topic = com::_internal::app_topic(client_name, "/log/configure");
    m_reply_topic = com::_internal::app_topic(client_name, "/log/config");

    auto log = control_log(*m_transport);
    log->change(true, true);
    DEBUG << log << "Remote Log Control initialized for " << client_name;
    DEBUG.do_flush();

    m_transport->subscribe(m_request_topic, 1, m_observer);
}

RemoteLogControl::~RemoteLogControl() {
    m_transport->unsubscribe(m_request_topic, m_observer);
}

void RemoteLogControl::message(std::string const& topic, com::Message const& message) {
    auto log = control_log(*m_transport);
    const auto request = Adapter(com::PROTOCOL_LOG_CONFIG).deserialize(message);
    if (!request) {
        ERROR << log << "Unable to deserialize data for topic " << topic;
        ERROR.do_flush();
        return;
    }
    const pb::LogConfig& config = request.value();

    if (!config.has_mode() && !config.has_level() && config.modules_size() == 0) {
        DEBUG << log << "Received request for log configuration";
        DEBUG.do_flush();
    }
    if (config.has_mode()) {
        NOTICE << log << "Set logmode to '" << static_cast<int>(config.mode()) << "'";
        NOTICE.do_flush();
        set_log_mode(static_cast<LogMode>(config.mode()));
    }
    if (config.has_level()) {
        NOTICE << log << "Set loglevel to '" << static_cast<int>(config.level()) << "'";
        NOTICE.do_flush();
        set_log_level(static_cast<int>(config.level()));
    }
    for (const auto& entry : config.modules()) {
        // A bad entry spoils only itself; the others of the request still apply.
        if (!entry.has_name() || !entry.has_enabled()) {
            ERROR << log << "Invalid log module configuration received";
            ERROR.do_flush();
            continue;
        }
        const char* action = entry.enabled() ? "Enable" : "Disable";
        if (entry.name() == "all") {
            NOTICE << log << action << " logging for all modules";
            NOTICE.do_flush();
            entry.enabled() ? enable_all() : disable_all();
        } else {
            NOTICE << log << action << " logging for '" << entry.name() << "'";
            NOTICE.do_flush();
            entry.enabled() ? enable(entry.name(), entry.recursive())
                            : disable(entry.name(), entry.recursive());
        }
    }
    // Every request is answered, a pure query as well as a change.
    publish_config();
}

void RemoteLogControl::publish_config() {
    auto log = control_log(*m_transport);
    pb::LogConfig config;
    config.set_mode(static_cast<pb::LogConfig_LogMode>(get_log_mode()));
    config.set_level(static_cast<pb::LogConfig_LogLevel>(get_log_level()));
    add_modules(config, *module("root"));

    const auto reply = Adapter(com::PROTOCOL_LOG_CONFIG).serialize(config);
    if (!reply) {
        ERROR << log << "Failed to serialize log configuration response";
        ERROR.do_flush();
        return;
    }
    if (m_transport->publish(m_reply_topic, reply.value()) != 0) {
        ERROR << log << "Failed to publish log configuration response";
        ERROR.do_flush();
    }
}

std::unique_ptr<RemoteLogControl> create_remote_log_control(
    std::shared_ptr<com::ITransportClient> transport) {
    if (!transport) {
        ERROR << "Cannot create a remote log control without a transport client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_unique<RemoteLogControl>(std::move(transport));
}

}  // namespace ecu::tavi::logging
