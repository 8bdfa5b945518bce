// Fixture of the platform service client tests: a broker, one application transport, a
// scripted peer playing the service, and the application's log captured from standard
// output.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "support/broker.h"
#include "support/capture.h"
#include "support/mqtt_peer.h"

namespace ecu::tavi::test {

class PlatformClientTest : public ::testing::Test {
protected:
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
        std::istringstream text(m_broker.client_config(kApp));
        auto config = config::Configuration::create_from_input(text);
        ASSERT_TRUE(config->verify());
        m_app = com::create_mqtt_client(config);
        ASSERT_TRUE(m_app->connect());
        m_app->start();
    }

    void TearDown() override {
        if (m_app) {
            m_app->stop();
        }
    }

    // Frames body as the service would and publishes it from the peer.
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

    // A host name file naming the TPA partition, for _internal::ScopedOverrides.
    const char* tpa_hostname() {
        m_tpa_file = ::testing::TempDir() + "platform-hostname-tpa";
        std::ofstream(m_tpa_file) << "ecu-tpa\n";
        return m_tpa_file.c_str();
    }

    std::string log() { return m_capture->text(); }
    bool logged(const std::string& text) {
        return wait_until([&] { return log().find(text) != std::string::npos; });
    }

    static constexpr const char* kApp = "platform-app";
    Broker m_broker;
    std::unique_ptr<StdoutCapture> m_capture;
    std::unique_ptr<MqttPeer> m_peer;
    std::shared_ptr<com::ITransportClient> m_app;
    std::string m_tpa_file;
};

}  // namespace ecu::tavi::test
