#include <chrono>
#include <thread>
#include <utility>

#include "ecu/tavi/bt/bluetooth.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "overrides.h"
#include "sync_call.h"
#include "topics.h"

namespace ecu::tavi::bt {

using namespace ecu::tavi::logging;

namespace {

const auto s_log = logging::module("tavi.bt.discovery");
const char* const kStatusTopic = "system/bt/status";
const char* const kRequestTopic = "system/bt/discovery/request";
const char* const kResultsTopic = "system/bt/discovery/results";

template <typename T>
using Adapter = com::PbInternalMessageAdapter<T>;

}  // namespace

Device::Device(std::string address, std::string name, std::vector<Service> services,
               signed char rssi, bool paired, bool connected, std::uint64_t timestamp_discovered,
               std::uint64_t timestamp_last_seen)
    : m_address(std::move(address)),
      m_name(std::move(name)),
      m_services(std::move(services)),
      m_rssi(rssi),
      m_paired(paired),
      m_connected(connected),
      m_timestamp_discovered(timestamp_discovered),
      m_timestamp_last_seen(timestamp_last_seen) {}

// ---------------------------------------------------------------------------------------
// Discovery

// Both keep a plain back-pointer: the manager unsubscribes them before it goes away.
class MqttDiscoveryManager::DiscoveryResponseObserver : public com::ISubscriptionObserver {
public:
    explicit DiscoveryResponseObserver(MqttDiscoveryManager* owner) : m_owner(owner) {}
    void message(const std::string&, const com::Message& message) override {
        m_owner->response(message);
    }

private:
    MqttDiscoveryManager* m_owner;
};

class MqttDiscoveryManager::DiscoveryResultsObserver : public com::ISubscriptionObserver {
public:
    explicit DiscoveryResultsObserver(MqttDiscoveryManager* owner) : m_owner(owner) {}
    void message(const std::string&, const com::Message& message) override {
        m_owner->results(message);
    }

private:
    MqttDiscoveryManager* m_owner;
};

MqttDiscoveryManager::MqttDiscoveryManager(std::shared_ptr<com::ITransportClient> transport)
    : m_transport(std::move(transport)),
      m_client_name(m_transport->get_client_name()),
      m_response_topic(com::_internal::app_topic(m_client_name, "/bt/discovery/response")),
      m_response_observer(std::make_shared<DiscoveryResponseObserver>(this)),
      m_results_observer(std::make_shared<DiscoveryResultsObserver>(this)) {
    m_transport->subscribe(m_response_topic, 0, m_response_observer);
}

MqttDiscoveryManager::~MqttDiscoveryManager() {
    m_transport->unsubscribe(m_response_topic, m_response_observer);
    bool subscribed = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        subscribed = m_results_subscribed;
    }
    if (subscribed) {
        m_transport->unsubscribe(kResultsTopic, m_results_observer);
    }
}

bool MqttDiscoveryManager::rpc_send_control(bool start) {
    DEBUG << s_log << "Sending RPC to " << (start ? "start" : "stop") << " BT device discovery";
    DEBUG.do_flush();

    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t id = ++m_next_id;
    pb::BtDiscoveryRequest request;
    request.set_action(start ? pb::BtDiscoveryRequest::DISCOVERY_START
                             : pb::BtDiscoveryRequest::DISCOVERY_STOP);
    request.mutable_header()->set_client_name(m_client_name);
    request.mutable_header()->set_request_id(id);
    const auto framed =
        Adapter<pb::BtDiscoveryRequest>(com::PROTOCOL_BT_DISCOVERY).serialize(request);
    if (!framed) {
        return false;
    }
    m_awaited_id = id;
    const auto deadline =
        std::chrono::steady_clock::now() + tavi::_internal::fixed_wait(std::chrono::seconds(30));
    DEBUG << s_log << "Waiting for RPC response to req_id=" << id;
    DEBUG.do_flush();
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log,
        start ? "MqttDiscoveryManager::start_scan" : "MqttDiscoveryManager::stop_scan",
        kRequestTopic, framed.value(), lock, m_answered, deadline,
        [&] { return m_answered_id == id; });
    // A late answer to this request must not change the state any more.
    m_awaited_id = 0;
    if (status == com::_internal::SyncStatus::ANSWERED) {
        return m_outcome;
    }
    if (status == com::_internal::SyncStatus::TIMED_OUT) {
        INFO << s_log << "RPC timed out";
        INFO.do_flush();
    }
    return false;
}

void MqttDiscoveryManager::response(const com::Message& message) {
    const auto parsed =
        Adapter<pb::BtDiscoveryResponse>(com::PROTOCOL_BT_DISCOVERY).deserialize(message);
    if (!parsed) {
        return;
    }
    const pb::BtDiscoveryResponse& answer = parsed.value();
    std::lock_guard<std::mutex> lock(m_mutex);
    DEBUG << s_log << "Received RPC response to req_id=" << answer.request_id() << " (waiting for "
          << m_awaited_id
          << ") rpc_status=" << pb::BtDiscoveryResponse::RpcStatus_Name(answer.rpc_status())
          << " disc_status="
          << pb::BtDiscoveryResponse::DiscoveryStatus_Name(answer.discovery_status());
    DEBUG.do_flush();
    if (answer.request_id() != m_awaited_id || m_awaited_id == 0) {
        INFO << s_log << "RPC response sequence error, will keep waiting";
        INFO.do_flush();
        return;
    }
    m_outcome = answer.rpc_status() == pb::BtDiscoveryResponse::RPC_OK;
    if (m_outcome) {
        m_scanning = answer.discovery_status() == pb::BtDiscoveryResponse::DISCOVERY_SCANNING;
    }
    INFO << s_log << (m_outcome ? "BT device is " : "BT client is ") << (m_scanning ? "" : "not ")
         << "scanning.";
    INFO.do_flush();
    m_answered_id = answer.request_id();
    m_answered.notify_all();
}

bool MqttDiscoveryManager::start_scan() {
    if (!rpc_send_control(true)) {
        NOTICE << s_log << "Failed to start Device Discovery";
        NOTICE.do_flush();
        return false;
    }
    bool subscribe = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        subscribe = !m_results_subscribed;
        m_results_subscribed = true;
    }
    // Subscribed once however often a scan is started; never under the manager's mutex.
    if (subscribe) {
        m_transport->subscribe(kResultsTopic, 0, m_results_observer);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scanning = true;
    return true;
}

bool MqttDiscoveryManager::stop_scan() {
    if (!rpc_send_control(false)) {
        NOTICE << s_log << "Failed to stop Device Discovery";
        NOTICE.do_flush();
        return false;
    }
    bool unsubscribe = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        unsubscribe = m_results_subscribed;
        m_results_subscribed = false;
    }
    if (unsubscribe) {
        m_transport->unsubscribe(kResultsTopic, m_results_observer);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_scanning = false;
    return true;
}

bool MqttDiscoveryManager::scanning() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_scanning;
}

DiscoveryResult MqttDiscoveryManager::scan_results() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_result;
}

void MqttDiscoveryManager::register_observer(std::shared_ptr<IDiscoveryObserver> observer) {
    if (!observer) {
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_observers.push_back(std::move(observer));
}

void MqttDiscoveryManager::results(const com::Message& message) {
    const auto parsed =
        Adapter<pb::BtDiscoveryResults>(com::PROTOCOL_BT_DISCOVERY).deserialize(message);
    if (!parsed) {
        return;
    }
    const pb::BtDiscoveryResults& results = parsed.value();
    if (results.status() != pb::BtDiscoveryResults::RESULTS_OK) {
        DEBUG << s_log << "BT discovery failed, no results received: "
              << pb::BtDiscoveryResults::Status_Name(results.status());
        DEBUG.do_flush();
        return;
    }
    std::vector<Device> devices;
    for (const auto& found : results.devices()) {
        std::vector<Service> services;
        for (const auto& service : found.services()) {
            services.push_back({service.uuid(), service.name()});
        }
        devices.emplace_back(found.address(), found.name(), std::move(services),
                             static_cast<signed char>(found.rssi()), found.paired(),
                             found.connected(), found.timestamp_discovered(),
                             found.timestamp_last_seen());
        DEBUG << s_log << found.address() << " '" << found.name() << "' rssi " << found.rssi()
              << " Discovered: " << found.timestamp_discovered()
              << " Seen: " << found.timestamp_last_seen();
        DEBUG.do_flush();
    }
    DiscoveryResult result(std::move(devices), results.status(),
                           static_cast<std::uint64_t>(message.get_timestamp()));
    std::vector<std::shared_ptr<IDiscoveryObserver>> observers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_result = result;
        observers = m_observers;
    }
    for (const auto& observer : observers) {
        observer->discovery_result(result);
    }
}

// ---------------------------------------------------------------------------------------
// Service status

// The last status and whether one came; the callers' wait for the first one ends at the
// deadline set when the client was made.
class BluetoothClient::StatusObserver : public com::ISubscriptionObserver {
public:
    StatusObserver()
        : m_deadline(std::chrono::steady_clock::now() +
                     tavi::_internal::fixed_wait(std::chrono::seconds(5))) {}
    void message(const std::string&, const com::Message& message) override {
        const auto parsed = Adapter<pb::BtStatus>(com::PROTOCOL_BT_STATUS).deserialize(message);
        if (parsed) {
            m_status = parsed.value().status();
            m_received = true;
        }
    }

    const std::chrono::steady_clock::time_point m_deadline;
    std::atomic<bool> m_received{false};
    std::atomic<int> m_status{0};
};

BluetoothClient::BluetoothClient(std::shared_ptr<com::ITransportClient> transport)
    : m_transport(std::move(transport)),
      m_status(std::make_shared<StatusObserver>()),
      m_discovery(std::make_shared<MqttDiscoveryManager>(m_transport)) {
    m_transport->subscribe(kStatusTopic, 0, m_status);
}

BluetoothClient::~BluetoothClient() {
    m_transport->unsubscribe(kStatusTopic, m_status);
}

int BluetoothClient::status(const char* call) {
    // Polled, not signalled: the status topic is the service's heartbeat and a caller
    // should not need more than the first one.
    const auto poll = tavi::_internal::fixed_wait(std::chrono::seconds(1));
    while (!m_status->m_received && std::chrono::steady_clock::now() < m_status->m_deadline) {
        if (com::_internal::refuse_on_network_thread(*m_transport, s_log, call)) {
            break;
        }
        std::this_thread::sleep_for(poll);
    }
    return m_status->m_status;
}

bool BluetoothClient::available() {
    return status("BluetoothClient::available") != pb::BtStatus::BT_UNAVAILABLE;
}

bool BluetoothClient::operational() {
    return status("BluetoothClient::operational") == pb::BtStatus::BT_OPERATIONAL;
}

std::shared_ptr<IDiscoveryManager> BluetoothClient::discovery_manager() {
    return m_discovery;
}

std::shared_ptr<BluetoothClient> create_bt_client(
    std::shared_ptr<com::ITransportClient>& transport) {
    if (!transport) {
        ERROR << s_log << "Cannot create a Bluetooth client without a transport client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<BluetoothClient>(transport);
}

}  // namespace ecu::tavi::bt
