// The diagnostics clients end to end against the simulator's daemons (udsifd, pgnreqd and
// the maintenance computer behind the IPC daemon), as an application developer runs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/diag/maintreq_client.h"
#include "ecu/tavi/diag/pgn_client.h"
#include "ecu/tavi/diag/uds_client.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/testkit.h"
#include "overrides.h"
#include "support/client_fixture.h"
#include "sync_call.h"

namespace ecu::tavi::diag {
namespace {

using namespace std::chrono_literals;

const char* const kUnit =
    "unit.hostname = tele-test\n"
    "uds.interfaces = 1\n"
    "uds.answer.17.22f190 = 62f190574442393633343033314c393837363534\n"
    "pgn.unknown_pgns = 65280\n"
    "maint.wartungsinformation = 25000\n"
    "maint.statusdaten = 1\n"
    "maint.weiteretermine = 2\n";

class DiagSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
        rt::SignalAdapter::instance();
        ASSERT_TRUE(m_kit.start()) << m_kit.error();
        auto configuration = m_kit.client_configuration("diag-app");
        m_app = com::create_client(configuration, com::MQTT);
        m_uds = create_uds_client(m_app, nullptr);
        m_pgn = create_pgn_request_client(m_app);
        m_maint = create_main_req_client(m_app);
        ASSERT_TRUE(m_uds && m_pgn && m_maint);
        ASSERT_TRUE(test::start_app(*m_app));
    }
    void TearDown() override {
        tavi::_internal::g_fixed_wait_divisor = 1;
        m_uds.reset();
        m_pgn.reset();
        m_maint.reset();
        if (m_app) {
            m_app->stop();
        }
    }

    sim::TestKit m_kit{{kUnit, MURNTAVI_RTSUPPORT_LIB}};
    std::shared_ptr<com::ITransportClient> m_app;
    std::shared_ptr<UdsClient> m_uds;
    std::shared_ptr<PgnRequestClient> m_pgn;
    std::shared_ptr<MaintenanceRequestClient> m_maint;
};

TEST_F(DiagSimTest, UdsInterfaceIsLentAnsweredFromTheUnitAndGivenBack) {
    const UdsInterfaceAllocationConfig can1{1, 1, 0};
    ASSERT_EQ(UDS_INTERFACE_ALLOCATED, m_uds->allocate_interface(can1, 5000));
    const auto vin = m_uds->send_request({0x17, {0x22, 0xf1, 0x90}}, 5000, 0xFF, 255);
    ASSERT_TRUE(vin);
    EXPECT_EQ(0x17u, vin.value().address);
    EXPECT_EQ("WDB9634031L987654",
              std::string(vin.value().data.begin() + 3, vin.value().data.end()));
    const auto unknown = m_uds->send_request({0x17, {0x3e, 0x00}}, 5000, 0xFF, 255);
    ASSERT_TRUE(unknown);
    EXPECT_EQ(std::vector<uint8_t>({0x7f, 0x3e, 0x11}), unknown.value().data);

    // The unit lends one interface: a second application is turned away.
    auto other = test::app_transport(m_kit.client_config("diag-other"));
    auto other_uds = create_uds_client(other, nullptr);
    ASSERT_TRUE(test::start_app(*other));
    EXPECT_EQ(UDS_INTERFACE_UNAVAILABLE, other_uds->allocate_interface({1, 2, 0}, 5000));
    other_uds.reset();
    other->stop();

    EXPECT_TRUE(m_uds->release_interface(5000));
    EXPECT_EQ(1, m_uds->send_request_async({0x17, {0x3e, 0x00}}, UdsParameters()));

    // A slow or a silenced daemon leaves the allocation unsettled.
    ASSERT_TRUE(m_kit.simulator().set_unit_value("uds.delay_ms", "2000").has_value());
    EXPECT_EQ(UDS_INTERFACE_UNAVAILABLE, m_uds->allocate_interface(can1, 300));
    m_kit.simulator().set_silenced("udsifd", true);
    EXPECT_EQ(UDS_INTERFACE_UNAVAILABLE, m_uds->allocate_interface(can1, 300));
}

TEST_F(DiagSimTest, PgnTokensAndAMaintenanceRequest) {
    tavi::_internal::g_fixed_wait_divisor = 20;
    ASSERT_TRUE(m_kit.simulator().set_unit_value("pgn.busy_answers", "2").has_value());
    EXPECT_TRUE(m_pgn->get_request_token("65226", 5s));
    m_pgn->release_token("65226");
    const auto unknown = m_pgn->get_request_token("65280", 5s);
    ASSERT_FALSE(unknown);
    EXPECT_EQ(PgnRequestClient::ECU_unknown, unknown.error());

    MaintenanceRequestClient::Request request;
    request.cid = 7;
    request.abfragetyp = 3;
    const auto answer = m_maint->request(request, 5000);
    ASSERT_TRUE(answer) << answer.error();
    EXPECT_EQ(25000u, answer.value().wartungsinformation);
    EXPECT_EQ(7, answer.value().cid);
    EXPECT_EQ(3, answer.value().bwi);
    EXPECT_EQ(2, answer.value().weiteretermine);
}

}  // namespace
}  // namespace ecu::tavi::diag
