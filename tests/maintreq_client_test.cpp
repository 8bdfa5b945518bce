#include "ecu/tavi/diag/maintreq_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "support/client_fixture.h"
#include "support/ipcd_peer.h"

namespace ecu::tavi::diag {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Client = MaintenanceRequestClient;
using Pgnreqd = test::ScriptedDaemon<pb::PgnRequestTokenRequest>;

const char* const kApp = "maint-app";

// The client against a scripted token daemon, IPC daemon and maintenance computer. The
// computer answers each request with cid + 1 and the request's reihenfolge, unless told to
// be silent or to send other bytes.
class MaintReqTest : public test::ClientTest {
protected:
    MaintReqTest() : ClientTest(kApp) {}
    void make_client() override {
        m_daemon =
            std::make_unique<Pgnreqd>(m_broker, "system/pgnreqd/request", com::PROTOCOL_PGN_TOKEN);
        rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
        rt::SignalAdapter::reset_instance();
        m_ipcd = std::make_unique<test::ScriptedIpcd>(m_broker.host(), m_broker.port());
        ASSERT_TRUE(m_ipcd->wait_ready());
        grant(pb::PgnRequestTokenResponse::TOKEN_ACQUIRED);
        m_computer = std::make_unique<test::MqttPeer>(m_broker.host(), m_broker.port());
        m_computer->set_handler([this](const test::MqttPeer::Received& received) {
            if (received.topic == "rttx/vekcan/tx/fws_fb") {
                answer(received);
            }
        });
        ASSERT_TRUE(m_computer->subscribe("rttx/vekcan/tx/fws_fb", 1));
        m_client = create_main_req_client(m_transport);
    }
    void drop_client() override {
        m_client.reset();
        m_computer.reset();
        rt::SignalAdapter::reset_instance();
    }

    void grant(pb::PgnRequestTokenResponse_Result result) {
        m_daemon->set_script([this, result](const std::string&, const pb::PgnRequestTokenRequest&) {
            pb::PgnRequestTokenResponse response;
            response.set_result(result);
            return std::vector<Pgnreqd::Reply>{
                m_daemon->reply(std::string("app/") + kApp + "/pgn/response", response)};
        });
    }

    void answer(const test::MqttPeer::Received& received) {
        if (m_silent) {
            return;
        }
        const auto& adapter = rt::SignalAdapter::instance();
        if (m_garbage) {
            m_computer->publish(Client::TOPIC_MAINT_RESP, std::string(30, '\xff'));
            return;
        }
        auto request =
            adapter.unpack(Client::TOPIC_MAINT_REQ,
                           com::Message(received.payload.data(), received.payload.size()));
        auto group = adapter.create_sg(Client::TOPIC_MAINT_RESP);
        if (!request || !group) {
            return;
        }
        const auto byte = [&](const char* name) {
            return request.value().signal(name)->value_scaled().value;
        };
        group->set_signal_scaled_value("wartungsinformation_mc2qbx", 123456);
        group->set_signal_scaled_value("cid_mc2qbx", byte("cid_qbx2mc") + 1);
        group->set_signal_scaled_value("reihenfolge_mc2qbx", byte("reihenfolge_qbx2mc"));
        group->set_signal_scaled_value("weiteretermine_mc2qbx", 255);
        m_computer->publish(Client::TOPIC_MAINT_RESP, adapter.pack(*group).value().get_data());
    }
    std::unique_ptr<Pgnreqd> m_daemon;
    std::unique_ptr<test::ScriptedIpcd> m_ipcd;
    std::unique_ptr<test::MqttPeer> m_computer;
    std::atomic<bool> m_silent{false};
    std::atomic<bool> m_garbage{false};
    std::shared_ptr<Client> m_client;
};

TEST_F(MaintReqTest, RequestTakesTheTokenAndReturnsTheDecodedAnswer) {
    Client::Request request;
    request.cid = 41;
    request.reihenfolge = 3;
    const auto result = m_client->request(request, 5000);
    ASSERT_TRUE(result) << result.error();
    Client::Response expected;
    expected.wartungsinformation = 123456;
    expected.cid = 42;
    expected.reihenfolge = 3;
    expected.weiteretermine = 255;
    EXPECT_EQ(expected, result.value());

    const auto tokens = m_daemon->requests();
    ASSERT_EQ(1u, tokens.size());
    EXPECT_EQ(Client::TOPIC_MAINT_REQ, tokens[0].second.pgn());
    const auto announced = m_ipcd->announcements();
    EXPECT_NE(std::find(announced.begin(), announced.end(),
                        std::make_pair(std::string(kApp), std::string(Client::TOPIC_MAINT_RESP))),
              announced.end());
}

TEST_F(MaintReqTest, FailuresReturnTheirTexts) {
    EXPECT_EQ("Timeout should be over 1000ms", m_client->request({}, 999).error());
    EXPECT_TRUE(m_daemon->requests().empty());

    m_silent = true;
    EXPECT_EQ("Timeout occured", m_client->request({}, 1000).error());
    expect_logged(
        {"[WARNING]: [tavi.diag.maintreq] "
         "[MaintenanceRequestClient:maintreq_client:",
         "] Timeout occured while waiting for maintenance request!"});

    m_silent = false;
    m_garbage = true;
    EXPECT_THAT(m_client->request({}, 2000).error(),
                HasSubstr("Unable to unpack maintenance response, err 3 error msg: "));

    grant(pb::PgnRequestTokenResponse::ECU_UNKNOWN);
    EXPECT_EQ("PGN request token error: Error::ECU_unknown", m_client->request({}, 2000).error());

    std::string inside;
    ASSERT_TRUE(run_inside([&] { inside = m_client->request({}, 60000).error(); }));
    EXPECT_EQ("Timeout occured", inside);
    EXPECT_THAT(log(), HasSubstr("] MaintenanceRequestClient::request called on the transport's "
                                 "network thread"));
}

TEST_F(MaintReqTest, MissingResponseSignalEndsTheWaitWithItsName) {
    // A support library whose answer group lacks "bwi_mc2qbx", on both ends.
    static rt::SignalAdapter::Mapping table = rt::SignalAdapter::instance().get_mapping();
    auto& signals = table.at(Client::TOPIC_MAINT_RESP).group.signals;
    signals.erase(std::remove_if(signals.begin(), signals.end(),
                                 [](const auto& s) { return std::string(s.name) == "bwi_mc2qbx"; }),
                  signals.end());
    rt::SignalAdapter::enforce_definition(&table);
    EXPECT_EQ("Unable to get Signal 'bwi_mc2qbx' for SignalGroup: rt/vekcan/rx/fws_27",
              m_client->request({}, 10000).error());
}

}  // namespace
}  // namespace ecu::tavi::diag
