#include "ecu/tavi/com/client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ecu/tavi/logging/logging.h"
#include "support/client_fixture.h"

namespace ecu::tavi::com {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Nothing connects here: the transport is only built, so no broker is needed.
std::unique_ptr<config::Configuration> configuration(const std::string& extra) {
    return test::app_config("client_name = factory-app\nhost = 127.0.0.1\n" + extra);
}

class ClientFactoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        logging::_internal::reset_modules();
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
    }

    // Whether create_client attached a remote log control, told by the line it logs.
    bool creates_log_control(const std::string& extra) {
        auto config = configuration(extra);
        test::StdoutCapture capture;
        auto client = create_client(config, MQTT);
        EXPECT_NE(nullptr, client);
        return capture.text().find("Remote Log Control initialized for factory-app") !=
               std::string::npos;
    }
};

TEST_F(ClientFactoryTest, UnsupportedTransportTypeIsRefused) {
    auto config = configuration("");
    test::StdoutCapture capture;
    EXPECT_EQ(nullptr, create_client(config, static_cast<TransportType>(1)));
    EXPECT_EQ(nullptr, create_client(config, static_cast<TransportType>(-3)));
    EXPECT_EQ(
        "[ERROR]: [tavi.com.client] ProtocolType 1 for creating TransportClient not used - "
        "unable to proccedd\n"
        "[ERROR]: [tavi.com.client] ProtocolType -3 for creating TransportClient not used - "
        "unable to proccedd\n",
        capture.text());
}

TEST_F(ClientFactoryTest, RemoteLogControlIsDisabledOnlyByExactlyTrue) {
    EXPECT_TRUE(creates_log_control(""));
    EXPECT_FALSE(creates_log_control("disable_remote_log_ctrl = true\n"));
    EXPECT_TRUE(creates_log_control("disable_remote_log_ctrl = TRUE\n"));
    EXPECT_TRUE(creates_log_control("disable_remote_log_ctrl = yes\n"));
    EXPECT_TRUE(creates_log_control("disable_remote_log_ctrl = 1\n"));

    // The bare MQTT transport never has one.
    auto config = configuration("");
    test::StdoutCapture capture;
    EXPECT_NE(nullptr, create_mqtt_client(config));
    EXPECT_THAT(capture.text(), Not(HasSubstr("Remote Log Control initialized")));
}

}  // namespace
}  // namespace ecu::tavi::com
