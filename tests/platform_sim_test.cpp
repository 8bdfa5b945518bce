// The four platform service clients against the simulator's services, as an application
// developer runs them off the unit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>

#include "ecu/tavi/bt/bluetooth.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/platform/bootflags.h"
#include "ecu/tavi/sim/testkit.h"
#include "ecu/tavi/var/sysparams.h"
#include "ecu/tavi/var/variables.h"
#include "support/capture.h"

namespace ecu::tavi::sim {
namespace {

using namespace std::chrono_literals;
using test::wait_until;
using Flags = platform::BootFlagsClient;

const char* const kUnit =
    "unit.hostname = tele-test\n"
    "var.hwversion = vcm\n"
    "var.vin = WDB123\n"
    "sysparam.1.interval = 60\n"
    "sysparam.2.pin = 4711\n"
    "sysparam.locked = 2\n"
    "bootflags.current_bank = 0\n"
    "bootflags.bank0_valid = true\n"
    "bootflags.bank1_valid = true\n"
    "bootflags.boot_counter = 4\n"
    "bt.scan_interval_ms = 50\n"
    "bt.device.00:1a:7d:da:71:13 = phone, -58\n";

class Devices : public bt::IDiscoveryObserver {
public:
    void discovery_result(const bt::DiscoveryResult& result) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_last = result;
    }
    bt::DiscoveryResult last() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_last;
    }

private:
    std::mutex m_mutex;
    bt::DiscoveryResult m_last;
};

class PlatformSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        ASSERT_TRUE(m_kit.start()) << m_kit.error();
        auto configuration = m_kit.client_configuration("platform-e2e");
        m_app = com::create_client(configuration, com::MQTT);
        ASSERT_TRUE(m_app->connect());
        m_app->start();
    }
    void TearDown() override {
        if (m_app) {
            m_app->stop();
        }
    }

    TestKit m_kit{{kUnit, ""}};
    std::shared_ptr<com::ITransportClient> m_app;
};

TEST_F(PlatformSimTest, VariablesAreReadAndFollowTheUnit) {
    auto vars = var::create_var_client(m_app);
    EXPECT_EQ("vcm", vars->get("hwversion", "", 5000));
    EXPECT_EQ("none", vars->get("missing", "none", 100));
    ASSERT_TRUE(m_kit.simulator().set_unit_value("var.vin", "WDB999"));
    EXPECT_TRUE(wait_until([&] { return vars->get("vin", "", 5000) == "WDB999"; }));
}

TEST_F(PlatformSimTest, SystemParameterWritesAreVerified) {
    auto params = var::create_sysparams_client(m_app);
    EXPECT_EQ("60", params->get(1, false).second.value());
    EXPECT_EQ("interval", params->get(1, false).second.name());

    auto changed = params->get_all(false);
    changed[1].set_value("30");
    params->set_all(changed);
    EXPECT_EQ(var::SysParamsClient::WRITTEN, params->write().status);
    EXPECT_EQ("30", params->get(1, true).second.value());

    changed = params->get_all(false);
    changed[2].set_value("0000");
    params->set_all(changed);
    const auto result = params->write();
    EXPECT_EQ(var::SysParamsClient::NOT_ALL_WRITTEN, result.status);
    EXPECT_EQ(1u, result.unverified.count(2));
}

TEST_F(PlatformSimTest, BootBanksAreShownAndSwitched) {
    auto flags = platform::create_boot_flags_client(m_app);
    EXPECT_EQ(
        "bank 0 selected (running), bank 0 valid, bank 1 valid, boot counter at 4, bank "
        "switch cause Never switched, boot mode Normal",
        [&] {
            flags->current_bank();
            return flags->boot_flags_string(false);
        }());
    EXPECT_EQ(Flags::SET_SUCCESSFUL, flags->switch_bank(Flags::CAUSE_TAVI_2));
    EXPECT_EQ(Flags::BOOT_BANK_1, flags->selected_bank().second);
    EXPECT_EQ(Flags::BOOT_BANK_0, flags->current_bank().second);
    EXPECT_EQ(Flags::SET_SUCCESSFUL, flags->set_boot_bank_valid(Flags::BOOT_BANK_0, false));
    EXPECT_EQ(std::make_pair(true, false), flags->boot_bank_valid(Flags::BOOT_BANK_0));
}

TEST_F(PlatformSimTest, DiscoveryFindsTheUnitsDevices) {
    auto client = bt::create_bt_client(m_app);
    EXPECT_TRUE(client->available());
    EXPECT_TRUE(client->operational());
    auto devices = std::make_shared<Devices>();
    auto discovery = client->discovery_manager();
    discovery->register_observer(devices);
    ASSERT_TRUE(discovery->start_scan());
    ASSERT_TRUE(wait_until([&] { return devices->last().devices().size() == 1; }));
    const auto found = devices->last();
    EXPECT_EQ("00:1a:7d:da:71:13", found.devices()[0].address());
    EXPECT_EQ("phone", found.devices()[0].name());
    EXPECT_EQ(-58, found.devices()[0].rssi());
    EXPECT_TRUE(discovery->stop_scan());

    // A service that is not operational refuses to scan.
    ASSERT_TRUE(m_kit.simulator().set_unit_value("bt.status", "available"));
    EXPECT_FALSE(discovery->start_scan());
}

}  // namespace
}  // namespace ecu::tavi::sim
