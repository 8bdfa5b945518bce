// The Bluetooth service: its status ("bt.status") retained on "system/bt/status", discovery
// start and stop requests on "system/bt/discovery/request" answered on the asking
// application's "app/<client>/bt/discovery/response", and while any application scans, the
// devices of the unit ("bt.device.<address> = name, rssi") on "system/bt/discovery/results"
// every "bt.scan_interval_ms".
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.bt");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kStatusTopic = "system/bt/status";
const char* const kRequestTopic = "system/bt/discovery/request";
const char* const kResultsTopic = "system/bt/discovery/results";
const char* const kStatusKey = "bt.status";
const char* const kIntervalKey = "bt.scan_interval_ms";
const std::string kDevicePrefix = "bt.device.";

using Response = pb::BtDiscoveryResponse;

pb::BtStatus::Status status_of(const Unit& unit) {
    const std::string status = unit.get(kStatusKey);
    if (status == "unavailable") {
        return pb::BtStatus::BT_UNAVAILABLE;
    }
    return status == "available" ? pb::BtStatus::BT_AVAILABLE : pb::BtStatus::BT_OPERATIONAL;
}

bool is_number(const std::string& text) {
    const std::string digits = !text.empty() && text[0] == '-' ? text.substr(1) : text;
    return !digits.empty() && digits.size() < 9 &&
           digits.find_first_not_of("0123456789") == std::string::npos;
}

class Btd : public Daemon {
public:
    Btd() : Daemon("bt") {}
    ~Btd() override { stop_scanner(); }

    std::vector<UnitKey> keys() const override {
        return {{kStatusKey,
                 "status of the service: unavailable, available or operational "
                 "(the default; only then does a discovery start)"},
                {kIntervalKey, "milliseconds between two sets of scan results (default 500)"},
                {kDevicePrefix, "devices a discovery finds, bt.device.<address> = name, rssi"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        const std::string status = unit.get(kStatusKey);
        if (!status.empty() && status != "unavailable" && status != "available" &&
            status != "operational") {
            errors.push_back(unit.origin(kStatusKey) + ": " + kStatusKey + ": '" + status +
                             "' is not unavailable, available or operational");
        }
        const std::string interval = unit.get(kIntervalKey);
        if (!interval.empty() && (!is_number(interval) || interval[0] == '-' || interval == "0")) {
            errors.push_back(unit.origin(kIntervalKey) + ": " + kIntervalKey +
                             ": a positive number of milliseconds expected");
        }
        for (const auto& key : unit.keys()) {
            if (key.compare(0, kDevicePrefix.size(), kDevicePrefix) != 0) {
                continue;
            }
            const auto items = unit.get_list(key);
            if (items.size() != 2 || !is_number(items[1])) {
                errors.push_back(unit.origin(key) + ": " + key + ": 'name, rssi' expected");
            }
        }
    }

    Result<void, std::string> setup() override {
        stop_scanner();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_scanners.clear();
            m_stop = false;
        }
        m_scanner = std::thread(&Btd::scan, this);
        listen(kRequestTopic,
               [this](const std::string&, const com::Message& message) { request(message); });
        return Result<void, std::string>::ok();
    }

    void publish_state() override {
        pb::BtStatus status;
        status.set_status(status_of(unit()));
        send_framed(kStatusTopic, status, com::PROTOCOL_BT_STATUS, true);
    }

    void teardown() override {
        stop_scanner();
        clear_retained(kStatusTopic);
    }

private:
    void request(const com::Message& message) {
        const auto decoded =
            com::PbInternalMessageAdapter<pb::BtDiscoveryRequest>(com::PROTOCOL_BT_DISCOVERY)
                .deserialize(message);
        if (!decoded || decoded.value().header().client_name().empty()) {
            WARNING << s_log << "Ignoring a discovery request that does not decode";
            WARNING.do_flush();
            return;
        }
        const pb::BtDiscoveryRequest& request = decoded.value();
        const std::string& client = request.header().client_name();
        const bool start = request.action() == pb::BtDiscoveryRequest::DISCOVERY_START;
        Response response;
        response.set_request_id(request.header().request_id());
        if (status_of(unit()) != pb::BtStatus::BT_OPERATIONAL) {
            response.set_rpc_status(Response::RPC_FAILED);
            response.set_discovery_status(Response::DISCOVERY_ERROR);
        } else {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (start) {
                if (m_scanners.empty()) {
                    m_scan_started_ms = DateTime::time_since_boot_ms();
                }
                m_scanners.insert(client);
            } else {
                m_scanners.erase(client);
            }
            response.set_rpc_status(Response::RPC_OK);
            response.set_discovery_status(start ? Response::DISCOVERY_SCANNING
                                                : Response::DISCOVERY_IDLE);
            m_wake.notify_all();
        }
        INFO << s_log << client << (start ? " starts" : " stops")
             << " a discovery: " << Response::RpcStatus_Name(response.rpc_status());
        INFO.do_flush();
        send_framed("app/" + client + "/bt/discovery/response", response,
                    com::PROTOCOL_BT_DISCOVERY);
    }

    // Publishes the unit's devices while anyone scans: at once, then every interval.
    void scan() {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stop) {
            if (m_scanners.empty()) {
                m_wake.wait(lock, [this] { return m_stop || !m_scanners.empty(); });
                continue;
            }
            const pb::BtDiscoveryResults results = devices();
            lock.unlock();
            send_framed(kResultsTopic, results, com::PROTOCOL_BT_DISCOVERY);
            lock.lock();
            const std::string interval = unit().get(kIntervalKey);
            m_wake.wait_for(lock,
                            std::chrono::milliseconds(interval.empty() ? 500 : std::stol(interval)),
                            [this] { return m_stop; });
        }
    }

    pb::BtDiscoveryResults devices() const {
        pb::BtDiscoveryResults results;
        results.set_status(pb::BtDiscoveryResults::RESULTS_OK);
        for (const auto& key : unit().keys()) {
            const auto items = unit().get_list(key);
            if (key.compare(0, kDevicePrefix.size(), kDevicePrefix) != 0 || items.size() != 2) {
                continue;
            }
            auto* device = results.add_devices();
            device->set_address(key.substr(kDevicePrefix.size()));
            device->set_name(items[0]);
            device->set_rssi(std::atoi(items[1].c_str()));
            device->set_timestamp_discovered(m_scan_started_ms);
            device->set_timestamp_last_seen(DateTime::time_since_boot_ms());
        }
        return results;
    }

    void stop_scanner() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_all();
        if (m_scanner.joinable()) {
            m_scanner.join();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::set<std::string> m_scanners;
    std::uint64_t m_scan_started_ms = 0;
    bool m_stop = false;
    std::thread m_scanner;
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Btd()); });

}  // namespace

}  // namespace ecu::tavi::sim
