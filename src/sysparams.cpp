#include "ecu/tavi/var/sysparams.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "overrides.h"
#include "sync_call.h"
#include "tpa.h"

namespace ecu::tavi::var {

using namespace ecu::tavi::logging;

namespace {

const auto s_log = logging::module("tavi.sysparams");
const char* const kTableTopic = "system/sysparams";
const char* const kRequestTopic = "system/vard/request/sysparams";
const char* const kWriteTopic = "system/sysparams/write";
using Adapter = com::PbInternalMessageAdapter<pb::SystemParameterList>;

}  // namespace

// Keeps a plain back-pointer: the client unsubscribes it before it goes away.
class SysParamsClient::PublishObserver : public com::ISubscriptionObserver {
public:
    explicit PublishObserver(SysParamsClient* owner) : m_owner(owner) {}
    void message(const std::string& topic, const com::Message& message) override {
        m_owner->received(topic, message);
    }

private:
    SysParamsClient* m_owner;
};

SysParamsClient::SysParamsClient(std::shared_ptr<com::ITransportClient> transport)
    : m_transport(std::move(transport)),
      m_observer(std::make_shared<PublishObserver>(this)),
      m_receive_timeout_ms(
          static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                               tavi::_internal::fixed_wait(std::chrono::seconds(60)))
                               .count())),
      m_partition(tavi::_internal::client_partition()) {
    m_transport->subscribe(kTableTopic, 0, m_observer);
}

SysParamsClient::~SysParamsClient() {
    m_transport->unsubscribe(kTableTopic, m_observer);
}

void SysParamsClient::set_receive_timeout(int ms) {
    m_receive_timeout_ms = ms;
}

void SysParamsClient::fetch() {
    {
        std::lock_guard<std::mutex> lock(m_table_mutex);
        m_table.clear();
    }
    retrieve("SysParamsClient::fetch");
}

void SysParamsClient::retrieve_all() {
    retrieve("SysParamsClient::retrieve_all");
}

void SysParamsClient::retrieve(const char* call) {
    INFO << s_log << "[SysParamsClient] Receive all SystemParameters...";
    INFO.do_flush();
    const auto request = Adapter(com::PROTOCOL_SYSPARAMS).serialize(pb::SystemParameterList());
    if (!request) {
        return;
    }

    std::unique_lock<std::mutex> lock(m_receive_mutex);
    const std::uint64_t before = m_tables;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(std::max(m_receive_timeout_ms.load(), 0));
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log, call, kRequestTopic, request.value(), lock, m_received, deadline,
        [&] { return m_tables != before; });
    lock.unlock();
    if (status == com::_internal::SyncStatus::ANSWERED) {
        INFO << s_log << "[SysParamsClient] Got all SystemParameters!";
        INFO.do_flush();
        return;
    }
    WARNING << s_log << "[SysParamsClient] Request for all SystemParameters timed out";
    WARNING.do_flush();
    std::lock_guard<std::mutex> table_lock(m_table_mutex);
    m_dirty = false;
    m_table.clear();
}

void SysParamsClient::received(const std::string& topic, const com::Message& message) {
    if (topic != kTableTopic) {
        INFO << s_log << "[SysParamsClient] Received unexpected message on '" << topic << "'";
        INFO.do_flush();
        return;
    }
    std::lock_guard<std::mutex> lock(m_receive_mutex);
    const auto list = Adapter(com::PROTOCOL_SYSPARAMS).deserialize(message);
    // An undecodable table still ends a waiting fetch, which then keeps the table it had.
    if (list) {
        std::lock_guard<std::mutex> table_lock(m_table_mutex);
        m_table.clear();
        for (const auto& entry : list.value().entries()) {
            m_table[entry.id()] = entry;
        }
    }
    ++m_tables;
    m_received.notify_all();
}

bool SysParamsClient::empty() {
    std::lock_guard<std::mutex> lock(m_table_mutex);
    return m_table.empty();
}

bool SysParamsClient::fetch_if_needed(bool force, const char* call) {
    if (!force && !empty()) {
        return true;
    }
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, call)) {
        return false;
    }
    DEBUG << s_log << "[SysParamsClient] No parameter has been received yet or fetching enforced!";
    DEBUG.do_flush();
    fetch();
    return true;
}

std::pair<bool, pb::SystemParameterEntry> SysParamsClient::get(unsigned int id, bool force) {
    if (!fetch_if_needed(force, "SysParamsClient::get")) {
        return {false, pb::SystemParameterEntry()};
    }
    std::lock_guard<std::mutex> lock(m_table_mutex);
    const auto found = m_table.find(id);
    if (found == m_table.end()) {
        return {false, pb::SystemParameterEntry()};
    }
    DEBUG << s_log << "[SysParamsClient] Got SysParam '" << id << "' from cache";
    DEBUG.do_flush();
    return {true, found->second};
}

SysParamsClient::Table SysParamsClient::get_all(bool force) {
    if (!fetch_if_needed(force, "SysParamsClient::get_all")) {
        return {};
    }
    std::lock_guard<std::mutex> lock(m_table_mutex);
    return m_table;
}

bool SysParamsClient::refused_on_tpa(const char* text) {
    std::lock_guard<std::mutex> lock(m_table_mutex);
    return tavi::_internal::refuse_on_tpa(m_partition, s_log, text);
}

void SysParamsClient::set_all(const Table& table) {
    if (refused_on_tpa("[SysParamsClient] Cannot set all sysparams on TPA partition.")) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_table_mutex);
    if (&table != &m_table) {
        m_table = table;
    }
    m_dirty = true;
}

void SysParamsClient::merge(const Table& table) {
    if (refused_on_tpa("[SysParamsClient] Cannot merge sysparams on TPA partition.")) {
        return;
    }
    if (empty()) {
        retrieve("SysParamsClient::merge");
    }
    std::lock_guard<std::mutex> lock(m_table_mutex);
    for (const auto& entry : table) {
        m_table[entry.first] = entry.second;
    }
    m_dirty = true;
}

SysParamsClient::WriteResult SysParamsClient::write() {
    WriteResult result;
    std::unique_lock<std::mutex> lock(m_table_mutex);
    if (m_table.empty()) {
        result.status = EMPTY;
        return result;
    }
    if (!m_dirty) {
        INFO << s_log << "[SysParamsClient] Nothing to write because no values have been changed";
        INFO.do_flush();
        result.status = NOTHING_CHANGED;
        return result;
    }
    pb::SystemParameterList list;
    for (const auto& entry : m_table) {
        *list.add_entries() = entry.second;
    }
    const auto framed = Adapter(com::PROTOCOL_SYSPARAMS).serialize(list);
    if (!framed) {
        ERROR << s_log << "[SysParamsClient] Unable to serialize SystemParameters!";
        ERROR.do_flush();
        result.status = SERIALIZE_FAILED;
        return result;
    }
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, "SysParamsClient::write")) {
        result.status = NOT_RECEIVED;
        return result;
    }
    m_transport->publish(kWriteTopic, framed.value());

    // The table that comes back replaces the local one.
    const Table written = m_table;
    lock.unlock();
    retrieve("SysParamsClient::write");
    lock.lock();
    if (m_table.empty()) {
        ERROR << s_log << "[SysParamsClient] Seems that updated parameters could not be received!";
        ERROR.do_flush();
        result.status = NOT_RECEIVED;
        return result;
    }
    for (const auto& entry : written) {
        const auto found = m_table.find(entry.first);
        if (found == m_table.end() || found->second.id() != entry.second.id() ||
            found->second.value() != entry.second.value()) {
            result.unverified.insert(entry);
        }
    }
    if (!result.unverified.empty()) {
        NOTICE << s_log << "[SysParamsClient] Not all values could be written!";
        NOTICE.do_flush();
        result.status = NOT_ALL_WRITTEN;
        return result;
    }
    result.success = true;
    result.status = WRITTEN;
    return result;
}

std::shared_ptr<SysParamsClient> create_sysparams_client(
    std::shared_ptr<com::ITransportClient> transport) {
    if (!transport) {
        ERROR << s_log
              << "[SysParamsClient] Cannot create a system parameters client without a transport "
                 "client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<SysParamsClient>(std::move(transport));
}

}  // namespace ecu::tavi::var
