// One simulated platform daemon. Each daemon connects to the broker on its own, under its
// own client name (the IPC daemon must be "ipcd"), and reads its own keys of the unit
// description, grouped in sections by their first dotted segment ("ipcd.refused_topics").
//
// A new daemon is one source file: derive from Daemon and register a factory at file scope,
//   const ecu::tavi::sim::DaemonRegistration s_registration(
//       [] { return std::unique_ptr<ecu::tavi::sim::Daemon>(new Udsifd()); });
//
// Threads: the Simulator calls check(), setup(), publish_state() and teardown(); observers a
// daemon subscribes run on its connection's network thread; set_delay() and set_silenced()
// may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"
#include "ecu/tavi/sim/unit.h"

namespace ecu::tavi::sim {

struct SimulatorOptions;

// A key of the unit description and what it means, for checks and for tavi-sim --help.
struct UnitKey {
    std::string key;
    std::string description;
};

class TAVI_EXPORT Daemon {
public:
    explicit Daemon(std::string name);
    virtual ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Client name and unit section.
    const std::string& name() const { return m_name; }

    // What listen() calls for each message, on the daemon's network thread.
    using Handler = std::function<void(const std::string& topic, const com::Message& message)>;

    // The unit keys the daemon reads: exact names, or families ending in "." ("var.").
    // Their first segments are the daemon's sections; any other key there is a fault, so a
    // misspelt key is not silently ignored.
    virtual std::vector<UnitKey> keys() const = 0;
    // Checks the values of its keys; appends one text per fault, saying where the key was
    // given (Unit::origin).
    virtual void check(const Unit& /*unit*/, std::vector<std::string>& /*errors*/) const {}
    // Prepares the daemon and subscribes its topics; the connection is not started yet.
    virtual Result<void, std::string> setup() = 0;
    // Publishes what the daemon holds (retained status and the like): once it is connected,
    // again when it is heard from after being silenced, and after the unit changed.
    virtual void publish_state() {}
    // Last words before the connection closes.
    virtual void teardown() {}

    // Holds back each publication of the daemon by this time; 0 publishes at once.
    void set_delay(std::chrono::milliseconds delay);
    // A silenced daemon keeps receiving and keeping its state, but publishes nothing.
    void set_silenced(bool silenced);
    bool silenced() const { return m_silenced.load(); }

protected:
    com::ITransportClient& transport() const { return *m_transport; }
    const Unit& unit() const { return *m_unit; }
    const SimulatorOptions& options() const { return *m_options; }
    // Publishes on the daemon's connection, honouring delay and silence.
    void send(const std::string& topic, const com::Message& message);
    // Frames body and sends it with QoS 1.
    template <typename T>
    void send_framed(const std::string& topic, const T& body, std::uint32_t protocol,
                     bool retain = false) {
        auto framed = com::PbInternalMessageAdapter<T>(protocol).serialize(body);
        if (!framed) {
            return;
        }
        com::Message message = std::move(framed.value());
        message.set_qos(1);
        message.set_retain(retain);
        send(topic, message);
    }
    // Removes the retained message of a topic, so that applications of a later run are not
    // told this run's state. Meant for teardown(); neither delayed nor silenced.
    void clear_retained(const std::string& topic);

    // Subscribes a handler (QoS 1) on the daemon's connection; meant for setup().
    void listen(const std::string& topic, Handler handler);

private:
    friend class Simulator;
    struct Pending {
        std::string topic;
        com::Message message;
    };

    void attach(std::shared_ptr<com::ITransportClient> transport, std::shared_ptr<Unit> unit,
                const SimulatorOptions* options);
    // Drops what is still held back and ends the delay thread.
    void detach();
    void run_delayed();

    std::string m_name;
    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<Unit> m_unit;
    const SimulatorOptions* m_options = nullptr;
    std::atomic<bool> m_silenced{false};
    std::atomic<long long> m_delay_ms{0};

    // Publications held back by the delay, by due time; served by m_delay_thread.
    std::mutex m_delay_mutex;
    std::condition_variable m_delay_cv;
    std::multimap<std::chrono::steady_clock::time_point, Pending> m_pending;
    bool m_delay_stop = false;
    std::thread m_delay_thread;
};

using DaemonFactory = std::function<std::unique_ptr<Daemon>()>;

// Adds a daemon to every simulator created afterwards.
class TAVI_EXPORT DaemonRegistration {
public:
    explicit DaemonRegistration(DaemonFactory factory);
};

// The factories registered so far.
TAVI_EXPORT const std::vector<DaemonFactory>& registered_daemons();

}  // namespace ecu::tavi::sim
