#include "ecu/tavi/var/variables.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "sync_call.h"

namespace ecu::tavi::var {

using namespace ecu::tavi::logging;

namespace {

const auto s_log = logging::module("tavi.variables");
const std::string kPrefix = "system/var/";

}  // namespace

// Keeps a plain back-pointer: the client unsubscribes it before it goes away.
class VariablesClient::PublishObserver : public com::ISubscriptionObserver {
public:
    explicit PublishObserver(VariablesClient* owner) : m_owner(owner) {}
    void message(const std::string& topic, const com::Message& message) override {
        m_owner->received(topic, message);
    }

private:
    VariablesClient* m_owner;
};

VariablesClient::VariablesClient(std::shared_ptr<com::ITransportClient> transport)
    : m_transport(std::move(transport)), m_observer(std::make_shared<PublishObserver>(this)) {}

VariablesClient::~VariablesClient() {
    // The names are copied first: the transport must not be called with the mutex held.
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : m_cache) {
            names.push_back(entry.first);
        }
    }
    for (const auto& name : names) {
        m_transport->unsubscribe(kPrefix + name, m_observer);
    }
}

std::string VariablesClient::get(const std::string& name, const std::string& default_value,
                                 int timeout_ms) {
    std::uint64_t ignored = 0;
    return read(ignored, name, default_value, timeout_ms, "VariablesClient::get");
}

std::string VariablesClient::get_extended(std::uint64_t& timestamp, const std::string& name,
                                          const std::string& default_value, int timeout_ms) {
    return read(timestamp, name, default_value, timeout_ms, "VariablesClient::get_extended");
}

std::string VariablesClient::read(std::uint64_t& timestamp, const std::string& name,
                                  const std::string& default_value, int timeout_ms,
                                  const char* call) {
    std::unique_lock<std::mutex> lock(m_mutex);
    auto from_cache = [&](const Variable& variable) {
        DEBUG << s_log << "Got ECU variable '" << name << "' = '" << variable.value
              << "' from cache";
        DEBUG.do_flush();
        timestamp = variable.timestamp;
        return variable.value;
    };

    auto found = m_cache.find(name);
    if (found != m_cache.end() && !found->second.value.empty()) {
        return from_cache(found->second);
    }
    if (name.find_first_of("/+#") != std::string::npos) {
        INFO << s_log << "Request for illegal variable '" << name
             << "'. Returning default value = '" << default_value << "'";
        INFO.do_flush();
        return default_value;
    }
    // Subscribed once per name: the transport would deliver each message once per
    // subscription, and the destructor unsubscribes each name once. Unlocked, so that a
    // retained value delivered at once can be stored.
    if (m_cache.try_emplace(name).second) {
        lock.unlock();
        m_transport->subscribe(kPrefix + name, 0, m_observer);
        lock.lock();
    }

    Variable& variable = m_cache[name];
    if (!variable.value.empty()) {
        return from_cache(variable);
    }
    DEBUG << s_log << "Waiting for variable '" << name << "' for " << timeout_ms << " ms";
    DEBUG.do_flush();
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    const auto status =
        com::_internal::wait_for_answer(*m_transport, s_log, call, lock, variable.changed, deadline,
                                        [&] { return !variable.value.empty(); });

    auto& line = status == com::_internal::SyncStatus::ANSWERED ? DEBUG : INFO;
    if (status == com::_internal::SyncStatus::ANSWERED) {
        line << s_log << "Got variable '" << name << "' = '" << variable.value << "'";
    } else {
        line << s_log << "Request for variable '" << name << "' timed out.";
    }
    std::string result = default_value;
    if (!variable.value.empty()) {
        line << " Returning value = '" << variable.value << "'";
        result = variable.value;
    } else if (!default_value.empty()) {
        line << " Returning default value = '" << default_value << "'";
    }
    line.do_flush();
    return result;
}

void VariablesClient::received(const std::string& topic, const com::Message& message) {
    if (topic.size() <= kPrefix.size()) {
        WARNING << s_log << "Bogus topic received";
        WARNING.do_flush();
        return;
    }
    const std::string name = topic.substr(kPrefix.size());
    std::lock_guard<std::mutex> lock(m_mutex);
    auto found = m_cache.find(name);
    if (found == m_cache.end()) {
        WARNING << s_log << "Received unrequested variable '" << name << "'";
        WARNING.do_flush();
        return;
    }
    const auto parsed = com::PbInternalMessageAdapter<pb::EcuVariable>(com::PROTOCOL_ECU_VARIABLE)
                            .deserialize(message);
    if (!parsed) {
        WARNING << s_log << "Failed to parse received variable '" << name << "'";
        WARNING.do_flush();
        return;
    }
    const pb::EcuVariable& variable = parsed.value();
    if (!variable.has_value() || variable.value().empty()) {
        INFO << s_log << "Received empty variable '" << name << "'";
        INFO.do_flush();
        return;
    }
    found->second.value = variable.value();
    found->second.timestamp = variable.has_timestamp() ? variable.timestamp() : 0;
    found->second.changed.notify_all();
}

std::shared_ptr<VariablesClient> create_var_client(
    std::shared_ptr<com::ITransportClient> transport) {
    if (!transport) {
        ERROR << s_log << "Cannot create a variables client without a transport client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<VariablesClient>(std::move(transport));
}

}  // namespace ecu::tavi::var
