#include "ecu/tavi/var/variables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "support/client_fixture.h"

namespace ecu::tavi::var {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

class VariablesTest : public test::ClientTest {
protected:
    VariablesTest() : ClientTest("platform-app") {}
    void make_client() override { m_vars = create_var_client(m_transport); }
    void drop_client() override { m_vars.reset(); }

    void publish_var(const std::string& name, const std::string& value, std::uint64_t timestamp = 0,
                     bool retain = true) {
        pb::EcuVariable body;
        body.set_value(value);
        if (timestamp != 0) {
            body.set_timestamp(timestamp);
        }
        publish("system/var/" + name, body, com::PROTOCOL_ECU_VARIABLE, retain);
    }

    std::shared_ptr<VariablesClient> m_vars;
};

TEST_F(VariablesTest, RetainedValueIsWaitedForOnceThenServedFromTheCache) {
    publish_var("hwversion", "vcm", 1234);
    // The retained value comes with the subscription: the first read waits for it (or finds it
    // stored already when it came during the subscribe call).
    std::uint64_t stamp = 99;
    EXPECT_EQ("vcm", m_vars->get_extended(stamp, "hwversion", "none", 10000));

    // Later reads cost no traffic, even with the service gone quiet, and give the stamp.
    m_broker.stop();
    EXPECT_EQ("vcm", m_vars->get_extended(stamp, "hwversion", "none", 0));
    EXPECT_EQ(1234u, stamp);
    EXPECT_THAT(log(), HasSubstr("Got ECU variable 'hwversion' = 'vcm' from cache\n"));
}

TEST_F(VariablesTest, TimeOutGivesTheDefaultAndALateValueIsKept) {
    EXPECT_EQ("fallback", m_vars->get("late", "fallback", 0));
    EXPECT_EQ("", m_vars->get("late", "", 50));
    expect_logged(
        {"[INFO]: [tavi.variables] Request for variable 'late' timed "
         "out. Returning default value = 'fallback'\n",
         "[INFO]: [tavi.variables] Request for variable 'late' timed "
         "out.\n"});

    // An empty delivery leaves the variable unknown.
    publish_var("late", "");
    ASSERT_TRUE(logged("[INFO]: [tavi.variables] Received empty variable 'late'\n"));
    EXPECT_EQ("d", m_vars->get("late", "d", 0));

    // A value that arrives after the time-out is cached all the same.
    publish_var("late", "now", 0, false);
    ASSERT_TRUE(test::wait_until([&] { return m_vars->get("late", "d", 0) == "now"; }));
    std::uint64_t stamp = 7;
    m_vars->get_extended(stamp, "late", "d", 0);
    EXPECT_EQ(0u, stamp) << "no time stamp sent";
}

TEST_F(VariablesTest, IllegalNamesGiveTheDefaultAtOnce) {
    for (const std::string name : {"a/b", "+", "x#"}) {
        EXPECT_EQ("dflt", m_vars->get(name, "dflt", 60000)) << name;
        EXPECT_THAT(log(), HasSubstr("[INFO]: [tavi.variables] Request for illegal variable '" +
                                     name + "'. Returning default value = 'dflt'\n"));
    }
    EXPECT_THAT(log(), Not(HasSubstr("Waiting for variable")));
}

TEST_F(VariablesTest, OneDeliveryWakesEveryWaitingReader) {
    std::vector<std::future<std::string>> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(
            std::async(std::launch::async, [&] { return m_vars->get("vin", "none", 20000); }));
    }
    ASSERT_TRUE(test::wait_until([&] {
        const std::string text = log();
        size_t waiting = 0;
        for (size_t at = text.find("Waiting for variable 'vin'"); at != std::string::npos;
             at = text.find("Waiting for variable 'vin'", at + 1)) {
            ++waiting;
        }
        return waiting == readers.size();
    }));
    ASSERT_TRUE(m_transport->wait_ready(10s));
    publish_var("vin", "WDB123", 0, false);
    for (auto& reader : readers) {
        EXPECT_EQ("WDB123", reader.get());
    }
}

TEST_F(VariablesTest, BadDeliveriesAreLoggedAndDropped) {
    // The empty name is legal, so "system/var/" itself is subscribed.
    EXPECT_EQ("d", m_vars->get("", "d", 0));
    EXPECT_EQ("d", m_vars->get("garbled", "d", 0));
    ASSERT_TRUE(m_transport->wait_ready(10s)) << "both subscriptions acknowledged";
    ASSERT_EQ(0, m_peer->publish("system/var/", std::string("x")));
    EXPECT_TRUE(logged("[WARNING]: [tavi.variables] Bogus topic received\n"));

    ASSERT_EQ(0, m_peer->publish("system/var/garbled", std::string("not framed")));
    EXPECT_TRUE(
        logged("[WARNING]: [tavi.variables] Failed to parse received variable 'garbled'\n"));
}

// Counts the messages of the topics it is subscribed to.
class Counter : public com::ISubscriptionObserver {
public:
    void message(const std::string&, const com::Message&) override { ++m_count; }
    std::atomic<int> m_count{0};
};

TEST_F(VariablesTest, DestroyedClientIsNoLongerCalledAfterRepeatedReads) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("d", m_vars->get("gone", "d", 0));
    }
    m_vars.reset();
    // Another observer of the topic proves the delivery was dispatched.
    auto counter = std::make_shared<Counter>();
    m_transport->subscribe("system/var/gone", 0, counter);
    ASSERT_TRUE(m_transport->wait_ready(10s));
    publish_var("gone", "late");
    EXPECT_TRUE(test::wait_until([&] { return counter->m_count == 1; }));
    EXPECT_THAT(log(), Not(HasSubstr("Received unrequested variable")));
    m_transport->unsubscribe("system/var/gone", counter);
}

TEST_F(VariablesTest, ReadInsideAnObserverIsRefusedAtOnce) {
    std::string answer;
    ASSERT_TRUE(run_inside([&] { answer = m_vars->get("never", "refused", 60000); }));
    EXPECT_EQ("refused", answer);
    EXPECT_THAT(log(), HasSubstr("[ERROR]: [tavi.variables] VariablesClient::get called on the "
                                 "transport's network thread"));
}

}  // namespace
}  // namespace ecu::tavi::var
