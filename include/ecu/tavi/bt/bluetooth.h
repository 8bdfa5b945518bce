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
    std::string uuid;  ///< the service's UUID, as text
    std::string name;  ///< its name
};

/// A device found by a scan. A value type.
class TAVI_EXPORT Device {
public:
    /// A device without any data.
    Device() = default;
    /// A device with the given data.
    Device(std::string address, std::string name, std::vector<Service> services, signed char rssi,
           bool paired, bool connected, std::uint64_t timestamp_discovered,
           std::uint64_t timestamp_last_seen);

    /// The device's address.
    const std::string& address() const { return m_address; }
    /// The device's name; may be empty.
    const std::string& name() const { return m_name; }
    /// The services it offers.
    const std::vector<Service>& services() const { return m_services; }
    /// Received signal strength, dBm.
    signed char rssi() const { return m_rssi; }
    /// Whether the unit is paired with the device.
    bool paired() const { return m_paired; }
    /// Whether the device is connected to the unit.
    bool connected() const { return m_connected; }
    /// When the device was first and last seen, milliseconds since boot.
    ///@{
    std::uint64_t timestamp_discovered() const { return m_timestamp_discovered; }
    std::uint64_t timestamp_last_seen() const { return m_timestamp_last_seen; }
    ///@}

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

/// One set of scan results. A value type.
class TAVI_EXPORT DiscoveryResult {
public:
    /// No devices, status 0, time 0: what scan_results() gives before any results.
    DiscoveryResult() = default;
    /// Results with the given devices, status and time stamp.
    DiscoveryResult(std::vector<Device>&& devices, int error, std::uint64_t timestamp)
        : m_devices(std::move(devices)), m_error(error), m_timestamp(timestamp) {}

    /// The devices found.
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
    /// One set of results that the service reported as successful. Called without the
    /// manager's lock, so it may call the manager's non-blocking operations; the reference
    /// is valid during the call only.
    virtual void discovery_result(const DiscoveryResult& result) = 0;
};

/// Starts and stops device discovery and hands out its results. Thread safe.
class TAVI_EXPORT IDiscoveryManager {
public:
    virtual ~IDiscoveryManager() = default;
    /// Asks the service to start scanning and waits for its answer (at most 30 s); true when
    /// it accepted. Results reach the observers from then on. Refused (false, ERROR line) on
    /// the network thread.
    virtual bool start_scan() = 0;
    /// Asks the service to stop scanning, as start_scan(); no results arrive afterwards.
    virtual bool stop_scan() = 0;
    /// Whether the service last reported scanning.
    virtual bool scanning() = 0;
    /// The last results received.
    virtual DiscoveryResult scan_results() = 0;
    /// Keeps an observer for the life of the manager (there is no removal); an empty one is
    /// ignored.
    virtual void register_observer(std::shared_ptr<IDiscoveryObserver> observer) = 0;
};

/// The discovery manager on the shared transport, made by the BluetoothClient.
///
/// Holds the transport and may outlive its Bluetooth client. Start and stop requests of one
/// manager run one at a time; answers are matched by request id. Destroy it on any thread
/// but the network thread.
class TAVI_EXPORT MqttDiscoveryManager : public IDiscoveryManager {
public:
    /// Subscribes the answer topic "app/<client name>/bt/discovery/response". The transport
    /// must not be empty.
    explicit MqttDiscoveryManager(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes what it subscribed.
    ~MqttDiscoveryManager() override;
    MqttDiscoveryManager(const MqttDiscoveryManager&) = delete;
    MqttDiscoveryManager& operator=(const MqttDiscoveryManager&) = delete;

    ///@{
    bool start_scan() override;
    bool stop_scan() override;
    bool scanning() override;
    DiscoveryResult scan_results() override;
    void register_observer(std::shared_ptr<IDiscoveryObserver> observer) override;
    ///@}

    /// One start (or stop) request and its answer; true when the service accepted it. Does
    /// not change the results subscription, as start_scan() and stop_scan() do.
    bool rpc_send_control(bool start);

    /// Observers of the answers and of the results, on the network thread; each points back
    /// to the manager.
    ///@{
    class DiscoveryResponseObserver;
    class DiscoveryResultsObserver;
    ///@}

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

/// The Bluetooth service's state and the way to its device discovery.
///
/// Made by create_bt_client(); holds the transport and subscribes the service's status for
/// its life; destroy it on any thread but the network thread.
class TAVI_EXPORT BluetoothClient {
public:
    /// Subscribes the status and makes the discovery manager. The transport must not be
    /// empty.
    explicit BluetoothClient(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes the status; the discovery manager lives on while it is held elsewhere.
    virtual ~BluetoothClient();
    BluetoothClient(const BluetoothClient&) = delete;
    BluetoothClient& operator=(const BluetoothClient&) = delete;

    /// The service runs (any status but "unavailable"). False when no status has arrived
    /// within 5 s of the client's creation, or when called on the network thread before one.
    virtual bool available();
    /// The service is ready to scan.
    virtual bool operational();
    /// The client's one discovery manager; the same object on every call.
    virtual std::shared_ptr<IDiscoveryManager> discovery_manager();

    /// Keeps the last status, on the network thread.
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
