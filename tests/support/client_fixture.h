// The fixture of every feature client's tests, with its helpers: an application's transport
// on the test broker, an observer that runs a call on the network thread, and a scripted
// platform daemon.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "support/broker.h"
#include "support/capture.h"
#include "support/mqtt_peer.h"

namespace ecu::tavi::test {

// An application's configuration from its text, verified.
inline std::unique_ptr<config::Configuration> app_config(const std::string& config_text) {
    std::istringstream text(config_text);
    auto config = config::Configuration::create_from_input(text);
    EXPECT_TRUE(config->verify());
    return config;
}

// An application's transport with this configuration, not connected yet, so that clients
// made on it subscribe before start().
inline std::shared_ptr<com::ITransportClient> app_transport(const std::string& config_text) {
    auto config = app_config(config_text);
    return com::create_mqtt_client(config);
}

// A host name file naming the TPA partition, for _internal::ScopedOverrides.
inline const char* tpa_hostname() {
    static const std::string path = ::testing::TempDir() + "tpa-hostname";
    std::ofstream(path) << "ecu-tpa\n";
    return path.c_str();
}

// Connects, starts and waits until every subscription is acknowledged.
inline bool start_app(com::ITransportClient& transport) {
    if (!transport.connect()) {
        return false;
    }
    transport.start();
    return transport.wait_ready(std::chrono::seconds(10));
}

// Runs a call on the transport's network thread for every message, as an application's
// observer would.
class CallInside : public com::ISubscriptionObserver {
public:
    explicit CallInside(std::function<void()> call) : m_call(std::move(call)) {}
    void message(const std::string&, const com::Message&) override { m_call(); }

private:
    std::function<void()> m_call;
};

// Decodes every framed request of type Req arriving on a topic filter, keeps it, and
// publishes the replies its script returns for it. The script runs on the peer's network
// thread and may be replaced at any time.
template <typename Req>
class ScriptedDaemon {
public:
    struct Reply {
        std::string topic;
        com::Message message;
    };
    using Script = std::function<std::vector<Reply>(const std::string& topic, const Req&)>;

    ScriptedDaemon(const Broker& broker, const std::string& filter, std::uint32_t protocol)
        : m_adapter(protocol), m_peer(broker.host(), broker.port()) {
        m_peer.set_handler([this](const MqttPeer::Received& received) { handle(received); });
        m_peer.subscribe(filter, 1);
    }

    void set_script(Script script) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_script = std::move(script);
    }
    // Requests received so far, decoded, with their topics.
    std::vector<std::pair<std::string, Req>> requests() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    bool wait_requests(size_t count) {
        return wait_until([&] { return requests().size() >= count; });
    }
    // Frames a reply with the daemon's protocol type.
    template <typename Body>
    Reply reply(const std::string& topic, const Body& body) const {
        auto framed =
            com::PbInternalMessageAdapter<Body>(m_adapter.protocol_type()).serialize(body);
        return {topic, framed.value()};
    }
    MqttPeer& peer() { return m_peer; }

private:
    void handle(const MqttPeer::Received& received) {
        auto request =
            m_adapter.deserialize(com::Message(received.payload.data(), received.payload.size()));
        if (!request) {
            return;
        }
        Script script;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.emplace_back(received.topic, request.value());
            script = m_script;
        }
        if (!script) {
            return;
        }
        for (const auto& reply : script(received.topic, request.value())) {
            m_peer.publish(reply.topic, reply.message.get_data(), 1);
        }
    }

    com::PbInternalMessageAdapter<Req> m_adapter;
    std::mutex m_mutex;
    Script m_script;
    std::vector<std::pair<std::string, Req>> m_requests;
    // Last, so that its thread has ended before the rest goes.
    MqttPeer m_peer;
};

// Fixture of a feature client's tests: the broker, log lines (every level, every module)
// captured from standard output, a plain peer to play the platform's side, and the
// application's transport. A derived fixture creates its client in make_client(), before
// the transport starts, and lets it go in drop_client(), before the transport stops.
class ClientTest : public ::testing::Test {
protected:
    explicit ClientTest(std::string app) : m_app(std::move(app)) {}

    virtual void make_client() {}
    virtual void drop_client() {}
    virtual std::shared_ptr<com::ITransportClient> make_transport() {
        return app_transport(m_broker.client_config(m_app));
    }

    void SetUp() override {
        if (!Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        ASSERT_TRUE(m_broker.start());
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable_all();
        m_capture = std::make_unique<StdoutCapture>();
        m_peer = std::make_unique<MqttPeer>(m_broker.host(), m_broker.port());
        ASSERT_TRUE(m_peer->wait_connected());
        m_transport = make_transport();
        make_client();
        ASSERT_TRUE(start_app(*m_transport));
    }
    void TearDown() override {
        // The peer's handler may use members of the derived fixture: it stops first.
        m_peer.reset();
        drop_client();
        if (m_transport) {
            m_transport->stop();
        }
    }

    // Frames body as the platform would and publishes it from the peer.
    template <typename T>
    void publish(const std::string& topic, const T& body, std::uint32_t protocol,
                 bool retain = false) {
        auto framed = com::PbInternalMessageAdapter<T>(protocol).serialize(body);
        ASSERT_TRUE(framed.has_value());
        ASSERT_EQ(0, m_peer->publish(topic, framed.value().get_data(), 0, retain));
    }
    // Unframes a payload the peer received.
    template <typename T>
    static T parse(const std::string& payload) {
        auto body = com::PbInternalMessageAdapter<T>(1).deserialize(
            com::Message(payload.data(), payload.size()));
        EXPECT_TRUE(body.has_value());
        return body ? body.value() : T();
    }

    // Runs call on the transport's network thread, as an application's observer would, and
    // waits until it has returned.
    bool run_inside(std::function<void()> call) {
        auto done = std::make_shared<std::atomic<bool>>(false);
        auto observer = std::make_shared<CallInside>([call, done] {
            call();
            *done = true;
        });
        m_transport->subscribe("test/inside", 1, observer);
        const bool ran = m_transport->wait_ready(std::chrono::seconds(10)) &&
                         m_peer->publish("test/inside", std::string("go"), 1) == 0 &&
                         wait_until([&] { return done->load(); });
        m_transport->unsubscribe("test/inside", observer);
        return ran;
    }

    std::string log() { return m_capture->text(); }
    void expect_logged(std::initializer_list<std::string> lines) {
        const std::string text = log();
        for (const auto& line : lines) {
            EXPECT_NE(text.find(line), std::string::npos) << "not logged: " << line;
        }
    }
    bool logged(const std::string& text) {
        return wait_until([&] { return log().find(text) != std::string::npos; });
    }

    std::string m_app;
    Broker m_broker;
    std::unique_ptr<StdoutCapture> m_capture;
    std::unique_ptr<MqttPeer> m_peer;
    std::shared_ptr<com::ITransportClient> m_transport;
};

}  // namespace ecu::tavi::test
