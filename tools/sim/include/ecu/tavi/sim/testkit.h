// Test kit for applications built on the library: a private mosquitto broker on a free
// loopback port (with dynamic security, so that users created through the access-control
// daemon are real) and the platform simulator inside the test process, so that an
// application's behaviour, time-outs and failures included, can be tested without a unit.
//
//   ecu::tavi::sim::TestKit kit({unit_text, rt_support_library});
//   ASSERT_TRUE(kit.start()) << kit.error();
//   auto config = kit.client_configuration("my-app");    // verified, for com::create_client
//   kit.simulator().set_silenced("ipcd", true);           // the IPC daemon stops answering
//   kit.simulator().set_delay("ipcd", std::chrono::seconds(2));
//   kit.simulator().set_unit_value("ipcd.refused_topics", "rt/vekcan/rx/ccvs");
//
// Not thread safe: drive one kit from one thread (the simulator's controls excepted).
#pragma once

#include <memory>
#include <string>

#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/sim/broker.h"
#include "ecu/tavi/sim/simulator.h"

namespace ecu::tavi::sim {

struct TestKitOptions {
    // The unit description, in the unit file's syntax; empty: a unit that holds nothing.
    std::string unit_text;
    // Real-time support library of the IPC daemon; empty: it picks up every topic
    // announced to it.
    std::string rt_support_library;
};

class TAVI_EXPORT TestKit {
public:
    explicit TestKit(TestKitOptions options = {});
    // stop()
    ~TestKit();
    TestKit(const TestKit&) = delete;
    TestKit& operator=(const TestKit&) = delete;

    // Starts the broker, then the simulator; false with the reason in error().
    bool start();
    // Stops the simulator, then the broker.
    void stop();
    const std::string& error() const { return m_error; }

    Broker& broker() { return m_broker; }
    // Valid after a start() that got as far as the simulator.
    Simulator& simulator() { return *m_simulator; }

    // Configuration text of an application client on the kit's broker ("client_name",
    // "host", "port"); append further keys as needed.
    std::string client_config(const std::string& client_name) const;
    // The same as a verified configuration, ready for com::create_client.
    std::unique_ptr<config::Configuration> client_configuration(
        const std::string& client_name) const;

private:
    TestKitOptions m_options;
    Broker m_broker;
    std::unique_ptr<Simulator> m_simulator;
    std::string m_error;
};

}  // namespace ecu::tavi::sim
