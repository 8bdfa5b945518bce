/// \file
/// Bluetooth: whether the unit's Bluetooth service is available and operational, and device
/// discovery. Scans are started and stopped by small calls to the service, answered on the
/// application's own topic and matched by request id; the devices found arrive on a fixed
/// topic while scanning and go to the registered observers.
///
/// Thread safe. available()/operational() wait (polling once a second) until the first
/// status arrives or 5 s after the client was made; start_scan()/stop_scan() wait up to 30 s
/// for the answer. Both refuse to wait when made on the transport's network thread, i.e.
/// inside an observer. Observers are called on the network thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"

namespace ecu::tavi::bt {

/// A service a device offers.
struct Service {
    std::string uuid;
    std::string name;
};

class TAVI_EXPORT Device {
public:
    Device() = default;
    Device(std::string address, std::string name, std::vector<Service> services, signed char rssi,
           bool paired, bool connected, std::uint64_t timestamp_discovered,
           std::uint64_t timestamp_last_seen);

    const std::string& address() const { return m_address; }
    const std::string& name() const { return m_name; }
    const std::vector<Service>& services() const { return m_services; }
    /// Received signal strength, dBm.
    signed char rssi() const { return m_rssi; }
    bool paired() const { return m_paired; }
    bool connected() const { return m_connected; }
    /// Milliseconds since boot.
    std::uint64_t timestamp_discovered() const { return m_timestamp_discovered; }
    std::uint64_t timestamp_last_seen() const { return m_timestamp_last_seen; }

private:
    std::string m_address;
    std::string m_name;
    std::vector<Service> m_services;
    signed char m_rssi = 0;
    bool m_paired = false;
    bool m_connected = false;
    std::uint64_t m_timestamp_discovered = 0;
    std::uint64_t m_timestamp_last_seen = 0;
};

class TAVI_EXPORT DiscoveryResult {
public:
    DiscoveryResult() = default;
    DiscoveryResult(std::vector<Device>&& devices, int error, std::uint64_t timestamp)
        : m_devices(std::move(devices)), m_error(error), m_timestamp(timestamp) {}

    const std::vector<Device>& devices() const { return m_devices; }
    /// The service's result status; 0 for results delivered to observers.
    int error() const { return m_error; }
    /// When the results arrived: nanoseconds since boot, as stamped by the service.
    std::uint64_t timestamp() const { return m_timestamp; }

private:
    std::vector<Device> m_devices;
    int m_error = 0;
    std::uint64_t m_timestamp = 0;
};

/// Told about every set of scan results, on the transport's network thread.
class TAVI_EXPORT IDiscoveryObserver {
public:
    virtual ~IDiscoveryObserver() = default;
    virtual void discovery_result(const DiscoveryResult& result) = 0;
};

class TAVI_EXPORT IDiscoveryManager {
public:
    virtual ~IDiscoveryManager() = default;
    virtual bool start_scan() = 0;
    virtual bool stop_scan() = 0;
    virtual bool scanning() = 0;
    /// The last results received.
    virtual DiscoveryResult scan_results() = 0;
    virtual void register_observer(std::shared_ptr<IDiscoveryObserver> observer) = 0;
};

class TAVI_EXPORT MqttDiscoveryManager : public IDiscoveryManager {
public:
    explicit MqttDiscoveryManager(std::shared_ptr<com::ITransportClient> transport);
    ~MqttDiscoveryManager() override;
    MqttDiscoveryManager(const MqttDiscoveryManager&) = delete;
    MqttDiscoveryManager& operator=(const MqttDiscoveryManager&) = delete;

    bool start_scan() override;
    bool stop_scan() override;
    bool scanning() override;
    DiscoveryResult scan_results() override;
    void register_observer(std::shared_ptr<IDiscoveryObserver> observer) override;

    /// One start (or stop) request and its answer; true when the service accepted it.
    bool rpc_send_control(bool start);

    class DiscoveryResponseObserver;
    class DiscoveryResultsObserver;

private:
    void response(const com::Message& message);
    void results(const com::Message& message);

    std::shared_ptr<com::ITransportClient> m_transport;
    std::string m_client_name;
    std::string m_response_topic;
    std::shared_ptr<DiscoveryResponseObserver> m_response_observer;
    std::shared_ptr<DiscoveryResultsObserver> m_results_observer;
    std::mutex m_mutex;
    std::condition_variable m_answered;
    std::uint64_t m_awaited_id = 0;
    std::uint64_t m_answered_id = 0;
    bool m_outcome = false;
    bool m_scanning = false;
    bool m_results_subscribed = false;
    DiscoveryResult m_result;
    std::vector<std::shared_ptr<IDiscoveryObserver>> m_observers;
    std::uint64_t m_next_id = 0;
};

class TAVI_EXPORT BluetoothClient {
public:
    explicit BluetoothClient(std::shared_ptr<com::ITransportClient> transport);
    virtual ~BluetoothClient();
    BluetoothClient(const BluetoothClient&) = delete;
    BluetoothClient& operator=(const BluetoothClient&) = delete;

    /// The service runs (any status but "unavailable").
    virtual bool available();
    /// The service is ready to scan.
    virtual bool operational();
    virtual std::shared_ptr<IDiscoveryManager> discovery_manager();

    class StatusObserver;

private:
    int status(const char* call);

    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<StatusObserver> m_status;
    std::shared_ptr<MqttDiscoveryManager> m_discovery;
};

/// Empty, with an ERROR line, without a transport.
TAVI_EXPORT std::shared_ptr<BluetoothClient> create_bt_client(
    std::shared_ptr<com::ITransportClient>& transport);

}  // namespace ecu::tavi::bt
