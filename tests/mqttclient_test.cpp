// The MQTT transport against a real mosquitto started per test on free loopback ports, with
// plain libmosquitto peers and a scripted IPC daemon on the other side.
#include "mqttclient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "support/broker.h"
#include "support/capture.h"
#include "support/ipcd_peer.h"
#include "support/mqtt_peer.h"
#include "sync_call.h"

namespace ecu::tavi::com {
namespace {

using namespace std::chrono_literals;
using test::Broker;
using test::MqttPeer;
using test::ScriptedIpcd;
using test::wait_until;

std::shared_ptr<MqttClient> make_client(const std::string& text) {
    std::istringstream in(text);
    auto config = config::Configuration::create_from_input(in);
    EXPECT_TRUE(config->verify());
    return std::make_shared<MqttClient>(config);
}

Message text_message(const std::string& text, uint8_t qos = 0) {
    Message message(text.data(), text.size());
    message.set_qos(qos);
    return message;
}

size_t thread_count() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// All log output of the test at DEBUG level, captured from standard output.
class LogCapture {
public:
    LogCapture() {
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable("tavi.com", true);
    }
    size_t count(const std::string& needle) {
        const std::string all = m_capture.text();
        size_t n = 0;
        for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1)) {
            ++n;
        }
        return n;
    }
    bool contains(const std::string& needle) { return count(needle) > 0; }
    bool wait_for(const std::string& needle, size_t times = 1) {
        return wait_until([&] { return count(needle) >= times; });
    }
    void expect(std::initializer_list<std::string> needles) {
        for (const auto& needle : needles) {
            EXPECT_TRUE(contains(needle)) << needle;
        }
    }

private:
    test::StdoutCapture m_capture;
};

// Counts what arrives per topic, then runs its hook (if any) on the network thread.
class Recorder : public ISubscriptionObserver {
public:
    using Hook = std::function<void(const std::string&, const Message&)>;
    explicit Recorder(Hook hook = {}) : m_hook(std::move(hook)) {}

    void message(const std::string& topic, const Message& message) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_topics.push_back(topic);
        }
        if (m_hook) {
            m_hook(topic, message);
        }
    }
    size_t count(const std::string& topic = "") {
        std::lock_guard<std::mutex> lock(m_mutex);
        return topic.empty()
                   ? m_topics.size()
                   : static_cast<size_t>(std::count(m_topics.begin(), m_topics.end(), topic));
    }

private:
    const Hook m_hook;
    std::mutex m_mutex;
    std::vector<std::string> m_topics;
};

struct ConnectionRecorder : IConnectionObserver {
    void on_connect(int rc) override {
        connected += rc == 0;
        if (throws) {
            throw std::runtime_error("connection observer failure");
        }
    }
    void on_disconnect(int rc) override { (rc == 0 ? clean : lost)++; }
    std::atomic<int> connected{0}, clean{0}, lost{0};
    bool throws = false;
};

// Publishes on topic until rec sees one more message there: the subscription is in place.
bool arrives(MqttPeer& peer, Recorder& rec, const std::string& topic) {
    const size_t before = rec.count(topic);
    return wait_until([&] {
        peer.publish(topic, std::string("x"));
        return rec.count(topic) > before;
    });
}

class MqttClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        ASSERT_TRUE(broker.start()) << broker.error();
    }

    // Client names stay within the 23 characters MQTT 3.1 allows.
    std::shared_ptr<MqttClient> client(const std::string& name, const std::string& extra = "") {
        return make_client(broker.client_config(name) + extra);
    }
    static bool ready(MqttClient& c, std::chrono::seconds timeout = 5s) {
        const bool connected = c.connect();
        c.start();
        return connected && c.wait_ready(timeout);
    }
    std::string at() const { return "127.0.0.1:" + std::to_string(broker.port()); }

    Broker broker;
};

TEST_F(MqttClientTest, ConnectsPublishesWaitsForAcksAndRewritesRealTimeTopics) {
    LogCapture log;
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.subscribe("#", 1));

    auto c = client("conn-test", "mqtt_version = 3.1.1\n");
    auto thrower = std::make_shared<ConnectionRecorder>();
    thrower->throws = true;
    auto observer = std::make_shared<ConnectionRecorder>();
    c->add_connection_observer(thrower);
    c->add_connection_observer(observer);
    ASSERT_TRUE(c->connect());
    // The throwing observer did not keep the next one from being told.
    EXPECT_TRUE(wait_until([&] { return observer->connected == 1; }));
    EXPECT_TRUE(c->connect());  // starts nothing
    log.expect({"Successfully set MQTT version to 4 for MQTT broker at " + at(),
                "Successfully set username='' and password='' for MQTT broker",
                "Connection successfully established with MQTT broker at " + at(),
                "Exception in on_connect: connection observer failure (ignored)",
                "Tried to start the ITransportClient for " + at() + " twice! Not allowed!"});

    const std::string binary("a\0b\xff", 4);
    Message retained = text_message(binary, 1);
    retained.set_retain(true);
    EXPECT_EQ(c->publish("plain/topic", retained), 0);
    EXPECT_EQ(c->publish("rt/speed", text_message("rt")), 0);
    ASSERT_TRUE(peer.wait_for("rttx/speed"));
    EXPECT_EQ(peer.count("rt/speed"), 0u);
    EXPECT_TRUE(log.contains("Changing RT topic from 'rt/speed' to 'rttx/speed'"));
    MqttPeer late(broker.host(), broker.port());
    ASSERT_TRUE(late.subscribe("plain/topic", 1));
    ASSERT_TRUE(late.wait_for("plain/topic"));
    const MqttPeer::Received kept = late.received().at(0);
    EXPECT_EQ(kept.payload, binary);
    EXPECT_EQ(kept.qos, 1);
    EXPECT_TRUE(kept.retain);

    // Only IPCd itself publishes on "rt/".
    auto ipcd = client("ipcd");
    ASSERT_TRUE(ipcd->connect());
    EXPECT_EQ(ipcd->publish("rt/speed", text_message("relay")), 0);
    EXPECT_TRUE(peer.wait_for("rt/speed"));
    ipcd->stop();

    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("1", 1), 5s));
    broker.pause();
    EXPECT_FALSE(c->publish_wait_ack("ack/t", text_message("2", 1), 1s));
    EXPECT_TRUE(log.contains(" timeout while waiting for acknowledgment"));
    broker.resume();
    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("3", 1), 5s));
    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("4", 0), 5s));
    log.expect({" published and acknowledged successfully",
                "Incorrect use of MqttClient::publish_wait_ack with message QoS:0 does not have "
                "the desired effect!"});

    c->stop();
    EXPECT_FALSE(c->isConnected());
    EXPECT_EQ(observer->clean, 1);
    log.expect({"Successfully disconnected from MQTT broker at " + at(),
                "MQTT client loop for " + at() + " stopped with a clean exit."});
}

TEST_F(MqttClientTest, ReceivedMessagesCarryTheQosAndRetainFlagTheyWereDeliveredWith) {
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.subscribe("flags/t", 1));
    ASSERT_EQ(peer.publish("flags/t", std::string("kept"), 1, true), 0);
    ASSERT_TRUE(peer.wait_for("flags/t"));  // the broker keeps it now
    std::mutex mutex;
    std::vector<std::pair<int, bool>> flags;
    auto rec = std::make_shared<Recorder>([&](const std::string&, const Message& m) {
        std::lock_guard<std::mutex> lock(mutex);
        flags.emplace_back(m.get_qos(), m.get_retain());
    });
    auto c = client("flags-test");
    c->subscribe("flags/t", 2, rec);
    ASSERT_TRUE(ready(*c));
    ASSERT_TRUE(wait_until([&] { return rec->count() == 1; }));
    ASSERT_EQ(peer.publish("flags/t", std::string("live"), 0, false), 0);
    ASSERT_TRUE(wait_until([&] { return rec->count() == 2; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(flags, (std::vector<std::pair<int, bool>>{{1, true}, {0, false}}));
    c->stop();
}

TEST_F(MqttClientTest, DispatchPrefersTheExactTopicAndOtherwiseWalksTheFiltersInKeyOrder) {
    std::mutex mutex;
    std::vector<std::string> journal;
    const auto named = [&](const std::string& name) {
        return std::make_shared<Recorder>([&, name](const std::string& topic, const Message&) {
            std::lock_guard<std::mutex> lock(mutex);
            journal.push_back(name + ":" + topic);
        });
    };
    auto exact = named("exact");
    auto c = client("dispatch");
    c->subscribe("a/+", 0, named("plus"));
    c->subscribe("#", 0, named("hash"));
    c->subscribe("a/#", 0, named("a_hash"));
    c->subscribe("a/b", 0, exact);
    c->subscribe("a/b", 0, named("exact2"));
    c->subscribe("a/b", 0, exact);  // twice: called twice, in order of subscription
    ASSERT_TRUE(ready(*c));

    // QoS 1 from one publisher: delivered in this order.
    for (const char* topic : {"a/b", "a/c", "z"}) {
        c->publish(topic, text_message("m", 1));
    }
    const std::vector<std::string> expected{"exact:a/b",  "exact2:a/b", "exact:a/b", "hash:a/c",
                                            "a_hash:a/c", "plus:a/c",   "hash:z"};
    ASSERT_TRUE(wait_until([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return journal.size() >= expected.size();
    }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(journal, expected);
}

TEST_F(MqttClientTest, SubscriptionChangesInsideMessageTakeEffectAfterTheDispatch) {
    auto c = client("deferred");
    auto b = std::make_shared<Recorder>();
    auto late = std::make_shared<Recorder>();
    auto fresh = std::make_shared<Recorder>();
    std::weak_ptr<Recorder> weak_a;
    auto a = std::make_shared<Recorder>([&](const std::string&, const Message&) {
        c->unsubscribe("d/t", weak_a.lock());
        c->subscribe("d/t", 0, late);
        c->subscribe("d/new", 0, fresh);
    });
    weak_a = a;
    c->subscribe("d/t", 0, a);
    c->subscribe("d/t", 0, b);
    ASSERT_TRUE(ready(*c));

    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    peer.publish("d/t", std::string("1"));
    ASSERT_TRUE(wait_until([&] { return b->count() == 1; }));
    EXPECT_EQ(a->count(), 1u);
    EXPECT_EQ(late->count(), 0u);  // added during the dispatch: not part of it

    // The topic subscribed from inside the callback reached the broker afterwards.
    EXPECT_TRUE(arrives(peer, *fresh, "d/new"));
    peer.publish("d/t", std::string("2"));
    ASSERT_TRUE(wait_until([&] { return b->count() == 2 && late->count() == 1; }));
    EXPECT_EQ(a->count(), 1u);
}

TEST_F(MqttClientTest, HoldsSubscriptionsBackUntilStartButSendsSystemTopicsEarly) {
    LogCapture log;
    auto c = client("held-back");
    auto rec = std::make_shared<Recorder>();
    c->subscribe("app/x", 1, rec);
    c->subscribe("system/var/speed", 1, rec);
    ASSERT_TRUE(c->connect());
    EXPECT_FALSE(c->is_ready());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(c->wait_ready(10s));  // not started: false at once
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);

    // Both go out from the same peer in order: once the system topic arrives, app/x would
    // have arrived before it had it been subscribed.
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    ASSERT_TRUE(wait_until([&] {
        peer.publish("app/x", std::string("x"));
        peer.publish("system/var/speed", std::string("s"));
        return rec->count("system/var/speed") > 0;
    }));
    EXPECT_EQ(rec->count("app/x"), 0u);

    c->start();
    ASSERT_TRUE(c->wait_ready(5s));
    EXPECT_TRUE(c->is_ready());
    EXPECT_TRUE(log.contains("is_ready: true, all is subscribed and all is announced"));
    EXPECT_TRUE(arrives(peer, *rec, "app/x"));

    // A second observer with the same or a lower QoS needs no new SUBSCRIBE; a higher one does.
    const std::string sent = "Successfully (re)subscribed to topic app/x with mid=";
    ASSERT_EQ(log.count(sent), 1u);
    c->subscribe("app/x", 1, rec);
    c->subscribe("app/x", 0, rec);
    EXPECT_EQ(log.count(sent), 1u);
    c->subscribe("app/x", 2, rec);
    EXPECT_EQ(log.count(sent), 2u);

    // Without any subscription a client is ready once started and connected.
    EXPECT_TRUE(ready(*client("no-subs")));
}

TEST_F(MqttClientTest, WaitReadyWaitsForIpcdNamesWhatIsMissingAndReusesTheObserver) {
    LogCapture log;
    ScriptedIpcd ipcd(broker.host(), broker.port());
    ASSERT_TRUE(ipcd.wait_ready());
    auto c = client("rt-app");
    auto rec = std::make_shared<Recorder>();
    std::vector<std::pair<std::string, std::string>> announced_topics;
    std::vector<std::string> never;
    for (int i = 0; i < 12; ++i) {
        never.push_back((i < 10 ? "rt/n0" : "rt/n") + std::to_string(i));
        ipcd.ignore(never.back());
        announced_topics.emplace_back("rt-app", never.back());
    }
    announced_topics.emplace_back("rt-app", "rt/speed");
    for (const auto& [name, topic] : announced_topics) {
        c->subscribe(topic, 0, rec);
    }
    c->subscribe("plain/t", 0, rec);       // not announced
    c->subscribe("bad/#/filter", 0, rec);  // refused locally: never acknowledged
    ASSERT_TRUE(c->connect());
    c->start();

    EXPECT_FALSE(c->wait_ready(1s));
    EXPECT_FALSE(c->is_ready());
    log.expect({"Failed to (re)subscribe to topic bad/#/filter [3] ",
                "[NOTICE]: [tavi.com.mqttclient] wait_ready timed out waiting for subscriptions\n"
                "[NOTICE]: [tavi.com.mqttclient] Topics not acknowledged by the broker: "
                "'bad/#/filter'; real-time topics not confirmed by IPCd: 'rt/n00', 'rt/n01', "
                "'rt/n02', 'rt/n03', 'rt/n04', 'rt/n05', 'rt/n06', 'rt/n07', 'rt/n08', 'rt/n09' "
                "and 2 more\n"});

    // The IPCd observer stays subscribed after the time-out and serves the next wait.
    c->unsubscribe("bad/#/filter", rec);
    for (const auto& topic : never) {
        ipcd.confirm(topic);
    }
    EXPECT_TRUE(c->wait_ready(5s));
    EXPECT_TRUE(c->is_ready());
    EXPECT_EQ(log.count("Creating observer and subscribing"), 1u);
    EXPECT_EQ(log.count("Remove observer and unsubscribe"), 1u);
    log.expect({"subscribed topic rt/speed is now active in IPCd subscriptions list",
                " available RT topics"});
    auto announced = ipcd.announcements();
    std::sort(announced.begin(), announced.end());
    EXPECT_EQ(announced, announced_topics);
    EXPECT_EQ(ipcd.bad_announcements(), 0u);
}

TEST_F(MqttClientTest, KeepsRetryingWhileTheBrokerIsDownAndConnectsWhenItComesUp) {
    LogCapture log;
    broker.stop();
    // Stopping a client that never reached the broker ends its retries at once.
    auto quitter = client("quitter");
    quitter->start();
    ASSERT_TRUE(log.wait_for("Unable to connect to MQTT broker at " + at()));
    quitter->stop();

    auto c = client("late-broker");
    c->start();
    EXPECT_FALSE(c->wait_ready(1s));
    EXPECT_TRUE(log.contains("wait_ready timed out waiting for connection"));
    EXPECT_EQ(log.count("Unable to connect to MQTT broker at " + at() +
                        ": Connection refused. Will silently keep trying to reconnect "
                        "forever..."),
              2u);  // once per client, then silently

    ASSERT_TRUE(broker.start());
    EXPECT_TRUE(c->wait_ready(5s));
    EXPECT_TRUE(c->isConnected());
    c->stop();
    // The stopped attempt is not left pending: connecting again starts a fresh connection.
    ASSERT_TRUE(quitter->connect());
    EXPECT_FALSE(log.contains("MQTT client loop for " + at() + " returned"));
    quitter->stop();
}

TEST_F(MqttClientTest, SurvivesTwentyBrokerKillsAndRestoresEverySubscription) {
    ScriptedIpcd ipcd(broker.host(), broker.port());
    ASSERT_TRUE(ipcd.wait_ready());
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    const size_t threads_before = thread_count();

    auto c = client("restarts");
    c->set_retry_delays(10ms, 10ms);
    auto connection = std::make_shared<ConnectionRecorder>();
    c->add_connection_observer(connection);
    auto rec = std::make_shared<Recorder>();
    const std::vector<std::string> topics{"app/r", "system/var/r", "rt/r"};
    for (const auto& topic : topics) {
        c->subscribe(topic, 1, rec);
    }
    ASSERT_TRUE(ready(*c, 10s));

    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        broker.kill();
        ASSERT_TRUE(wait_until([&] { return !c->isConnected(); }));
        ASSERT_TRUE(broker.start()) << broker.error();
        ASSERT_TRUE(c->wait_ready(10s));
        for (const auto& topic : topics) {
            ASSERT_TRUE(arrives(peer, *rec, topic)) << topic;
        }
    }
    EXPECT_EQ(connection->connected, 21);
    EXPECT_EQ(connection->lost, 20);
    c->stop();
    EXPECT_EQ(connection->clean, 1);
    EXPECT_EQ(thread_count(), threads_before);
}

TEST_F(MqttClientTest, TlsAndLoginSucceedOrFailWithoutSecretsInTheLog) {
    const test::TlsFiles& tls = Broker::tls_files();
    ASSERT_FALSE(tls.ca_cert.empty()) << "openssl failed";
    test::BrokerOptions options;
    options.tls = true;
    options.password = true;
    Broker secure(options);
    ASSERT_TRUE(secure.start()) << secure.error();
    LogCapture log;
    const std::string tls_at = "127.0.0.1:" + std::to_string(secure.tls_port());
    const std::string pw_at = "127.0.0.1:" + std::to_string(secure.password_port());
    const auto tls_config = [&](const std::string& name, const std::string& ca) {
        return "client_name = " + name +
               "\nhost = 127.0.0.1\nport = " + std::to_string(secure.tls_port()) +
               "\ntls.enable = true\ntls.cafile = " + ca + "\ntls.certfile = " + tls.client_cert +
               "\ntls.keyfile = " + tls.client_key + "\ntls.key.pwd = " + tls.client_key_password +
               "\n";
    };
    const std::string login = "host = 127.0.0.1\nport = " + std::to_string(secure.password_port()) +
                              "\nlogin_username = " + Broker::password_user() +
                              "\nlogin_password = ";
    // A refused client keeps retrying in the background: see the failure, then stop it.
    const auto refused = [&](const std::string& config, const std::string& failure) {
        auto c = make_client(config);
        c->start();
        EXPECT_TRUE(log.wait_for(failure)) << failure;
        EXPECT_FALSE(c->isConnected());
        c->stop();
    };

    // Client certificate with an encrypted key: connects, and traffic flows.
    MqttPeer peer(secure.host(), secure.port());
    ASSERT_TRUE(peer.subscribe("tls/t"));
    auto good = make_client(tls_config("tls-good", tls.ca_cert));
    ASSERT_TRUE(good->connect());
    EXPECT_EQ(good->publish("tls/t", text_message("secure")), 0);
    EXPECT_TRUE(peer.wait_for("tls/t"));
    good->stop();
    // A broker certificate from another CA, and a wrong password, are refused.
    refused(tls_config("tls-wrong-ca", tls.other_ca_cert),
            "MQTT client loop for " + tls_at + " returned [8] ");
    refused("client_name = pw-bad\n" + login + "not-" + Broker::password_secret(),
            "Failed to connect to MQTT broker at " + pw_at + " [5] ");
    auto right = make_client("client_name = pw-good\n" + login + Broker::password_secret());
    ASSERT_TRUE(right->connect());
    right->stop();
    // A password without a user name reaches the broker, which lets it in anonymously.
    auto no_user = make_client("client_name = pw-no-user\nhost = 127.0.0.1\nport = " +
                               std::to_string(secure.port()) + "\nlogin_password = only\n");
    ASSERT_TRUE(no_user->connect());
    no_user->stop();

    EXPECT_TRUE(
        log.contains("Successfully set username='tavi-user' and password='***' for MQTT "
                     "broker at " +
                     pw_at));
    // The wrong password contains the right one.
    EXPECT_FALSE(log.contains(tls.client_key_password));
    EXPECT_FALSE(log.contains(Broker::password_secret()));
}

TEST_F(MqttClientTest, MalformedPayloadsAreLoggedAndDroppedAndTheClientKeepsWorking) {
    LogCapture log;
    // Decodes what it receives the way a feature client does.
    std::atomic<int> decoded{0};
    PbInternalMessageAdapter<pb::SubscriptionMessage> reader(PROTOCOL_SUBSCRIPTION);
    auto c = client("malformed");
    auto thrower = std::make_shared<Recorder>(
        [](const std::string&, const Message&) { throw std::runtime_error("observer failure"); });
    auto decoder = std::make_shared<Recorder>([&](const std::string&, const Message& message) {
        auto result = reader.deserialize(message);
        decoded += result && result.value().client_name() == "valid";
    });
    c->subscribe("in/data", 0, thrower);
    c->subscribe("in/data", 0, decoder);
    c->subscribe("rt/m", 0, thrower);
    // Subscribed last: the broker takes one connection's subscriptions in order, so once the
    // probe delivers, the topics above are in place too.
    auto probe = std::make_shared<Recorder>();
    c->subscribe("in/probe", 0, probe);
    ASSERT_TRUE(c->connect());
    c->start();

    pb::SubscriptionMessage valid;
    valid.set_client_name("valid");
    const PbInternalMessageAdapter<pb::SubscriptionMessage> writer(PROTOCOL_SUBSCRIPTION);
    const auto bytes = writer.serialize(valid).value().get_data();
    const std::string frame(bytes.begin(), bytes.end()),
        truncated = frame.substr(0, frame.size() - 3), garbage = "not a frame at all, only text";

    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    ASSERT_TRUE(
        wait_until([&] { return peer.publish("in/probe", "x") == 0 && probe->count() > 0; }));
    // QoS 1 from one peer: delivered in this order.
    for (const auto& payload :
         {garbage, std::string(17, '\x09'), truncated, std::string(), frame}) {
        peer.publish("in/data", payload, 1);
    }
    // The count goes up before the hook runs: the decoding of the last one is waited for too.
    ASSERT_TRUE(wait_until([&] { return decoder->count() == 5 && decoded == 1; }));
    EXPECT_EQ(log.count("Exception in message() for topic in/data: observer failure (ignored)"),
              5u);
    log.expect({"Unable to decode the header.",
                "Total length is smaller then expected header length",
                "Unable to deserialize protobuf"});

    // The same on IPCd's report topic, while wait_ready waits for it.
    const size_t bad_headers = log.count("Unable to decode the header.");
    peer.publish("system/ipc/subscriptions", garbage, 1, true);
    auto ready = std::async(std::launch::async, [&] { return c->wait_ready(10s); });
    ASSERT_TRUE(log.wait_for("Unable to decode the header.", bad_headers + 1));
    peer.publish("system/ipc/subscriptions", truncated, 1);
    ASSERT_TRUE(log.wait_for("Unable to deserialize protobuf", 2));
    ScriptedIpcd ipcd(broker.host(), broker.port());
    ASSERT_TRUE(ipcd.wait_ready());
    ipcd.confirm("rt/m");
    EXPECT_TRUE(ready.get());

    // Still working.
    peer.publish("in/data", frame, 1);
    EXPECT_TRUE(wait_until([&] { return decoded == 2; }));
}

TEST_F(MqttClientTest, BlockingCallsAreRefusedOnTheNetworkThreadOnly) {
    LogCapture log;
    std::mutex mutex;
    std::condition_variable cv;
    std::string answer;
    // From inside an observer: on the network thread, ready (nothing to wait for), not
    // acknowledged, refused; then, with a real-time topic unconfirmed, not ready.
    std::promise<std::vector<int>> inside_results;
    std::promise<bool> unready_wait;
    std::atomic<int> calls{0};
    auto c = client("nt-check");
    const auto module = logging::module("tavi.test");
    // A request the way a feature client makes it: publish, then wait for the answer.
    const auto request = [&](const std::string& topic, std::chrono::milliseconds timeout,
                             const std::function<bool()>& answered) {
        std::unique_lock<std::mutex> lock(mutex);
        return _internal::publish_and_wait(*c, module, "request()", topic, text_message("q"), lock,
                                           cv, std::chrono::steady_clock::now() + timeout,
                                           answered);
    };
    auto inside = std::make_shared<Recorder>([&](const std::string&, const Message&) {
        if (calls++ > 0) {
            unready_wait.set_value(c->wait_ready(1s));
            return;
        }
        inside_results.set_value({c->is_network_thread(), c->wait_ready(1s),
                                  c->publish_wait_ack("nt/x", text_message("x", 1), 1s),
                                  static_cast<int>(request("nt/void", 1s, [] { return false; }))});
    });
    // The client hears its own request on "nt/req" and takes it as the answer.
    auto echo = std::make_shared<Recorder>([&](const std::string&, const Message& message) {
        std::lock_guard<std::mutex> lock(mutex);
        answer.assign(message.get_data().begin(), message.get_data().end());
        cv.notify_all();
    });
    c->subscribe("nt/in", 0, inside);
    c->subscribe("nt/req", 1, echo);
    ASSERT_TRUE(ready(*c));

    EXPECT_FALSE(c->is_network_thread());
    EXPECT_EQ(request("nt/req", 5s, [&] { return !answer.empty(); }),
              _internal::SyncStatus::ANSWERED);
    EXPECT_EQ(answer, "q");
    // Nobody answers on this topic; a short deadline proves the time-out.
    EXPECT_EQ(request("nt/void", 100ms, [] { return false; }), _internal::SyncStatus::TIMED_OUT);

    c->publish("nt/in", text_message("go"));
    auto results = inside_results.get_future();
    ASSERT_EQ(results.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(results.get(), (std::vector<int>{true, true, false,
                                               static_cast<int>(_internal::SyncStatus::REFUSED)}));
    const std::string refused_wait =
        "wait_ready called on the transport's network thread (inside an observer): the "
        "answer could never arrive, refusing to wait.";
    EXPECT_FALSE(log.contains(refused_wait));
    log.expect({"[ERROR]: [tavi.test] request() called on the transport's network thread"});

    c->subscribe("rt/nt/unconfirmed", 0, inside);
    c->publish("nt/in", text_message("again"));
    auto unready = unready_wait.get_future();
    ASSERT_EQ(unready.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(unready.get());
    EXPECT_TRUE(log.contains(refused_wait));
}

TEST_F(MqttClientTest, WillIsSentWhenTheConnectionDiesUnlessCleared) {
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.subscribe("will/#", 1));
    const std::string helper =
        std::string(MQTTCLIENT_WILL_HELPER) + " " + std::to_string(broker.port()) + " ";
    ASSERT_EQ(std::system((helper + "will/cleared bye clear").c_str()), 0);
    ASSERT_EQ(std::system((helper + "will/set bye set").c_str()), 0);
    ASSERT_TRUE(peer.wait_for("will/set"));
    EXPECT_EQ(peer.received().back().payload, "bye");
    // The broker handles both connections in order, so the first would be here by now.
    EXPECT_EQ(peer.count("will/cleared"), 0u);
}

TEST(MqttClientConfig, BadPortKeepsTheDefaultsAndBadTlsOrWillSettingsFail) {
    LogCapture log;
    auto c = make_client(
        "client_name = cfg\nhost = 127.0.0.1\nport = not-a-number\nkeepalive = 30\n"
        "mqtt_version = 5\ntls.enable = true\ntls.cafile = /nonexistent/ca.crt\n"
        "tls.key.pwd = hush-hush\n");
    EXPECT_FALSE(c->connect());
    EXPECT_FALSE(c->set_will("will/x", Message()));
    log.expect({"[ERROR]: [tavi.com.mqttclient] No data has been set in Message instance\n",
                "[ERROR]: [tavi.com.mqttclient] Invalid MQTT version specified '5'. "
                "Using default.\n",
                "Successfully set MQTT version to 3 for MQTT broker at 127.0.0.1:1883\n",
                "[ERROR]: [tavi.com.mqttclient] Unable to setup TLS, reason["});
    EXPECT_FALSE(log.contains("hush-hush"));
}

}  // namespace
}  // namespace ecu::tavi::com
