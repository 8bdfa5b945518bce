// An application's test written with the simulator's test kit, as an application team
// would write one: the application under test runs against a private broker and the
// simulated platform, and the test decides what the platform does, slow or silent
// daemons included. Links murntavi::murntavi and murntavi::murntavi-sim.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/testkit.h"

using namespace ecu::tavi;
using namespace std::chrono_literals;

namespace {

const char* const kSpeedTopic = "rt/vekcan/rx/ccvs";

// The application under test (it would live in the team's own library): it starts its
// transport, waits until the platform relays the speed group to it, and keeps the latest
// vehicle speed.
class SpeedWatcher {
public:
    explicit SpeedWatcher(std::unique_ptr<config::Configuration>& configuration)
        : m_transport(com::create_client(configuration, com::MQTT)),
          m_observer(std::make_shared<SpeedObserver>(*this)) {}
    ~SpeedWatcher() {
        m_transport->unsubscribe(kSpeedTopic, m_observer);
        m_transport->stop();
    }

    // False when the platform has not confirmed the speed topic in time.
    bool start(std::chrono::seconds within) {
        m_transport->subscribe(kSpeedTopic, 0, m_observer);
        if (!m_transport->connect()) {
            return false;
        }
        m_transport->start();
        return m_transport->wait_ready(within);
    }

    std::optional<double> speed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_speed;
    }

private:
    // Receives the speed group on the transport's network thread.
    class SpeedObserver : public com::ISubscriptionObserver {
    public:
        explicit SpeedObserver(SpeedWatcher& owner) : m_owner(owner) {}
        void message(const std::string& topic, const com::Message& message) override {
            m_owner.received(topic, message);
        }

    private:
        SpeedWatcher& m_owner;
    };

    void received(const std::string& topic, const com::Message& message) {
        auto group = rt::SignalAdapter::instance().unpack(topic, message);
        if (!group) {
            return;
        }
        auto speed = group.value().signal("wheel_based_vehicle_speed")->value_scaled();
        if (speed.ok) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_speed = speed.value;
        }
    }

    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<SpeedObserver> m_observer;
    std::mutex m_mutex;
    std::optional<double> m_speed;
};

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

class SpeedWatcherTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!sim::Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        rt::SignalAdapter::enforce_support_lib(RT_SUPPORT_LIBRARY);
        ASSERT_TRUE(m_kit.start()) << m_kit.error();
    }

    std::unique_ptr<SpeedWatcher> watcher() {
        auto configuration = m_kit.client_configuration("speed-watcher");
        return std::make_unique<SpeedWatcher>(configuration);
    }

    // What the unit holds for this test; the IPC daemon offers the support library's
    // topics.
    sim::TestKit m_kit{{"unit.hostname = tele-test\n", RT_SUPPORT_LIBRARY}};
};

TEST_F(SpeedWatcherTest, ReportsTheSpeedTheVehiclePublishes) {
    auto app = watcher();
    ASSERT_TRUE(app->start(5s));

    // Another application plays the vehicle bus.
    auto configuration = m_kit.client_configuration("vehicle-bus");
    auto vehicle = com::create_client(configuration, com::MQTT);
    ASSERT_TRUE(vehicle->connect());
    const auto& adapter = rt::SignalAdapter::instance();
    auto group = adapter.create_sg(kSpeedTopic);
    group->set_signal_scaled_value("wheel_based_vehicle_speed", 63.5);
    ASSERT_EQ(vehicle->publish(kSpeedTopic, adapter.pack(*group).value()), 0);

    EXPECT_TRUE(eventually([&] { return app->speed() == 63.5; }));
    vehicle->stop();
}

TEST_F(SpeedWatcherTest, StartFailsWhenTheIpcDaemonIsTooSlowOrSilent) {
    m_kit.simulator().set_delay("ipcd", 3s);
    EXPECT_FALSE(watcher()->start(1s));

    m_kit.simulator().set_delay("ipcd", 0s);
    m_kit.simulator().set_silenced("ipcd", true);
    EXPECT_FALSE(watcher()->start(1s));
}

}  // namespace
