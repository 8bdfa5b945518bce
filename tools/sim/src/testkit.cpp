#include "ecu/tavi/sim/testkit.h"

#include <sstream>
#include <utility>

namespace ecu::tavi::sim {

namespace {
BrokerOptions kit_broker() {
    BrokerOptions options;
    options.dynamic_security = true;
    return options;
}
}  // namespace

TestKit::TestKit(TestKitOptions options) : m_options(std::move(options)), m_broker(kit_broker()) {}

TestKit::~TestKit() {
    stop();
}

bool TestKit::start() {
    m_error.clear();
    std::istringstream text(m_options.unit_text);
    auto unit = Unit::parse(text, "unit");
    if (!unit) {
        m_error = unit.error();
        return false;
    }
    if (!m_broker.start()) {
        m_error = m_broker.error();
        return false;
    }
    SimulatorOptions options;
    options.connection["host"] = m_broker.host();
    options.connection["port"] = std::to_string(m_broker.port());
    options.rt_support_library = m_options.rt_support_library;
    options.dynsec_username = Broker::dynsec_admin();
    options.dynsec_password = Broker::dynsec_secret();
    m_simulator = std::make_unique<Simulator>(std::move(options), unit.value());
    auto started = m_simulator->start();
    if (!started) {
        m_error = started.error().message;
        m_broker.stop();
        return false;
    }
    return true;
}

void TestKit::stop() {
    if (m_simulator) {
        m_simulator->stop();
    }
    m_broker.stop();
}

std::string TestKit::client_config(const std::string& client_name) const {
    return m_broker.client_config(client_name);
}

std::unique_ptr<config::Configuration> TestKit::client_configuration(
    const std::string& client_name) const {
    std::istringstream text(client_config(client_name));
    auto configuration = config::Configuration::create_from_input(text);
    configuration->verify();
    return configuration;
}

}  // namespace ecu::tavi::sim
