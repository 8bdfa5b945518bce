#include "ecu/tavi/sim/simulator.h"

#include <algorithm>
#include <atomic>
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

// Remembers why the broker refused a daemon's connection, for the error message.
class RefusalObserver : public com::IConnectionObserver {
public:
    void on_connect(int rc) override {
        if (rc != 0) {
            m_refusal = rc;
        }
    }
    int refusal() const { return m_refusal; }

private:
    std::atomic<int> m_refusal{0};
};

}  // namespace

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

    std::vector<std::shared_ptr<RefusalObserver>> refusals;
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
        refusals.push_back(std::make_shared<RefusalObserver>());
        transport->add_connection_observer(refusals.back());
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
        } else if (int rc = refusals[i]->refusal(); rc != 0) {
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
    if (m_running) {
        NOTICE << s_log << "stopped";
        NOTICE.do_flush();
    }
    m_running = false;
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
