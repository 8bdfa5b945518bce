#include "ecu/tavi/platform/bootflags.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "overrides.h"
#include "support/client_fixture.h"

namespace ecu::tavi::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using Client = BootFlagsClient;

// The boot loader's view, played by the peer: applies what is set and publishes the whole
// flags again, or stays silent, or echoes flags that ignore the change.
class BootFlagsTest : public test::ClientTest {
protected:
    BootFlagsTest() : ClientTest("platform-app") {}
    void make_client() override {
        m_flags.set_current_bank(pb::BootFlags::BOOT_BANK_0);
        m_flags.set_boot_bank(pb::BootFlags::BOOT_BANK_0);
        m_flags.set_bank0_valid(true);
        m_flags.set_bank1_valid(true);
        m_flags.set_boot_counter(3);
        m_flags.set_bank_switch_cause(pb::BootFlags::CAUSE_NEVER_SWITCHED);
        m_flags.set_boot_mode(pb::BootFlags::BOOT_MODE_NORMAL);
        m_peer->set_handler([this](const test::MqttPeer::Received& set) {
            if (set.topic != "system/bootflags/set" || m_silent) {
                return;
            }
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_stubborn) {
                m_flags.MergeFrom(parse<pb::BootFlags>(set.payload));
            }
            publish("system/bootflags", m_flags, com::PROTOCOL_BOOT_FLAGS);
        });
        ASSERT_TRUE(m_peer->subscribe("system/bootflags/set"));
    }

    std::shared_ptr<Client> client(int wait_ms = 5000) {
        auto flags = std::make_shared<Client>(m_transport, wait_ms);
        EXPECT_TRUE(m_transport->wait_ready(10s));
        return flags;
    }
    void announce() {
        std::lock_guard<std::mutex> lock(m_mutex);
        publish("system/bootflags", m_flags, com::PROTOCOL_BOOT_FLAGS);
    }

    std::mutex m_mutex;
    pb::BootFlags m_flags;
    std::atomic<bool> m_silent{false};
    std::atomic<bool> m_stubborn{false};
};

TEST_F(BootFlagsTest, GettersWaitForCompleteFlagsAndTextsShowThem) {
    auto flags = client();
    // Without the boot mode the flags are ignored; without a cause they are taken.
    pb::BootFlags partial = m_flags;
    partial.clear_boot_mode();
    publish("system/bootflags", partial, com::PROTOCOL_BOOT_FLAGS);
    ASSERT_TRUE(
        logged("[WARNING]: [tavi.bootflags] Received partial update of boot flags. "
               "Ignored\n"));
    m_flags.clear_bank_switch_cause();
    m_flags.set_current_bank(pb::BootFlags::BOOT_BANK_1);
    m_flags.set_bank0_valid(false);
    m_flags.set_boot_mode(pb::BootFlags::BOOT_MODE_PRODUCTION_TEST);
    announce();

    EXPECT_EQ(std::make_pair(true, Client::BOOT_BANK_1), flags->current_bank());
    EXPECT_EQ(std::make_pair(true, Client::BOOT_BANK_0), flags->selected_bank());
    EXPECT_EQ(std::make_pair(true, 3u), flags->boot_counter());
    EXPECT_EQ(std::make_pair(true, false), flags->boot_bank_valid(Client::BOOT_BANK_0));
    EXPECT_EQ(std::make_pair(true, true), flags->boot_bank_valid(Client::BOOT_BANK_1));
    EXPECT_EQ(std::make_pair(false, false), flags->boot_bank_valid(Client::BootBank(2)));
    EXPECT_EQ(std::make_pair(true, Client::CAUSE_UNINITIALIZED), flags->bank_switch_cause());
    EXPECT_EQ(std::make_pair(true, Client::BOOT_MODE_PRODUCTION_TEST), flags->boot_mode());
    EXPECT_NE(0, flags->update_timestamp());

    EXPECT_EQ(
        "bank 0 selected (not running), bank 0 invalid, bank 1 valid, boot counter at 3, "
        "bank switch cause Uninitialized, boot mode Production test",
        flags->boot_flags_string(false));
    EXPECT_EQ(
        " running bank = 1\n"
        "    boot bank = 0\n"
        " boot counter = 3\n"
        " bank 0 valid = 0\n"
        " bank 1 valid = 1\n"
        " bank switch_cause = Uninitialized\n"
        "    boot mode = Production test\n",
        flags->boot_flags_string(true));
}

TEST_F(BootFlagsTest, GettersWithoutFlagsTimeOut) {
    auto flags = client(50);
    EXPECT_EQ(std::make_pair(false, Client::BOOT_BANK_UNINITIALIZED), flags->current_bank());
    EXPECT_EQ(0, flags->update_timestamp());
    EXPECT_EQ(
        "bank Uninitialized selected (running), bank 0 invalid, bank 1 invalid, boot "
        "counter at 0, bank switch cause Uninitialized, boot mode Uninitialized",
        flags->boot_flags_string(false));
    EXPECT_THAT(log(), HasSubstr("[WARNING]: [tavi.bootflags] Waiting for boot flags message "
                                 "timed out\n"));
}

TEST_F(BootFlagsTest, SwitchBankChecksCauseAndTargetBeforeSetting) {
    auto flags = client();
    announce();
    m_flags.set_bank1_valid(false);
    announce();
    ASSERT_TRUE(
        test::wait_until([&] { return !flags->boot_bank_valid(Client::BOOT_BANK_1).second; }));

    EXPECT_EQ(Client::SET_INVALID_CAUSE, flags->switch_bank(Client::CAUSE_SW_UPDATE));
    EXPECT_EQ(Client::SET_INVALID_CAUSE, flags->switch_bank(Client::CAUSE_UNKNOWN));
    EXPECT_EQ(Client::SET_INVALID_BANK, flags->switch_bank(Client::CAUSE_TAVI));
    EXPECT_EQ(Client::SET_INVALID_BANK,
              flags->set_boot_bank(Client::BootBank(2), Client::CAUSE_TAVI));
    EXPECT_EQ(Client::SET_INVALID_CAUSE,
              flags->set_boot_bank(Client::BOOT_BANK_1, Client::CAUSE_UBOOT_WATCHDOG));
    EXPECT_EQ(Client::SET_INVALID_BANK, flags->set_boot_bank_valid(Client::BootBank(255), true));
    EXPECT_EQ(0u, m_peer->count("system/bootflags/set")) << "nothing was published";
    expect_logged(
        {"[ERROR]: [tavi.bootflags] Invalid bank switch cause "
         "requested,SW update can not perform a bank switch.\n",
         "[ERROR]: [tavi.bootflags] Other bank (1) is not marked as "
         "valid, can not perform a bank switch.\n"});

    EXPECT_EQ(Client::SET_SUCCESSFUL, flags->set_boot_bank_valid(Client::BOOT_BANK_1, true));
    EXPECT_EQ(Client::SET_SUCCESSFUL, flags->switch_bank(Client::CAUSE_TAVI_9));
    EXPECT_EQ(Client::BOOT_BANK_1, flags->selected_bank().second);
    EXPECT_EQ(Client::CAUSE_TAVI_9, flags->bank_switch_cause().second);
    EXPECT_THAT(log(), HasSubstr("[NOTICE]: [tavi.bootflags] Performing bank switch from bank0 "
                                 "to bank1 cause: TAVI 9\n"));
}

TEST_F(BootFlagsTest, SetFailsWhenTheFlagsDoNotComeBackOrDiffer) {
    tavi::_internal::ScopedOverrides fast(100);  // 20 ms for the echo
    auto flags = client();
    announce();
    ASSERT_TRUE(flags->current_bank().first);

    m_stubborn = true;
    EXPECT_EQ(Client::SET_VERIFY_FAILED, flags->switch_bank(Client::CAUSE_TAVI));
    EXPECT_EQ(Client::SET_VERIFY_FAILED, flags->set_boot_bank_valid(Client::BOOT_BANK_0, false));
    m_silent = true;
    EXPECT_EQ(Client::SET_TIMEOUT_FAILED,
              flags->set_boot_bank(Client::BOOT_BANK_1, Client::CAUSE_TAVI));

    expect_logged(
        {"[ERROR]: [tavi.bootflags] Verification of new boot flags failed for 'boot bank\n",
         "[ERROR]: [tavi.bootflags] Verification of new boot flags failed for 'bank 0 valid'\n",
         "[ERROR]: [tavi.bootflags] Failed to set boot flags: Verify failed. Could not perform a "
         "bank switch.\n",
         "[ERROR]: [tavi.bootflags] Failed to set boot flags: Timeout failed\n"});
}

TEST_F(BootFlagsTest, ChangesAreRefusedOnTpa) {
    tavi::_internal::ScopedOverrides tpa(1, test::tpa_hostname());
    auto flags = client();
    announce();
    EXPECT_EQ(Client::SET_REFUSED_ON_TPA, flags->switch_bank(Client::CAUSE_TAVI));
    EXPECT_EQ(Client::SET_REFUSED_ON_TPA,
              flags->set_boot_bank(Client::BOOT_BANK_1, Client::CAUSE_TAVI));
    EXPECT_EQ(Client::SET_REFUSED_ON_TPA, flags->set_boot_bank_valid(Client::BOOT_BANK_1, false));
    expect_logged({"[ERROR]: [tavi.bootflags] Cannot set switch bank on TPA partition.\n",
                   "[ERROR]: [tavi.bootflags] Cannot set boot bank on TPA partition.\n",
                   "[ERROR]: [tavi.bootflags] Cannot set boot bank valid on TPA partition.\n"});
    EXPECT_EQ(0u, m_peer->count("system/bootflags/set"));
    // Reading is allowed.
    EXPECT_TRUE(flags->current_bank().first);
}

TEST(BootFlagsText, EveryValueHasItsText) {
    const std::pair<const char*, const char*> cases[] = {
        {Client::to_str(Client::BOOT_BANK_1), "1"},
        {Client::to_str(Client::BOOT_BANK_UNINITIALIZED), "Uninitialized"},
        {Client::to_str(Client::BootBank(2)), "Not available"},
        {Client::to_str(Client::BOOT_MODE_PRODUCTION_TEST), "Production test"},
        {Client::to_str(Client::BootMode(254)), "Not available"},
        {Client::to_str(Client::CAUSE_UBOOT_WATCHDOG), "U-boot watch dog"},
        {Client::to_str(Client::CAUSE_TAVI), "TAVI"},
        {Client::to_str(Client::CAUSE_TAVI_0), "TAVI 0"},
        {Client::to_str(Client::CAUSE_UNKNOWN), "Unknown"},
        {Client::to_str(Client::CAUSE_UNINITIALIZED), "Uninitialized"},
        {Client::to_str(Client::BankSwitchCause(18)), "Not available"},
        {Client::to_str(Client::SET_INVALID_CAUSE), "Invalid bank switch cause"},
        {Client::to_str(Client::SET_VERIFY_FAILED), "Verify failed"},
        {Client::to_str(Client::SET_REFUSED_ON_TPA), "Not available"}};
    for (const auto& c : cases) {
        EXPECT_STREQ(c.second, c.first);
    }
}

}  // namespace
}  // namespace ecu::tavi::platform
