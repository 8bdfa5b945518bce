// The platform simulator: plays the unit's daemons over a real broker, each on its own
// connection made with the library's transport, as a unit description says. tavi-sim is a
// thin main around it; the test kit runs one inside a test process.
//
// Thread safety: start() and stop() from one thread; set_unit_value(), set_delay() and
// set_silenced() from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"
#include "ecu/tavi/sim/daemon.h"
#include "ecu/tavi/sim/unit.h"

namespace ecu::tavi::sim {

class DaemonLink;

struct SimulatorOptions {
    // The broker connection in the library's configuration keys ("host", "port",
    // "login_username", "login_password", "tls.enable", "tls.cafile", ...). Every daemon
    // connects with these and its own "client_name". As in a configuration file, a value
    // ends at a "#".
    std::map<std::string, std::string> connection;
    // Real-time support library whose table lists the topics the IPC daemon offers. Empty:
    // the IPC daemon picks up every real-time topic announced to it.
    std::string rt_support_library;
    // How long start() waits for the daemons' connections; the transport retries every
    // second meanwhile.
    std::chrono::seconds connect_timeout{10};
    // Administrator of the broker's dynamic security plugin. Given: the access-control
    // daemon logs in with it and makes the users it is asked for real on the broker.
    // Empty: it only records and logs them.
    std::string dynsec_username;
    std::string dynsec_password;
};

struct SimulatorError {
    // The numbers are tavi-sim's exit codes.
    enum Code : int {
        UNIT = 3,                // the unit description does not pass the daemons' checks
        BROKER_UNREACHABLE = 4,  // no connection (or a refused one) within the time-out
        DAEMON_SETUP = 6,        // a daemon could not be prepared (e.g. its support library)
    };
    Code code;
    std::string message;
};

class TAVI_EXPORT Simulator {
public:
    // Creates every registered daemon.
    Simulator(SimulatorOptions options, std::shared_ptr<Unit> unit);
    // stop()
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // One text per fault of the unit: unknown keys and the daemons' own checks.
    std::vector<std::string> check(const Unit& unit) const;
    // Every key a unit description may hold, by section: the simulator's own and the
    // daemons'.
    std::vector<UnitKey> unit_keys() const;

    // Checks the unit, connects every daemon, waits until the broker has acknowledged their
    // subscriptions, and lets them publish their state. On failure everything started is
    // stopped again.
    Result<void, SimulatorError> start();
    // Lets each daemon say its last words, then disconnects them. Idempotent.
    void stop();
    bool running() const { return m_running.load(); }
    // Whether every daemon is connected with its subscriptions in place and its state
    // published again, as after a broker restart under the running simulator: each daemon
    // sends itself a probe through the broker, which comes back only after the broker has
    // handled everything sent before it on that connection. False at the time-out.
    bool wait_ready(std::chrono::milliseconds timeout);

    std::vector<std::string> daemon_names() const;
    const Unit& unit() const { return *m_unit; }
    // Changes what the unit holds, as a test would. Refused with the reason when the unit
    // would no longer pass the checks; otherwise every daemon publishes its state again.
    Result<void, std::string> set_unit_value(const std::string& key, const std::string& value);
    // Delay or silence one daemon by name; false for an unknown name. A daemon heard from
    // again publishes its state at once.
    bool set_delay(const std::string& daemon, std::chrono::milliseconds delay);
    bool set_silenced(const std::string& daemon, bool silenced);

private:
    Daemon* find(const std::string& name) const;
    // A connection key as the library reads it, with its default when absent.
    std::string connection_value(const std::string& key, const char* fallback) const;

    SimulatorOptions m_options;
    std::shared_ptr<Unit> m_unit;
    std::vector<std::unique_ptr<Daemon>> m_daemons;
    // The simulator's own keys and the daemons', gathered once: they never change.
    std::vector<UnitKey> m_known_keys;
    std::vector<std::shared_ptr<com::ITransportClient>> m_transports;
    // One per transport, in the same order.
    std::vector<std::shared_ptr<DaemonLink>> m_links;
    std::atomic<bool> m_running{false};
};

}  // namespace ecu::tavi::sim
