#include "ecu/tavi/com/acl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/sim/testkit.h"
#include "support/client_fixture.h"

namespace ecu::tavi {
namespace {

using com::AclResponseError;
using com::AclResult;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

const char* const kApp = "acl-app";

std::vector<uint8_t> hwversion(const std::string& value) {
    pb::EcuVariable variable;
    variable.set_value(value);
    return com::PbInternalMessageAdapter<pb::EcuVariable>(com::PROTOCOL_ECU_VARIABLE)
        .serialize(variable)
        .value()
        .get_data();
}

// The application's ACL client, with a plain MQTT peer playing the access-control daemon
// and the REST gateway: it answers every request with m_result (none when negative).
class AclTest : public test::ClientTest {
protected:
    AclTest() : ClientTest(kApp) {}
    void make_client() override {
        m_peer->set_handler([this](const test::MqttPeer::Received& received) {
            if (received.topic.rfind("system/", 0) != 0 || m_result < 0) {
                return;
            }
            pb::AclIfMessage answer;
            answer.mutable_response()->set_result(m_result);
            publish(std::string("app/") + kApp + "/acl/response", answer, com::PROTOCOL_ACL);
        });
        ASSERT_TRUE(m_peer->subscribe("system/aclifd/request"));
        ASSERT_TRUE(m_peer->subscribe("system/mdpd/request"));
        m_client = std::make_shared<com::AclClientImpl>(m_transport);
    }
    void drop_client() override { m_client.reset(); }

    // The requests the daemon got, with their topics.
    std::vector<std::pair<std::string, pb::AclIfMessage>> requests() {
        std::vector<std::pair<std::string, pb::AclIfMessage>> out;
        for (const auto& r : m_peer->received()) {
            if (r.topic.rfind("system/", 0) == 0) {
                out.emplace_back(r.topic, parse<pb::AclIfMessage>(r.payload));
            }
        }
        return out;
    }

    std::atomic<int> m_result{1};
    std::shared_ptr<com::AclClientImpl> m_client;
};

int code(const AclResult& result) {
    return result.has_value() ? 0 : static_cast<int>(result.error());
}

TEST_F(AclTest, RefusesBadNamesTopicsPortsAndListsWithoutSending) {
    using Call = std::function<AclResult(com::AclClientImpl&)>;
    auto sub = [](std::string topic) {
        return [topic](com::AclClientImpl& c) { return c.add_rest_acl("u1", {topic}, {}); };
    };
    const std::vector<std::pair<Call, std::string>> cases = {
        {[](auto& c) { return c.add_mqtt_user("abc_1", "pw"); },
         "Username contains invalid chars, only alphanumeric is allowed"},
        {[](auto& c) { return c.add_mqtt_user("", "pw"); },
         "Username or password for MQTT cannot be empty"},
        {[](auto& c) { return c.add_rest_user("u1", ""); },
         "Username or password for REST cannot be empty"},
        {[](auto& c) { return c.rm_websocket_user(""); }, "Username for WEBSOCKET cannot be empty"},
        {[](auto& c) { return c.rm_rest_user("a.b"); }, "Username contains invalid chars"},
        {[](auto& c) { return c.add_websocket_user("u1", "pw", 1023); },
         "Requested port is privileged and cannot be used"},
        {[](auto& c) { return c.add_websocket_user("u1", "pw", 65536); },
         "Requested port is too high and cannot be used"},
        {sub("be/publish"), "Topic list for subscription contains not allowed topics"},
        {sub("app/cid/+"), "Topic list for subscription contains not allowed topics"},
        {sub(""), "Empty topic cannot be used"},
        {sub("a b"), "Topic a b contains invalid characters"},
        {sub("a-b"), "Topic a-b contains invalid characters"},
        {sub("/a"), "Topic /a starts with invalid characters"},
        {sub("a/"), "Topic a/ ends with invalid characters"},
        {sub("a%"), "Topic a% ends with invalid characters"},
        {sub("a//b"), "Topic a//b contains illegal character sequence"},
        {sub("a__b"), "Topic a__b contains illegal character sequence"},
        {sub("a/b c"), "Subscription list contains invalid topics"},
        {[](auto& c) {
             return c.add_rest_acl("u1", {"a/b"}, {"a/b", "x y"});
         },
         "Publish list contains invalid topics"},
        {[](auto& c) { return c.add_mqtt_acl("u1", {}, {}, {}); },
         "Both subscription and publish topics cannot be empty"},
        {[](auto& c) { return c.add_mqtt_acl("u1", {"system/mdpd/request"}, {}, {}); },
         "Topic list for subscription contains not allowed topics"},
        {[](auto& c) {
             pb::AclIfMessage incomplete;
             incomplete.mutable_interface()->set_protocol(pb::AclInterface::MQTT);
             return c.send_request(incomplete, 1000);
         },
         "Send request called without a valid request to send"},
    };
    for (const auto& [call, text] : cases) {
        AclResult result = AclResult::ok(false);
        const std::string log = test::log_of([&] { result = call(*m_client); });
        EXPECT_EQ(1, code(result)) << text;
        EXPECT_THAT(log, HasSubstr(text));
    }
    EXPECT_TRUE(requests().empty());

    // Just inside every limit, and "be/publish" granted for publishing, all go out.
    const std::vector<Call> valid = {
        sub("a/b"),
        sub("a/+"),
        sub("a/#"),
        sub("A_b/%c/x_"),
        [](auto& c) { return c.add_websocket_user("u1", "pw", 1024); },
        [](auto& c) { return c.add_websocket_user("u1", "pw", 65535); },
        [](auto& c) {
            return c.add_mqtt_acl("u1", {}, {}, {false, false, false, false, false, true});
        },
        [](auto& c) { return c.add_rest_acl("u1", {}, {}); },
    };
    for (const auto& call : valid) {
        EXPECT_EQ(0, code(call(*m_client)));
    }
    EXPECT_EQ(valid.size(), requests().size());
    EXPECT_EQ(65535u, requests()[5].second.request().port());
}

TEST_F(AclTest, FeatureFlagsExpandIntoTheirTopics) {
    auto expanded = [&](const std::vector<std::string>& sub, const std::vector<std::string>& pub,
                        const com::TaviFeatures& features) {
        m_peer->clear();
        EXPECT_EQ(0, code(m_client->add_mqtt_acl("fleet1", sub, pub, features)));
        const pb::AclIfMessage request = requests().at(0).second;
        EXPECT_EQ(pb::AclInterface::MQTT, request.interface().protocol());
        EXPECT_EQ(pb::AclInterfaceRequest::ADD_ACL, request.request().action());
        EXPECT_EQ(kApp, request.request().client_name());
        EXPECT_EQ("fleet1", request.request().username());
        return request.request();
    };

    const auto only_variables = expanded({}, {}, {false, false, true, false, false, false});
    EXPECT_THAT(only_variables.subscribe_topics(),
                ElementsAre("system/var/+", "app/%c/log/configure"));
    EXPECT_THAT(only_variables.publish_topics(), ElementsAre("app/%c/log/config"));

    const auto all = expanded({"rt/x", "own/topic"}, {"rt/vekcan/tx/fws_fb", "own/out"},
                              {true, true, true, true, true, true});
    EXPECT_THAT(all.subscribe_topics(),
                ElementsAreArray({"rt/x", "own/topic", "app/%c/uds/+", "system/var/+",
                                  "app/%c/pgn/response", "system/sysparam/+", "system/sysparams",
                                  "be/status", "be/queue/status", "app/%c/be/response",
                                  "app/%c/log/configure"}));
    EXPECT_THAT(all.publish_topics(),
                ElementsAreArray({"rttx/vekcan/tx/fws_fb", "own/out", "system/udsifd/+",
                                  "system/pgnreqd/request", "system/vard/request/+",
                                  "system/sysparams/write", "be/publish", "app/%c/log/config"}));
}

TEST_F(AclTest, RoutesRequestsAndMapsTheAnswers) {
    struct Case {
        std::function<AclResult(com::AclClientImpl&)> call;
        const char* topic;
        int answer;
        int code;
    };
    const std::vector<Case> cases = {
        {[](auto& c) { return c.add_rest_acl("u1", {"a"}, {}); }, "system/mdpd/request", 1, 0},
        {[](auto& c) { return c.add_mqtt_acl("u1", {"a"}, {}, {}); }, "system/aclifd/request", 2,
         3},
        {[](auto& c) { return c.add_rest_user("u1", "pw"); }, "system/aclifd/request", 7, 4},
        {[](auto& c) { return c.rm_mqtt_user("u1"); }, "system/aclifd/request", 9, 5},
        {[](auto& c) { return c.add_mqtt_user("u1", "pw"); }, "system/aclifd/request", 0, 5},
    };
    for (const auto& c : cases) {
        m_peer->clear();
        m_result = c.answer;
        EXPECT_EQ(c.code, code(c.call(*m_client))) << c.topic << " answered " << c.answer;
        ASSERT_EQ(1u, requests().size());
        EXPECT_EQ(c.topic, requests()[0].first);
    }

    m_result = -1;
    auto request = [] {
        pb::AclIfMessage message;
        message.mutable_interface()->set_protocol(pb::AclInterface::MQTT);
        message.mutable_request()->set_action(pb::AclInterfaceRequest::REMOVE_USER);
        return message;
    }();
    AclResult late = AclResult::ok(false);
    EXPECT_THAT(test::log_of([&] { late = m_client->send_request(request, 50); }),
                HasSubstr("AclIfd/mdpd did not send response in time!"));
    EXPECT_EQ(3, code(late));

    // From inside an observer the answer could never arrive: refused at once.
    int inside = -1;
    ASSERT_TRUE(run_inside([&] {
        auto copy = request;
        inside = code(m_client->send_request(copy, 150000));
    }));
    EXPECT_EQ(3, inside);
    EXPECT_THAT(log(), HasSubstr("called on the transport's network thread"));
}

TEST_F(AclTest, ExistsOnlyOnVcmUnits) {
    ASSERT_EQ(0, m_peer->publish("system/var/hwversion", hwversion("tcm"), 1, true));
    std::pair<bool, std::shared_ptr<com::AclClient>> created;
    EXPECT_THAT(test::log_of([&] { created = com::create_acl_client(m_transport); }),
                HasSubstr("AclClient is not available on this version!"));
    EXPECT_FALSE(created.first);
    EXPECT_FALSE(created.second);

    ASSERT_EQ(0, m_peer->publish("system/var/hwversion", hwversion("vcm"), 1, true));
    ASSERT_TRUE(test::wait_until([&] { return com::create_acl_client(m_transport).first; }));
}

// Users created through the client are real on the kit's broker: they log in, and get
// exactly what their access list grants.
TEST(AclOnBroker, UserLogsInAndIsAllowedAndRefusedAsItsListSays) {
    if (!test::Broker::available()) {
        GTEST_SKIP() << "mosquitto is not installed";
    }
    sim::TestKit kit({"aclifd.refused_users = intruder\n", ""});
    ASSERT_TRUE(kit.start()) << kit.error();
    test::MqttPeer watcher(kit.broker().host(), kit.broker().port());
    ASSERT_TRUE(watcher.wait_connected());
    ASSERT_EQ(0, watcher.publish("system/var/hwversion", hwversion("vcm"), 1, true));
    auto admin = test::app_transport(kit.client_config("fleet-admin"));
    ASSERT_TRUE(test::start_app(*admin));
    auto created = com::create_acl_client(admin);
    ASSERT_TRUE(created.first);
    auto& acl = *created.second;
    EXPECT_EQ(4, code(acl.add_mqtt_user("intruder", "pw")));
    EXPECT_EQ(0, code(acl.add_websocket_user("webuser", "pw", 8080)));  // recorded only
    ASSERT_EQ(0, code(acl.add_mqtt_user("fleetapp", "s3cret")));
    ASSERT_EQ(0, code(acl.add_mqtt_acl("fleetapp", {"fleet/%c/inbox"}, {"fleet/outbox"}, {})));

    ASSERT_TRUE(watcher.subscribe("fleet/#"));
    struct Inbox : com::ISubscriptionObserver {
        std::mutex mutex;
        std::vector<std::string> topics;
        void message(const std::string& topic, const com::Message&) override {
            std::lock_guard<std::mutex> lock(mutex);
            topics.push_back(topic);
        }
        std::vector<std::string> seen() {
            std::lock_guard<std::mutex> lock(mutex);
            return topics;
        }
    };
    auto inbox = std::make_shared<Inbox>();
    auto user = test::app_transport(kit.client_config("fleetapp") +
                                    "login_username = fleetapp\nlogin_password = s3cret\n");
    ASSERT_TRUE(test::start_app(*user));
    user->subscribe("fleet/other/inbox", 0, inbox);
    user->subscribe("fleet/fleetapp/inbox", 0, inbox);
    ASSERT_TRUE(user->wait_ready(std::chrono::seconds(10)));

    // Each forbidden message goes first: once the allowed one is through, the other would
    // have been as well.
    watcher.publish("fleet/other/inbox", std::string("no"));
    watcher.publish("fleet/fleetapp/inbox", std::string("yes"));
    ASSERT_TRUE(test::wait_until([&] { return !inbox->seen().empty(); }));
    EXPECT_THAT(inbox->seen(), ElementsAre("fleet/fleetapp/inbox"));

    com::Message data("x", 1);
    data.set_qos(1);
    EXPECT_EQ(0, user->publish("fleet/secret", data));
    EXPECT_EQ(0, user->publish("fleet/outbox", data));
    ASSERT_TRUE(watcher.wait_for("fleet/outbox"));
    EXPECT_EQ(0u, watcher.count("fleet/secret"));
    user->stop();

    EXPECT_EQ(0, code(acl.rm_mqtt_user("fleetapp")));
    admin->stop();
}

}  // namespace
}  // namespace ecu::tavi
