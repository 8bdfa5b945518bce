// The simulator against a real broker: the IPC daemon's relay and readiness protocol as
// applications see them through the library, the demo application run against it, and
// tavi-sim stopping cleanly on SIGTERM.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/testkit.h"
#include "overrides.h"
#include "support/capture.h"
#include "support/mqtt_peer.h"

namespace ecu::tavi::sim {
namespace {

using namespace std::chrono_literals;
using test::wait_until;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

const char* const kTopic = "rt/vekcan/rx/ccvs";

// Keeps every message that arrives.
class Inbox : public com::ISubscriptionObserver {
public:
    void message(const std::string&, const com::Message& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(message);
    }
    std::vector<com::Message> messages() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }

private:
    std::mutex m_mutex;
    std::vector<com::Message> m_messages;
};

std::string sample_unit() {
    std::ifstream file(MURNTAVI_TEST_SOURCE_DIR "/tools/sim/unit.conf");
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class SimTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
        ASSERT_TRUE(m_kit.start()) << m_kit.error();
    }

    // An application, subscribed to topic (if any), connected and started.
    std::shared_ptr<com::ITransportClient> application(const std::string& name,
                                                       const std::string& topic = "",
                                                       std::shared_ptr<Inbox> inbox = {}) {
        auto configuration = m_kit.client_configuration(name);
        auto app = com::create_client(configuration, com::MQTT);
        if (!topic.empty()) {
            app->subscribe(topic, 0, inbox ? inbox : std::make_shared<Inbox>());
        }
        EXPECT_TRUE(app->connect());
        app->start();
        return app;
    }

    // The sample unit that scripts/demo runs, so that every demo step finds its service.
    TestKit m_kit{{sample_unit(), MURNTAVI_RTSUPPORT_LIB}};
};

TEST_F(SimTest, ApplicationIsReadyOnlyOnceIpcdConfirmsAndGetsGroupsThroughTheRelay) {
    Simulator& simulator = m_kit.simulator();
    ASSERT_TRUE(simulator.set_silenced("ipcd", true));

    auto inbox = std::make_shared<Inbox>();
    auto receiver = application("sim-receiver", kTopic, inbox);
    // The broker acknowledges the subscription, but IPCd says nothing: not ready.
    EXPECT_FALSE(receiver->wait_ready(1s));
    EXPECT_FALSE(receiver->is_ready());
    ASSERT_TRUE(simulator.set_silenced("ipcd", false));
    EXPECT_TRUE(receiver->wait_ready(10s));

    auto sender = application("sim-sender");
    ASSERT_TRUE(sender->wait_ready(10s));
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    auto group = adapter.create_sg(kTopic);
    ASSERT_TRUE(group);
    ASSERT_TRUE(group->set_signal_scaled_value("wheel_based_vehicle_speed", 42.5));
    auto packed = adapter.pack(*group);
    ASSERT_TRUE(packed.has_value());
    ASSERT_EQ(sender->publish(kTopic, packed.value()), 0);
    ASSERT_TRUE(wait_until([&] { return inbox->messages().size() == 1; }));
    auto back = adapter.unpack(kTopic, inbox->messages().at(0));
    ASSERT_TRUE(back.has_value()) << back.error().message;
    EXPECT_EQ(back.value(), *group);
    EXPECT_EQ(back.value().signal("wheel_based_vehicle_speed")->value_scaled().value, 42.5);

    // The sender's data reaches "rt/" only through IPCd: silenced, nothing arrives.
    simulator.set_silenced("ipcd", true);
    ASSERT_EQ(sender->publish(kTopic, packed.value()), 0);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(inbox->messages().size(), 1u);
    receiver->stop();
    sender->stop();
}

TEST_F(SimTest, IpcdConfirmsOnlyOfferedTopicsThatTheUnitDoesNotRefuse) {
    ASSERT_TRUE(m_kit.simulator().set_unit_value("ipcd.refused_topics", "rt/vekcan/rx/eec1"));
    for (const char* topic : {"rt/vekcan/rx/eec1", "rt/not/offered"}) {
        auto app = application("sim-refused", topic);
        EXPECT_FALSE(app->wait_ready(1s)) << topic;
        app->stop();
    }
    // Changing the unit back lets the next application through.
    ASSERT_TRUE(m_kit.simulator().set_unit_value("ipcd.refused_topics", ""));
    auto app = application("sim-accepted", "rt/vekcan/rx/eec1");
    EXPECT_TRUE(app->wait_ready(10s));
    app->stop();
}

TEST_F(SimTest, DelayedIpcdHoldsBackTheConfirmation) {
    ASSERT_TRUE(m_kit.simulator().set_delay("ipcd", 3s));
    auto app = application("sim-delayed", kTopic);
    EXPECT_FALSE(app->wait_ready(1s));
    EXPECT_TRUE(app->wait_ready(10s));
    app->stop();
}

TEST_F(SimTest, DaemonsAreBackWithTheirRetainedStateAfterTheBrokerRestarts) {
    const tavi::_internal::ScopedOverrides fast(50);  // reconnects after 100 ms
    // Once an application has the variable, the broker holds it: nothing is left in flight.
    auto before = std::make_shared<Inbox>();
    auto first = application("sim-before-restart", "system/var/hwversion", before);
    ASSERT_TRUE(wait_until([&] { return !before->messages().empty(); }));
    first->stop();
    ASSERT_TRUE(m_kit.broker().restart());
    ASSERT_TRUE(m_kit.simulator().wait_ready(10s));

    // The restarted broker kept nothing: the variable is there because the daemon published
    // it again, and the application is ready because IPCd listens again.
    auto groups = std::make_shared<Inbox>();
    auto variables = std::make_shared<Inbox>();
    auto app = application("sim-after-restart", kTopic, groups);
    app->subscribe("system/var/hwversion", 0, variables);
    ASSERT_TRUE(app->wait_ready(10s));
    EXPECT_TRUE(wait_until([&] { return !variables->messages().empty(); }));
    auto group = rt::SignalAdapter::instance().create_sg(kTopic);
    ASSERT_TRUE(group);
    ASSERT_EQ(app->publish(kTopic, rt::SignalAdapter::instance().pack(*group).value()), 0);
    EXPECT_TRUE(wait_until([&] { return groups->messages().size() == 1; }));
    app->stop();
}

#ifdef TAVI_DEMO
class SimDemoTest : public SimTest {
protected:
    test::ProcessRun run_demo() {
        const std::string conf = ::testing::TempDir() + "demo.conf";
        {
            std::ofstream out(conf);
            out << m_kit.client_config("tavi-demo")
                << "rt_support_library = " MURNTAVI_RTSUPPORT_LIB "\n"
                << "ready_timeout_s = 1\nlogging.mode = syslog\n";
        }
        return test::run_command(std::string(TAVI_DEMO) + " " + conf);
    }
};

TEST_F(SimDemoTest, PassesEveryStepAgainstTheSimulator) {
    const auto demo = run_demo();
    EXPECT_EQ(demo.exit_code, 0) << demo.output;
    for (const char* step :
         {"connect", "readiness with IPCd", "log control: query", "log control: change",
          "real-time round trip", "UDS: read VIN", "PGN token", "maintenance request", "variables",
          "system parameters", "boot flags: switch", "bluetooth scan", "acl: create user",
          "acl: log in as user", "backend: send and echo"}) {
        EXPECT_THAT(demo.output, HasSubstr(std::string("  OK    ") + step));
    }
    EXPECT_THAT(demo.output, Not(ContainsRegex("FAIL|SKIP")));
}

TEST_F(SimDemoTest, FailsWithExitCodeOneWhenIpcdDoesNotAnswer) {
    m_kit.simulator().set_silenced("ipcd", true);
    const auto demo = run_demo();
    EXPECT_EQ(demo.exit_code, 1) << demo.output;
    EXPECT_THAT(demo.output, HasSubstr("  FAIL  readiness with IPCd"));
    EXPECT_THAT(demo.output, HasSubstr("  SKIP  real-time round trip"));
    EXPECT_THAT(demo.output, HasSubstr("demo: 1 of "));
}
#endif

TEST(SimProcess, StopsCleanlyOnSigtermAndClearsItsReport) {
    if (!Broker::available()) {
        GTEST_SKIP() << "mosquitto is not installed";
    }
    Broker broker;
    ASSERT_TRUE(broker.start()) << broker.error();
    const std::string unit = ::testing::TempDir() + "sigterm.conf";
    std::ofstream(unit) << "unit.hostname = tele-1\n";
    const std::string log = ::testing::TempDir() + "sigterm.log";
    const std::string port = std::to_string(broker.port());

    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::freopen(log.c_str(), "w", stdout);
        ::dup2(1, 2);
        // Through the shell, since TAVI_SIM may name an emulator before the program.
        const std::string command =
            "exec " TAVI_SIM " --unit " + unit + " --host 127.0.0.1 --port " + port;
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    const auto log_text = [&] {
        std::ifstream in(log);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    ASSERT_TRUE(wait_until([&] { return log_text().find("tavi-sim: ready") != std::string::npos; }))
        << log_text();

    test::MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.subscribe("system/ipc/subscriptions", 1));
    ASSERT_TRUE(peer.wait_for("system/ipc/subscriptions"));  // the retained report

    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << log_text();
    EXPECT_NE(log_text().find("tavi-sim: stopping on SIGTERM"), std::string::npos);
    // Its last words removed the retained report.
    ASSERT_TRUE(peer.wait_for("system/ipc/subscriptions", 2));
    EXPECT_EQ(peer.received().back().payload, "");
    test::MqttPeer late(broker.host(), broker.port());
    ASSERT_TRUE(late.subscribe("system/ipc/subscriptions", 1));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(late.count("system/ipc/subscriptions"), 0u);
}

TEST(SimLogin, ConnectsWithTheLoginAndReportsARefusal) {
    if (!Broker::available()) {
        GTEST_SKIP() << "mosquitto is not installed";
    }
    BrokerOptions broker_options;
    broker_options.password = true;
    Broker broker(broker_options);
    ASSERT_TRUE(broker.start()) << broker.error();
    auto start = [&](const std::string& password) {
        SimulatorOptions options;
        options.connection = {{"host", broker.host()},
                              {"port", std::to_string(broker.password_port())},
                              {"login_username", Broker::password_user()},
                              {"login_password", password}};
        options.connect_timeout = 1s;
        Simulator simulator(options, std::make_shared<Unit>());
        return simulator.start();
    };
    EXPECT_TRUE(start(Broker::password_secret()).has_value());
    auto refused = start("wrong");
    ASSERT_FALSE(refused.has_value());
    EXPECT_EQ(refused.error().code, SimulatorError::BROKER_UNREACHABLE);
    EXPECT_EQ(refused.error().message,
              "the broker at 127.0.0.1:" + std::to_string(broker.password_port()) +
                  " refused the connection: not authorised (5)");
}

}  // namespace
}  // namespace ecu::tavi::sim
