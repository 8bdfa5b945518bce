#include "ecu/tavi/com/backend.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/sim/testkit.h"
#include "mqttclient.h"
#include "support/client_fixture.h"

namespace ecu::tavi {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Client = com::BackendClient;
using Call = std::pair<std::uint64_t, int>;

// The real transport, also counting the subscriptions made and keeping their observers.
class RecordingClient : public com::MqttClient {
public:
    using MqttClient::MqttClient;
    void subscribe(const std::string& topic, unsigned char qos,
                   std::shared_ptr<com::ISubscriptionObserver> observer) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_subscriptions[topic];
            m_observers[topic] = observer;
        }
        MqttClient::subscribe(topic, qos, observer);
    }
    int subscriptions(const std::string& topic) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_subscriptions[topic];
    }
    std::shared_ptr<com::ISubscriptionObserver> observer(const std::string& topic) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_observers[topic];
    }

private:
    std::mutex m_mutex;
    std::map<std::string, int> m_subscriptions;
    std::map<std::string, std::shared_ptr<com::ISubscriptionObserver>> m_observers;
};

// The application's backend client, with a plain MQTT peer playing the proxy.
class BackendTest : public test::ClientTest {
protected:
    BackendTest() : ClientTest("be-app") {}
    std::shared_ptr<com::ITransportClient> make_transport() override {
        auto config = test::app_config(m_broker.client_config(m_app));
        m_recording = std::make_shared<RecordingClient>(config);
        return m_recording;
    }
    void make_client() override {
        ASSERT_TRUE(m_peer->subscribe("be/publish"));
        m_client = com::create_be_client(m_transport);
    }
    void drop_client() override { m_client.reset(); }

    pb::BackendProxyTransmit sent(size_t index) {
        EXPECT_TRUE(m_peer->wait_for("be/publish", index + 1));
        return parse<pb::BackendProxyTransmit>(m_peer->received().at(index).payload);
    }
    void respond(std::uint64_t id, int status) {
        pb::BackendProxyResponse response;
        response.set_request_id(id);
        response.set_status(static_cast<pb::BackendProxyResponse::Status>(status));
        publish("app/be-app/be/response", response, com::PROTOCOL_BACKEND_PROXY);
    }
    std::vector<Call> calls() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    Client::ResponseCallback recorder() {
        return [this](std::uint64_t id, int status) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.emplace_back(id, status);
        };
    }

    std::shared_ptr<RecordingClient> m_recording;
    std::shared_ptr<Client> m_client;
    std::mutex m_mutex;
    std::vector<Call> m_calls;
};

TEST_F(BackendTest, PublishNumbersRequestsFromOneAndSendsTheOptions) {
    const std::string content = "hello backend";
    const com::Message data(content.data(), content.size());
    EXPECT_EQ(0u, m_client->publish(com::Message(), 5, {}));

    Client::TxOptions options{3, 120, true, false, true, recorder()};
    EXPECT_EQ(1u, m_client->publish(data, 42, options));
    EXPECT_EQ(2u, m_client->publish(data, 43, {}));

    const auto first = sent(0);
    EXPECT_EQ("be-app", first.client_name());
    EXPECT_EQ(1u, first.request_id());
    EXPECT_EQ(42u, first.content_id());
    EXPECT_EQ(3u, first.priority());
    EXPECT_EQ(120000, first.ttl_ms());
    EXPECT_TRUE(first.kl30robust());
    EXPECT_FALSE(first.compress());
    EXPECT_TRUE(first.store_offline());
    EXPECT_TRUE(first.response_wanted());
    EXPECT_EQ(content, first.payload());
    EXPECT_FALSE(sent(1).response_wanted());
    EXPECT_EQ(2u, m_peer->count("be/publish"));  // the empty one never left

    // A send that fails reports status 1 to the callback.
    m_transport->stop();
    EXPECT_EQ(0u, m_client->publish(data, 42, options));
    EXPECT_THAT(calls(), ElementsAre(Call{3, 1}));
}

TEST_F(BackendTest, ResponseCallbackStaysUntilAFinalStatus) {
    const com::Message data("x", 1);
    ASSERT_EQ(1u, m_client->publish(data, 1, {0, 0, false, false, false, recorder()}));
    respond(1, pb::BackendProxyResponse::QUEUED);
    ASSERT_TRUE(test::wait_until([&] { return calls().size() == 1; }));
    respond(1, pb::BackendProxyResponse::DELIVERED);
    ASSERT_TRUE(test::wait_until([&] { return calls().size() == 2; }));
    respond(1, pb::BackendProxyResponse::DELIVERED);
    ASSERT_TRUE(logged("No callback registered for BackendClient request 1"));
    EXPECT_THAT(calls(), ElementsAre(Call{1, 2}, Call{1, 0}));
    EXPECT_THAT(log(), HasSubstr("BackendClient responded to request 1 with status [QUEUED]"));
}

TEST_F(BackendTest, FollowsConnectionAndQueueStatus) {
    std::vector<Client::ConnectionState> states;
    std::mutex mutex;
    m_client->add_connection_callback([&](Client::ConnectionState state) {
        std::lock_guard<std::mutex> lock(mutex);
        states.push_back(state);
    });
    EXPECT_FALSE(m_client->is_connected());
    for (int status : {2, 1, 0}) {
        pb::BackendProxyStatus message;
        message.set_status(static_cast<pb::BackendProxyStatus::Status>(status));
        publish("be/status", message, com::PROTOCOL_BACKEND_PROXY);
        if (status == 2) {
            ASSERT_TRUE(test::wait_until([&] { return m_client->is_connected(); }));
        }
    }
    ASSERT_TRUE(test::wait_until([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return states.size() == 3;
    }));
    EXPECT_THAT(states,
                ElementsAre(Client::ConnectionState::Connected,
                            Client::ConnectionState::Disconnected, Client::ConnectionState::Error));

    // Retained, as the proxy keeps it: it arrives once the client subscribes on first use.
    pb::BackendProxyQueueStatus queue;
    queue.set_size(100);
    queue.set_available(90);
    queue.set_in_flight(7);
    queue.set_kl30robust(3);
    publish("be/queue/status", queue, com::PROTOCOL_BACKEND_PROXY, true);
    std::atomic<int> reported{0};
    m_client->add_queue_status_callback(
        [&](const Client::QueueStatus& status) { reported = static_cast<int>(status.in_flight); });
    ASSERT_TRUE(test::wait_until([&] { return reported == 7; }));
    const auto status = m_client->queue_status();
    EXPECT_EQ(100u, status.size);
    EXPECT_EQ(90u, status.available);
    EXPECT_EQ(3u, status.kl30robust);
    EXPECT_GT(status.received_ms, 0u);
    EXPECT_EQ(1, m_recording->subscriptions("be/queue/status"));
}

TEST_F(BackendTest, ContentCallbacksPerContentId) {
    std::mutex mutex;
    std::vector<std::string> seen;
    auto keep = [&](const char* who) {
        return [&, who](unsigned int id, const com::Message& message) {
            std::lock_guard<std::mutex> lock(mutex);
            const auto& data = message.get_data();
            seen.push_back(who + std::to_string(id) + ":" + std::string(data.begin(), data.end()));
        };
    };
    m_client->add_content_callback(0, keep("zero"));
    m_client->add_content_callback(7, keep("first"));
    m_client->add_content_callback(7, keep("second"));
    m_client->add_content_callback(8, keep("marker"));
    EXPECT_EQ(0, m_recording->subscriptions("app/cid/0"));
    EXPECT_EQ(1, m_recording->subscriptions("app/cid/7"));
    ASSERT_TRUE(m_transport->wait_ready(std::chrono::seconds(10)));

    ASSERT_EQ(0, m_peer->publish("app/cid/7", std::string("raw content")));
    ASSERT_EQ(0, m_peer->publish("app/cid/8", std::string("end")));
    ASSERT_TRUE(test::wait_until([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size() == 2;
    }));
    EXPECT_THAT(seen, ElementsAre("second7:raw content", "marker8:end"));

    // A topic whose id does not parse is logged and dropped.
    m_recording->observer("app/cid/7")->message("app/cid/abc", com::Message("x", 1));
    m_client->clear_content_callbacks(9);
    expect_logged({"Invalid content ID requested for callback",
                   "Failed to parse content id from topic 'app/cid/abc' : stoul",
                   "Unable to find requested callback for deletion"});
}

// The simulator's proxy: "queued" first, then the backend's verdict as the unit says.
TEST(BackendOnSimulator, ProxyAnswersQueuedThenTheBackendsVerdict) {
    if (!test::Broker::available()) {
        GTEST_SKIP() << "mosquitto is not installed";
    }
    sim::TestKit kit({"backend.behaviour = fail\n", ""});
    ASSERT_TRUE(kit.start()) << kit.error();
    auto config = kit.client_configuration("be-sim-app");
    std::shared_ptr<com::ITransportClient> transport = com::create_mqtt_client(config);
    ASSERT_TRUE(transport->connect());
    auto client = com::create_be_client(transport);
    transport->start();
    ASSERT_TRUE(transport->wait_ready(std::chrono::seconds(10)));
    ASSERT_TRUE(test::wait_until([&] { return client->is_connected(); }));
    EXPECT_TRUE(test::wait_until([&] { return client->queue_status().size == 100; }));

    std::mutex mutex;
    std::vector<Call> calls;
    Client::TxOptions options;
    options.response_callback = [&](std::uint64_t id, int status) {
        std::lock_guard<std::mutex> lock(mutex);
        calls.emplace_back(id, status);
    };
    auto answered = [&](size_t n) {
        return test::wait_until([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return calls.size() == n;
        });
    };
    ASSERT_EQ(1u, client->publish(com::Message("x", 1), 7, options));
    ASSERT_TRUE(answered(2));
    ASSERT_TRUE(kit.simulator().set_unit_value("backend.behaviour", "offline").has_value());
    ASSERT_TRUE(test::wait_until([&] { return !client->is_connected(); }));
    ASSERT_EQ(2u, client->publish(com::Message("x", 1), 7, options));
    ASSERT_TRUE(answered(4));
    EXPECT_THAT(calls, ElementsAre(Call{1, 2}, Call{1, 1}, Call{2, 2}, Call{2, 4}));
    client.reset();
    transport->stop();
}

}  // namespace
}  // namespace ecu::tavi
