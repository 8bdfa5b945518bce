#include "ecu/tavi/sim/simulator.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <utility>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

// Keys the simulator reads itself.
const std::vector<UnitKey> kUnitKeys = {
    {"unit.hostname",
     "host name of the unit; \"tele\" or \"tpa\" in it tells the partition (applications "
     "read it from /etc/hostname on the unit)"},
};

std::string section_of(const std::string& key) {
    return key.substr(0, key.find('.') + 1);
}

bool matches(const std::string& key, const UnitKey& known) {
    if (!known.key.empty() && known.key.back() == '.') {
        return key.compare(0, known.key.size(), known.key) == 0 && key.size() > known.key.size();
    }
    return key == known.key;
}

std::string join(const std::vector<std::string>& lines) {
    std::string text;
    for (const auto& line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

const char* connack_text(int rc) {
    switch (rc) {
        case 1:
            return "unacceptable protocol version";
        case 2:
            return "client identifier rejected";
        case 3:
            return "broker unavailable";
        case 4:
            return "bad user name or password";
        case 5:
            return "not authorised";
        default:
            return "refused";
    }
}

// How often a probe is sent again while none came back: one sent before the daemon's
// network thread noticed a lost connection is lost with it.
constexpr auto kProbeInterval = std::chrono::milliseconds(100);

}  // namespace

// Watches one daemon's connection: why the broker refused it, whether it is up, and the
// probes the daemon sends itself through the broker. When the connection comes back under a
// running simulator, the daemon publishes its state again: a restarted broker has lost
// every retained message.
class DaemonLink : public com::IConnectionObserver, public com::ISubscriptionObserver {
public:
    DaemonLink(Daemon& daemon, const std::atomic<bool>& running)
        : m_daemon(daemon), m_running(running), m_probe_topic("tavi-sim/probe/" + daemon.name()) {}

    const std::string& probe_topic() const { return m_probe_topic; }
    int refusal() const { return m_refusal; }

    // Called after the transport has subscribed everything again, so a probe sent from now
    // on travels behind those subscriptions and the state.
    void on_connect(int rc) override {
        if (rc != 0) {
            m_refusal = rc;
            return;
        }
        if (m_running) {
            m_daemon.publish_state();
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_connected = true;
        }
        m_cv.notify_all();
    }
    void on_disconnect(int) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connected = false;
    }
    void message(const std::string&, const com::Message& message) override {
        const auto& data = message.get_data();
        const uint64_t token =
            std::strtoull(std::string(data.begin(), data.end()).c_str(), nullptr, 10);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_returned = std::max(m_returned, token);
        }
        m_cv.notify_all();
    }

    // Sends probes on the daemon's connection until one of them comes back; false at the
    // deadline.
    bool probe(com::ITransportClient& transport, std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const uint64_t first = m_sent + 1;
        const auto returned = [&] { return m_returned >= first; };
        while (std::chrono::steady_clock::now() < deadline) {
            if (!m_cv.wait_until(lock, deadline, [&] { return m_connected; })) {
                return false;
            }
            const std::string token = std::to_string(++m_sent);
            lock.unlock();
            transport.publish(m_probe_topic, com::Message(token.data(), token.size()));
            lock.lock();
            const auto retry =
                std::min(deadline, std::chrono::steady_clock::now() + kProbeInterval);
            if (m_cv.wait_until(lock, retry, returned)) {
                return true;
            }
        }
        return returned();
    }

private:
    Daemon& m_daemon;
    const std::atomic<bool>& m_running;
    const std::string m_probe_topic;
    std::atomic<int> m_refusal{0};
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_connected = false;
    uint64_t m_sent = 0;
    uint64_t m_returned = 0;
};

Simulator::Simulator(SimulatorOptions options, std::shared_ptr<Unit> unit)
    : m_options(std::move(options)), m_unit(std::move(unit)) {
    for (const auto& factory : registered_daemons()) {
        m_daemons.push_back(factory());
    }
    std::sort(m_daemons.begin(), m_daemons.end(),
              [](const auto& a, const auto& b) { return a->name() < b->name(); });
    m_known_keys = kUnitKeys;
    for (const auto& daemon : m_daemons) {
        for (auto& key : daemon->keys()) {
            m_known_keys.push_back(std::move(key));
        }
    }
}

Simulator::~Simulator() {
    stop();
}

std::string Simulator::connection_value(const std::string& key, const char* fallback) const {
    auto it = m_options.connection.find(key);
    return it == m_options.connection.end() ? fallback : it->second;
}

std::vector<UnitKey> Simulator::unit_keys() const {
    return m_known_keys;
}

std::vector<std::string> Simulator::check(const Unit& unit) const {
    std::vector<std::string> errors;
    const std::vector<UnitKey>& known = m_known_keys;
    for (const auto& key : unit.keys()) {
        auto is_key = [&key](const UnitKey& k) { return matches(key, k); };
        if (std::any_of(known.begin(), known.end(), is_key)) {
            continue;
        }
        const std::string section = section_of(key);
        auto in_section = [&section](const UnitKey& k) { return section_of(k.key) == section; };
        std::string error = unit.origin(key) + ": unknown key '" + key + "'";
        if (std::any_of(known.begin(), known.end(), in_section)) {
            error += "; the section knows:";
            for (const auto& k : known) {
                if (in_section(k)) {
                    error += " " + k.key;
                }
            }
        }
        errors.push_back(error);
    }
    for (const auto& daemon : m_daemons) {
        daemon->check(unit, errors);
    }
    return errors;
}

Result<void, SimulatorError> Simulator::start() {
    using R = Result<void, SimulatorError>;
    if (m_running) {
        return R::ok();
    }
    auto errors = check(*m_unit);
    if (!errors.empty()) {
        return R::err({SimulatorError::UNIT, join(errors)});
    }

    for (const auto& daemon : m_daemons) {
        // The library's configuration syntax: a "#" in a value would start a comment.
        std::ostringstream text;
        text << "client_name = " << daemon->name() << "\n";
        // The first occurrence of a key wins: the daemon's own keys go first.
        for (const auto& entry : daemon->connection_keys(m_options)) {
            text << entry.first << " = " << entry.second << "\n";
        }
        for (const auto& entry : m_options.connection) {
            text << entry.first << " = " << entry.second << "\n";
        }
        std::istringstream in(text.str());
        auto configuration = config::Configuration::create_from_input(in);
        configuration->verify();
        auto transport = com::create_mqtt_client(configuration);
        auto link = std::make_shared<DaemonLink>(*daemon, m_running);
        transport->add_connection_observer(link);
        transport->subscribe(link->probe_topic(), 0, link);
        m_links.push_back(link);
        m_transports.push_back(transport);
        daemon->attach(transport, m_unit, &m_options);
        auto prepared = daemon->setup();
        if (!prepared) {
            stop();
            return R::err({SimulatorError::DAEMON_SETUP, daemon->name() + ": " + prepared.error()});
        }
    }

    // The transports retry the connection every second by themselves; the deadline bounds
    // that for all daemons together.
    const auto deadline = std::chrono::steady_clock::now() + m_options.connect_timeout;
    for (auto& transport : m_transports) {
        transport->start();
    }
    for (size_t i = 0; i < m_transports.size(); ++i) {
        const auto left = std::chrono::duration_cast<std::chrono::seconds>(
            deadline - std::chrono::steady_clock::now() + std::chrono::milliseconds(999));
        if (m_transports[i]->wait_ready(std::max(left, std::chrono::seconds(1)))) {
            continue;
        }
        const std::string broker =
            connection_value("host", "localhost") + ":" + connection_value("port", "1883");
        const std::string timeout = std::to_string(m_options.connect_timeout.count()) + " s";
        std::string message;
        if (m_transports[i]->isConnected()) {
            message = "the broker at " + broker + " did not acknowledge the subscriptions of " +
                      m_daemons[i]->name() + " within " + timeout;
        } else if (int rc = m_links[i]->refusal(); rc != 0) {
            message = "the broker at " + broker + " refused the connection: " + connack_text(rc) +
                      " (" + std::to_string(rc) + ")";
        } else {
            message = "broker " + broker + " unreachable: no connection within " + timeout;
        }
        stop();
        return R::err({SimulatorError::BROKER_UNREACHABLE, message});
    }

    m_running = true;
    for (const auto& daemon : m_daemons) {
        daemon->publish_state();
        NOTICE << s_log << daemon->name() << " is running";
        NOTICE.do_flush();
    }
    return R::ok();
}

void Simulator::stop() {
    if (m_transports.empty()) {
        return;
    }
    for (size_t i = 0; i < m_transports.size(); ++i) {
        if (m_running) {
            m_daemons[i]->teardown();
        }
        m_daemons[i]->detach();
    }
    for (auto& transport : m_transports) {
        transport->stop();
    }
    m_transports.clear();
    m_links.clear();
    if (m_running) {
        NOTICE << s_log << "stopped";
        NOTICE.do_flush();
    }
    m_running = false;
}

bool Simulator::wait_ready(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (size_t i = 0; i < m_links.size(); ++i) {
        if (!m_links[i]->probe(*m_transports[i], deadline)) {
            return false;
        }
    }
    return m_running;
}

std::vector<std::string> Simulator::daemon_names() const {
    std::vector<std::string> names;
    for (const auto& daemon : m_daemons) {
        names.push_back(daemon->name());
    }
    return names;
}

Daemon* Simulator::find(const std::string& name) const {
    for (const auto& daemon : m_daemons) {
        if (daemon->name() == name) {
            return daemon.get();
        }
    }
    return nullptr;
}

Result<void, std::string> Simulator::set_unit_value(const std::string& key,
                                                    const std::string& value) {
    Unit probe(*m_unit);
    probe.set(key, value);
    auto errors = check(probe);
    if (!errors.empty()) {
        return Result<void, std::string>::err(join(errors));
    }
    m_unit->set(key, value);
    if (m_running) {
        for (const auto& daemon : m_daemons) {
            daemon->publish_state();
        }
    }
    return Result<void, std::string>::ok();
}

bool Simulator::set_delay(const std::string& daemon, std::chrono::milliseconds delay) {
    Daemon* found = find(daemon);
    if (found != nullptr) {
        found->set_delay(delay);
    }
    return found != nullptr;
}

bool Simulator::set_silenced(const std::string& daemon, bool silenced) {
    Daemon* found = find(daemon);
    if (found == nullptr) {
        return false;
    }
    const bool was_silenced = found->silenced();
    found->set_silenced(silenced);
    if (was_silenced && !silenced && m_running) {
        found->publish_state();
    }
    return true;
}

}  // namespace ecu::tavi::sim
