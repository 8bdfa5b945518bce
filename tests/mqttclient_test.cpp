// The MQTT transport against a real mosquitto started per test on free loopback ports, with
// plain libmosquitto peers and a scripted IPC daemon on the other side.
#include "mqttclient.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
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

std::unique_ptr<config::Configuration> make_config(const std::string& text) {
    std::istringstream in(text);
    auto config = config::Configuration::create_from_input(in);
    EXPECT_TRUE(config->verify());
    return config;
}

Message text_message(const std::string& text, uint8_t qos = 0) {
    Message message(text.data(), text.size());
    message.set_qos(qos);
    return message;
}

size_t thread_count() {
    size_t count = 0;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir)) {
            count += entry->d_name[0] != '.';
        }
        ::closedir(dir);
    }
    return count;
}

// All log output of the test at DEBUG level, captured from standard output.
class LogCapture {
public:
    LogCapture() {
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable("tavi.com", true);
    }
    std::string text() { return m_capture.text(); }
    bool contains(const std::string& needle) { return text().find(needle) != std::string::npos; }
    size_t count(const std::string& needle) {
        const std::string all = text();
        size_t n = 0;
        for (size_t at = all.find(needle); at != std::string::npos; at = all.find(needle, at + 1)) {
            ++n;
        }
        return n;
    }
    bool wait_for(const std::string& needle, size_t times = 1) {
        return wait_until([&] { return count(needle) >= times; });
    }

private:
    test::StdoutCapture m_capture;
};

// Records what it receives (topic and payload) and can run a hook on the network thread.
class Recorder : public ISubscriptionObserver {
public:
    using Hook = std::function<void(const std::string&, const Message&)>;
    explicit Recorder(std::string name = "", std::shared_ptr<std::vector<std::string>> journal = {})
        : m_name(std::move(name)), m_journal(std::move(journal)) {}

    void message(const std::string& topic, const Message& message) override {
        Hook hook;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            const auto& data = message.get_data();
            m_received.emplace_back(topic, std::string(data.begin(), data.end()));
            if (m_journal) {
                std::lock_guard<std::mutex> journal_lock(journal_mutex());
                m_journal->push_back(m_name + ":" + topic);
            }
            hook = m_hook;
        }
        if (hook) {
            hook(topic, message);
        }
    }
    void on_message(Hook hook) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_hook = std::move(hook);
    }
    size_t count(const std::string& topic = "") {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const auto& [t, payload] : m_received) {
            n += topic.empty() || t == topic;
        }
        return n;
    }
    std::vector<std::pair<std::string, std::string>> received() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

    // Guards the journals shared by several recorders.
    static std::mutex& journal_mutex() {
        static std::mutex mutex;
        return mutex;
    }

private:
    std::string m_name;
    std::shared_ptr<std::vector<std::string>> m_journal;
    std::mutex m_mutex;
    std::vector<std::pair<std::string, std::string>> m_received;
    Hook m_hook;
};

class ConnectionRecorder : public IConnectionObserver {
public:
    explicit ConnectionRecorder(bool throws = false) : m_throws(throws) {}
    void on_connect(int rc) override {
        (rc == 0 ? connected : refused)++;
        if (m_throws) {
            throw std::runtime_error("connection observer failure");
        }
    }
    void on_disconnect(int rc) override { (rc == 0 ? clean : lost)++; }
    std::atomic<int> connected{0}, refused{0}, clean{0}, lost{0};

private:
    bool m_throws;
};

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
        auto config = make_config(broker.client_config(name) + extra);
        return std::make_shared<MqttClient>(config);
    }
    std::string at() const { return "127.0.0.1:" + std::to_string(broker.port()); }

    Broker broker;
};

TEST_F(MqttClientTest, ConnectsPublishesAndRewritesRealTimeTopics) {
    LogCapture log;
    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.subscribe("#", 1));

    auto c = client("conn-test", "mqtt_version = 3.1.1\n");
    auto observer = std::make_shared<ConnectionRecorder>();
    c->add_connection_observer(std::make_shared<ConnectionRecorder>(true));  // throws
    c->add_connection_observer(observer);
    EXPECT_FALSE(c->isConnected());
    ASSERT_TRUE(c->connect());
    EXPECT_TRUE(c->isConnected());
    EXPECT_TRUE(log.contains("Successfully set MQTT version to 4 for MQTT broker at " + at()));
    EXPECT_TRUE(log.contains("Successfully set username='' and password='' for MQTT broker"));
    EXPECT_TRUE(log.contains("Connection successfully established with MQTT broker at " + at()));
    // The throwing observer did not keep the next one from being told.
    EXPECT_TRUE(wait_until([&] { return observer->connected == 1; }));
    EXPECT_TRUE(log.contains("Exception in on_connect: connection observer failure (ignored)"));

    // A second connect() starts nothing.
    EXPECT_TRUE(c->connect());
    EXPECT_TRUE(
        log.contains("Tried to start the ITransportClient for " + at() + " twice! Not allowed!"));

    const std::string binary("a\0b\xff", 4);
    EXPECT_EQ(c->publish("plain/topic", text_message(binary, 1)), 0);
    EXPECT_EQ(c->publish("rt/speed", text_message("rt")), 0);
    Message retained = text_message("kept", 1);
    retained.set_retain(true);
    EXPECT_EQ(c->publish("plain/retained", retained), 0);
    ASSERT_TRUE(peer.wait_for("plain/retained"));
    EXPECT_EQ(peer.count("rt/speed"), 0u);
    EXPECT_EQ(peer.count("rttx/speed"), 1u);
    EXPECT_TRUE(log.contains("Changing RT topic from 'rt/speed' to 'rttx/speed'"));
    for (const auto& received : peer.received()) {
        if (received.topic == "plain/topic") {
            EXPECT_EQ(received.payload, binary);
            EXPECT_EQ(received.qos, 1);
        }
    }
    MqttPeer late(broker.host(), broker.port());
    ASSERT_TRUE(late.subscribe("plain/retained"));
    ASSERT_TRUE(late.wait_for("plain/retained"));
    EXPECT_TRUE(late.received().at(0).retain);

    // Only IPCd itself publishes on "rt/".
    auto ipcd = client("ipcd");
    ASSERT_TRUE(ipcd->connect());
    EXPECT_EQ(ipcd->publish("rt/speed", text_message("relay")), 0);
    EXPECT_TRUE(peer.wait_for("rt/speed"));
    ipcd->stop();

    c->stop();
    EXPECT_FALSE(c->isConnected());
    EXPECT_EQ(observer->clean, 1);
    EXPECT_TRUE(log.contains("Successfully disconnected from MQTT broker at " + at()));
    EXPECT_TRUE(log.contains("MQTT client loop for " + at() + " stopped with a clean exit."));
}

TEST_F(MqttClientTest, DispatchPrefersTheExactTopicAndOtherwiseWalksTheFiltersInKeyOrder) {
    auto journal = std::make_shared<std::vector<std::string>>();
    auto exact = std::make_shared<Recorder>("exact", journal);
    auto exact2 = std::make_shared<Recorder>("exact2", journal);
    auto plus = std::make_shared<Recorder>("plus", journal);
    auto hash = std::make_shared<Recorder>("hash", journal);
    auto a_hash = std::make_shared<Recorder>("a_hash", journal);
    auto c = client("dispatch");
    c->subscribe("a/+", 0, plus);
    c->subscribe("#", 0, hash);
    c->subscribe("a/#", 0, a_hash);
    c->subscribe("a/b", 0, exact);
    c->subscribe("a/b", 0, exact2);
    c->subscribe("a/b", 0, exact);  // twice: called twice, in order of subscription
    ASSERT_TRUE(c->connect());
    c->start();
    ASSERT_TRUE(c->wait_ready(5s));

    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    peer.publish("a/b", std::string("1"));
    peer.publish("a/c", std::string("2"));
    peer.publish("z", std::string("3"));
    ASSERT_TRUE(wait_until([&] { return hash->count("z") == 1; }));
    std::lock_guard<std::mutex> lock(Recorder::journal_mutex());
    EXPECT_EQ(*journal, (std::vector<std::string>{"exact:a/b", "exact2:a/b", "exact:a/b",
                                                  "hash:a/c", "a_hash:a/c", "plus:a/c", "hash:z"}));
}

TEST_F(MqttClientTest, SubscriptionChangesInsideMessageTakeEffectAfterTheDispatch) {
    auto c = client("deferred");
    auto a = std::make_shared<Recorder>();
    auto b = std::make_shared<Recorder>();
    auto late = std::make_shared<Recorder>();
    auto fresh = std::make_shared<Recorder>();
    std::weak_ptr<Recorder> weak_a = a;
    MqttClient* raw = c.get();
    a->on_message([=](const std::string&, const Message&) {
        raw->unsubscribe("d/t", weak_a.lock());
        raw->subscribe("d/t", 0, late);
        raw->subscribe("d/new", 0, fresh);
    });
    c->subscribe("d/t", 0, a);
    c->subscribe("d/t", 0, b);
    ASSERT_TRUE(c->connect());
    c->start();
    ASSERT_TRUE(c->wait_ready(5s));

    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    peer.publish("d/t", std::string("1"));
    ASSERT_TRUE(wait_until([&] { return b->count() == 1; }));
    EXPECT_EQ(a->count(), 1u);
    EXPECT_EQ(late->count(), 0u);  // added during the dispatch: not part of it

    // The topic subscribed from inside the callback reached the broker afterwards.
    EXPECT_TRUE(wait_until([&] {
        peer.publish("d/new", std::string("n"));
        return fresh->count() > 0;
    }));
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
    EXPECT_EQ(log.count("Successfully (re)subscribed to topic app/x"), 0u);

    c->start();
    ASSERT_TRUE(c->wait_ready(5s));
    EXPECT_TRUE(c->is_ready());
    EXPECT_TRUE(log.contains("is_ready: true, all is subscribed and all is announced"));
    EXPECT_TRUE(wait_until([&] {
        peer.publish("app/x", std::string("x"));
        return rec->count("app/x") > 0;
    }));

    // A second observer with the same or a lower QoS needs no new SUBSCRIBE; a higher one does.
    const std::string sent = "Successfully (re)subscribed to topic app/x with mid=";
    ASSERT_EQ(log.count(sent), 1u);
    c->subscribe("app/x", 1, std::make_shared<Recorder>());
    c->subscribe("app/x", 0, std::make_shared<Recorder>());
    EXPECT_EQ(log.count(sent), 1u);
    c->subscribe("app/x", 2, std::make_shared<Recorder>());
    EXPECT_EQ(log.count(sent), 2u);

    // Without any subscription a client is ready once started and connected.
    auto empty = client("no-subs");
    ASSERT_TRUE(empty->connect());
    empty->start();
    EXPECT_TRUE(empty->wait_ready(5s));
}

TEST_F(MqttClientTest, WaitReadyWaitsForIpcdToConfirmTheRealTimeTopics) {
    LogCapture log;
    ScriptedIpcd ipcd(broker.host(), broker.port());
    ASSERT_TRUE(ipcd.wait_ready());
    auto c = client("rt-app");
    auto rec = std::make_shared<Recorder>();
    c->subscribe("rt/speed", 0, rec);
    c->subscribe("rt/rpm", 0, rec);
    c->subscribe("plain/t", 0, rec);
    ASSERT_TRUE(c->connect());
    c->start();
    ASSERT_TRUE(c->wait_ready(5s));
    EXPECT_TRUE(c->is_ready());

    auto announced = ipcd.announcements();
    std::sort(announced.begin(), announced.end());
    EXPECT_EQ(announced, (std::vector<std::pair<std::string, std::string>>{
                             {"rt-app", "rt/rpm"}, {"rt-app", "rt/speed"}}));
    EXPECT_EQ(ipcd.bad_announcements(), 0u);
    EXPECT_EQ(log.count("Creating observer and subscribing"), 1u);
    EXPECT_EQ(log.count("Remove observer and unsubscribe"), 1u);
    EXPECT_TRUE(log.contains("subscribed topic rt/speed is now active in IPCd subscriptions list"));
    EXPECT_TRUE(log.contains(" available RT topics"));
}

TEST_F(MqttClientTest, WaitReadyTimesOutOnUnconfirmedTopicsNamesThemAndReusesTheObserver) {
    LogCapture log;
    ScriptedIpcd ipcd(broker.host(), broker.port());
    ASSERT_TRUE(ipcd.wait_ready());
    auto c = client("unconfirmed");
    auto rec = std::make_shared<Recorder>();
    std::vector<std::string> never;
    for (int i = 0; i < 12; ++i) {
        never.push_back((i < 10 ? "rt/n0" : "rt/n") + std::to_string(i));
        ipcd.ignore(never.back());
        c->subscribe(never.back(), 0, rec);
    }
    c->subscribe("rt/fine", 0, rec);
    c->subscribe("bad/#/filter", 0, rec);  // refused locally: never acknowledged
    ASSERT_TRUE(c->connect());
    c->start();

    EXPECT_FALSE(c->wait_ready(1s));
    EXPECT_TRUE(log.contains("Failed to (re)subscribe to topic bad/#/filter [3] "));
    EXPECT_TRUE(log.contains(
        "[NOTICE]: [tavi.com.mqttclient] wait_ready timed out waiting for subscriptions\n"
        "[NOTICE]: [tavi.com.mqttclient] Topics not acknowledged by the broker: "
        "'bad/#/filter'; real-time topics not confirmed by IPCd: 'rt/n00', 'rt/n01', "
        "'rt/n02', 'rt/n03', 'rt/n04', 'rt/n05', 'rt/n06', 'rt/n07', 'rt/n08', 'rt/n09' "
        "and 2 more\n"))
        << log.text();
    EXPECT_FALSE(c->is_ready());

    // The IPCd observer stays subscribed after the time-out and serves the next wait.
    c->unsubscribe("bad/#/filter", rec);
    for (const auto& topic : never) {
        ipcd.confirm(topic);
    }
    EXPECT_TRUE(c->wait_ready(5s));
    EXPECT_EQ(log.count("Creating observer and subscribing"), 1u);
    EXPECT_EQ(log.count("Remove observer and unsubscribe"), 1u);
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
    ASSERT_TRUE(c->connect());
    c->start();
    ASSERT_TRUE(c->wait_ready(10s));

    for (int round = 0; round < 20; ++round) {
        broker.kill();
        ASSERT_TRUE(wait_until([&] { return !c->isConnected(); })) << round;
        ASSERT_TRUE(broker.start()) << broker.error();
        ASSERT_TRUE(c->wait_ready(10s)) << round;
        for (const auto& topic : topics) {
            const size_t before = rec->count(topic);
            ASSERT_TRUE(wait_until([&] {
                peer.publish(topic, std::string("r"));
                return rec->count(topic) > before;
            })) << topic
                << " in round " << round;
        }
    }
    EXPECT_EQ(connection->connected, 21);
    EXPECT_EQ(connection->lost, 20);
    c->stop();
    EXPECT_EQ(connection->clean, 1);
    EXPECT_EQ(thread_count(), threads_before);
}

TEST_F(MqttClientTest, PublishWaitAckIsTrueWhenAcknowledgedAndTimesOutWhileTheBrokerIsPaused) {
    LogCapture log;
    auto c = client("ack");
    ASSERT_TRUE(c->connect());
    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("1", 1), 5s));

    broker.pause();
    EXPECT_FALSE(c->publish_wait_ack("ack/t", text_message("2", 1), 1s));
    EXPECT_TRUE(log.contains(" timeout while waiting for acknowledgment"));
    broker.resume();
    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("3", 1), 5s));
    EXPECT_TRUE(log.contains(" published and acknowledged successfully"));

    EXPECT_TRUE(c->publish_wait_ack("ack/t", text_message("4", 0), 5s));
    EXPECT_TRUE(
        log.contains("Incorrect use of MqttClient::publish_wait_ack with message QoS:0 "
                     "does not have the desired effect!"));
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
    const auto tls_config = [&](const std::string& name, const std::string& ca) {
        return make_config("client_name = " + name + "\nhost = 127.0.0.1\nport = " +
                           std::to_string(secure.tls_port()) + "\ntls.enable = true\n" +
                           "tls.cafile = " + ca + "\ntls.certfile = " + tls.client_cert +
                           "\ntls.keyfile = " + tls.client_key +
                           "\ntls.key.pwd = " + tls.client_key_password + "\n");
    };

    // Client certificate with an encrypted key: connects, and traffic flows.
    MqttPeer peer(secure.host(), secure.port());
    ASSERT_TRUE(peer.subscribe("tls/t"));
    auto good_config = tls_config("tls-good", tls.ca_cert);
    MqttClient good(good_config);
    ASSERT_TRUE(good.connect());
    EXPECT_EQ(good.publish("tls/t", text_message("secure")), 0);
    EXPECT_TRUE(peer.wait_for("tls/t"));
    good.stop();

    // A broker certificate from another CA is refused.
    auto wrong_ca_config = tls_config("tls-wrong-ca", tls.other_ca_cert);
    MqttClient wrong_ca(wrong_ca_config);
    wrong_ca.start();
    const std::string tls_at = "127.0.0.1:" + std::to_string(secure.tls_port());
    EXPECT_TRUE(log.wait_for("MQTT client loop for " + tls_at + " returned [8] "));
    EXPECT_FALSE(wrong_ca.isConnected());
    wrong_ca.stop();

    // Password listener: the wrong password is refused by the broker, the right one works.
    const std::string pw_base =
        "host = 127.0.0.1\nport = " + std::to_string(secure.password_port()) +
        "\nlogin_username = " + Broker::password_user() + "\n";
    const std::string wrong_password = "not-" + Broker::password_secret();
    auto refused_config =
        make_config("client_name = pw-bad\n" + pw_base + "login_password = " + wrong_password);
    MqttClient refused(refused_config);
    refused.start();
    const std::string pw_at = "127.0.0.1:" + std::to_string(secure.password_port());
    EXPECT_TRUE(log.wait_for("Failed to connect to MQTT broker at " + pw_at + " [5] "));
    EXPECT_FALSE(refused.isConnected());
    refused.stop();

    auto login_config = make_config("client_name = pw-good\n" + pw_base +
                                    "login_password = " + Broker::password_secret());
    MqttClient login(login_config);
    ASSERT_TRUE(login.connect());
    login.stop();

    const std::string text = log.text();
    EXPECT_NE(text.find("Successfully set username='tavi-user' and password='***' for MQTT "
                        "broker at " +
                        pw_at),
              std::string::npos);
    EXPECT_EQ(text.find(tls.client_key_password), std::string::npos);
    EXPECT_EQ(text.find(Broker::password_secret()), std::string::npos);
    EXPECT_EQ(text.find(wrong_password), std::string::npos);
}

// Decodes what it receives the way a feature client does.
class DecodingObserver : public ISubscriptionObserver {
public:
    void message(const std::string&, const Message& message) override {
        auto decoded = m_adapter.deserialize(message);
        ++seen;
        if (decoded && decoded.value().client_name() == "valid") {
            ++decoded_ok;
        }
    }
    std::atomic<int> seen{0}, decoded_ok{0};

private:
    PbInternalMessageAdapter<pb::SubscriptionMessage> m_adapter{PROTOCOL_SUBSCRIPTION};
};

TEST_F(MqttClientTest, MalformedPayloadsAreLoggedAndDroppedAndTheClientKeepsWorking) {
    LogCapture log;
    auto c = client("malformed");
    auto thrower = std::make_shared<Recorder>();
    thrower->on_message(
        [](const std::string&, const Message&) { throw std::runtime_error("observer failure"); });
    auto decoder = std::make_shared<DecodingObserver>();
    c->subscribe("in/data", 0, thrower);
    c->subscribe("in/data", 0, decoder);
    c->subscribe("rt/m", 0, thrower);
    ASSERT_TRUE(c->connect());
    c->start();

    pb::SubscriptionMessage valid;
    valid.set_client_name("valid");
    valid.add_topics("x");
    const PbInternalMessageAdapter<pb::SubscriptionMessage> adapter(PROTOCOL_SUBSCRIPTION);
    const auto frame = adapter.serialize(valid).value().get_data();
    const std::vector<uint8_t> truncated(frame.begin(), frame.end() - 3);
    const std::string garbage = "not a frame at all, only text";

    MqttPeer peer(broker.host(), broker.port());
    ASSERT_TRUE(peer.wait_connected());
    // QoS 1 from one peer: delivered in this order.
    peer.publish("in/data", garbage, 1);
    peer.publish("in/data", std::string(17, '\x09'), 1);
    peer.publish("in/data", truncated, 1);
    peer.publish("in/data", std::string(), 1);
    peer.publish("in/data", frame, 1);
    ASSERT_TRUE(wait_until([&] { return decoder->seen == 5; }));
    EXPECT_EQ(decoder->decoded_ok, 1);
    EXPECT_EQ(log.count("Exception in message() for topic in/data: observer failure (ignored)"),
              5u);
    EXPECT_TRUE(log.contains("Unable to decode the header."));
    EXPECT_TRUE(log.contains("Total length is smaller then expected header length"));
    EXPECT_TRUE(log.contains("Unable to deserialize protobuf"));

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
    EXPECT_TRUE(wait_until([&] { return decoder->decoded_ok == 2; }));
}

TEST_F(MqttClientTest, BlockingCallsAreRefusedOnTheNetworkThread) {
    LogCapture log;
    auto c = client("nt-check");
    const auto module = logging::module("tavi.test");
    std::atomic<bool> done{false}, on_network_thread{false}, waited{true}, acked{true};
    std::atomic<int> status{-1};
    MqttClient* raw = c.get();
    auto inside = std::make_shared<Recorder>();
    inside->on_message([&, raw](const std::string&, const Message&) {
        on_network_thread = raw->is_network_thread();
        waited = raw->wait_ready(1s);
        acked = raw->publish_wait_ack("nt/x", text_message("x", 1), 1s);
        std::mutex mutex;
        std::condition_variable cv;
        std::unique_lock<std::mutex> lock(mutex);
        status = static_cast<int>(_internal::publish_and_wait(
            *raw, module, "request()", "nt/req", text_message("q"), lock, cv,
            std::chrono::steady_clock::now() + 1s, [] { return false; }));
        done = true;
    });
    // The synchronous pattern from an application thread: an echo peer answers.
    std::mutex mutex;
    std::condition_variable cv;
    std::string answer;
    auto responses = std::make_shared<Recorder>();
    responses->on_message([&](const std::string&, const Message& message) {
        std::lock_guard<std::mutex> lock(mutex);
        answer.assign(message.get_data().begin(), message.get_data().end());
        cv.notify_all();
    });
    c->subscribe("nt/in", 0, inside);
    c->subscribe("nt/resp", 1, responses);
    ASSERT_TRUE(c->connect());
    c->start();
    ASSERT_TRUE(c->wait_ready(5s));
    EXPECT_FALSE(c->is_network_thread());

    MqttPeer peer(broker.host(), broker.port());
    peer.set_handler([&](const MqttPeer::Received& received) {
        if (received.topic == "nt/req") {
            peer.publish("nt/resp", "re:" + received.payload, 1);
        }
    });
    ASSERT_TRUE(peer.subscribe("nt/req", 1));
    peer.publish("nt/in", std::string("go"));
    ASSERT_TRUE(wait_until([&] { return done.load(); }));
    EXPECT_TRUE(on_network_thread);
    EXPECT_FALSE(waited);
    EXPECT_FALSE(acked);
    EXPECT_EQ(status, static_cast<int>(_internal::SyncStatus::REFUSED));
    EXPECT_TRUE(
        log.contains("wait_ready called on the transport's network thread (inside an "
                     "observer): the answer could never arrive, refusing to wait."));
    EXPECT_TRUE(
        log.contains("[ERROR]: [tavi.test] request() called on the transport's network "
                     "thread"));

    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_EQ(_internal::publish_and_wait(*c, module, "request()", "nt/req", text_message("q"),
                                          lock, cv, std::chrono::steady_clock::now() + 5s,
                                          [&] { return !answer.empty(); }),
              _internal::SyncStatus::ANSWERED);
    EXPECT_EQ(answer, "re:q");
    // Nobody answers on this topic; a short deadline proves the time-out.
    EXPECT_EQ(
        _internal::publish_and_wait(*c, module, "request()", "nt/void", text_message("q"), lock, cv,
                                    std::chrono::steady_clock::now() + 100ms, [] { return false; }),
        _internal::SyncStatus::TIMED_OUT);
}

TEST_F(MqttClientTest, WillIsSentWhenTheConnectionDiesUnlessCleared) {
    LogCapture log;
    auto c = client("will-check");
    EXPECT_FALSE(c->set_will("will/x", Message()));
    EXPECT_TRUE(
        log.contains("[ERROR]: [tavi.com.mqttclient] No data has been set in Message "
                     "instance"));

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

TEST(MqttClientConfig, BadPortKeepsTheDefaultsAndAFailingTlsSetupEndsConnect) {
    LogCapture log;
    auto config = make_config(
        "client_name = cfg\nhost = 127.0.0.1\nport = not-a-number\nkeepalive = 30\n"
        "mqtt_version = 5\ntls.enable = true\ntls.cafile = /nonexistent/ca.crt\n"
        "tls.key.pwd = hush-hush\n");
    MqttClient c(config);
    EXPECT_TRUE(
        log.contains("[ERROR]: [tavi.com.mqttclient] Invalid MQTT version specified '5'. "
                     "Using default.\n"));
    EXPECT_FALSE(c.connect());
    EXPECT_TRUE(
        log.contains("Successfully set MQTT version to 3 for MQTT broker at "
                     "127.0.0.1:1883\n"));
    EXPECT_TRUE(log.contains("[ERROR]: [tavi.com.mqttclient] Unable to setup TLS, reason["));
    EXPECT_FALSE(log.contains("hush-hush"));
}

}  // namespace
}  // namespace ecu::tavi::com
