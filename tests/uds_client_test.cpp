#include "ecu/tavi/diag/uds_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "overrides.h"
#include "support/client_fixture.h"

namespace ecu::tavi::diag {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Daemon = test::ScriptedDaemon<pb::UdsIfMessage>;
using Replies = std::vector<Daemon::Reply>;

const char* const kApp = "uds-app";
const UdsInterfaceAllocationConfig kOwn{1, 2, 7};
const std::string kStatus = std::string("app/") + kApp + "/uds/status";
const std::string kResponse = std::string("app/") + kApp + "/uds/response";

pb::UdsIfMessage on_interface(uint32_t param) {
    pb::UdsIfMessage message;
    message.mutable_interface()->set_protocol(pb::UdsInterface::UDS_TP_ISO);
    message.mutable_interface()->set_phyif(pb::UdsInterface::UDS_IF_CAN2);
    message.mutable_interface()->set_param(param);
    return message;
}

pb::UdsIfMessage status(int state, uint32_t param = kOwn.param) {
    auto message = on_interface(param);
    message.mutable_status()->set_state(static_cast<pb::UdsInterfaceStatus_State>(state));
    return message;
}

pb::UdsIfMessage response(uint32_t code, const std::string& payload, uint32_t param = kOwn.param) {
    auto message = on_interface(param);
    message.mutable_response()->set_address(0x17);
    message.mutable_response()->set_payload(payload);
    message.mutable_response()->set_response_code(code);
    return message;
}

class Recorder : public IUdsClientObserver {
public:
    void on_status(uint32_t state) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_on_status) {
            m_on_status();
        }
        m_statuses.push_back(state);
    }
    void on_response(const UdsMessage& response) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_responses.push_back(response);
    }
    std::vector<uint32_t> statuses() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_statuses;
    }
    size_t responses() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_responses.size();
    }
    std::function<void()> m_on_status;

private:
    std::mutex m_mutex;
    std::vector<uint32_t> m_statuses;
    std::vector<UdsMessage> m_responses;
};

// The application's UDS client against a scripted "udsifd".
class UdsClientTest : public test::ClientTest {
protected:
    UdsClientTest() : ClientTest(kApp) {}
    void make_client() override {
        m_daemon = std::make_unique<Daemon>(m_broker, "system/udsifd/#", com::PROTOCOL_UDS);
        m_client = create_uds_client(m_transport, &m_recorder);
        ASSERT_TRUE(m_client);
    }
    void drop_client() override { m_client.reset(); }

    // The daemon answers an allocation with these states, in order.
    void answer_allocation(std::vector<pb::UdsIfMessage> statuses) {
        m_daemon->set_script([this, statuses](const std::string& topic, const pb::UdsIfMessage&) {
            Replies replies;
            if (topic == "system/udsifd/allocate") {
                for (const auto& s : statuses) {
                    replies.push_back(m_daemon->reply(kStatus, s));
                }
            }
            return replies;
        });
    }
    void allocate() {
        answer_allocation({status(1)});
        ASSERT_EQ(UDS_INTERFACE_ALLOCATED, m_client->allocate_interface(kOwn, 5000));
    }
    std::unique_ptr<Daemon> m_daemon;
    Recorder m_recorder;
    std::shared_ptr<UdsClient> m_client;
};

TEST_F(UdsClientTest, AllocationWaitsThroughInProgressAndIgnoresOtherInstances) {
    // Another instance's final status comes first; only the own one settles the wait.
    answer_allocation({status(1, 8), status(2), status(4, 8), status(1)});
    EXPECT_EQ(UDS_INTERFACE_ALLOCATED, m_client->allocate_interface(kOwn, 5000));
    EXPECT_TRUE(test::wait_until([&] { return m_recorder.statuses().size() == 2; }));
    EXPECT_THAT(m_recorder.statuses(), ElementsAre(2u, 1u));

    const auto sent = m_daemon->requests().at(0).second;
    EXPECT_EQ(pb::UdsInterface::UDS_TP_ISO, sent.interface().protocol());
    EXPECT_EQ(pb::UdsInterface::UDS_IF_CAN2, sent.interface().phyif());
    EXPECT_EQ(7u, sent.interface().param());
    EXPECT_EQ(kApp, sent.allocation().client_name());
}

TEST_F(UdsClientTest, DaemonStatusesSettleTheAllocationAsMapped) {
    // daemon state -> allocation result and what the observer hears
    const std::vector<std::pair<int, uint32_t>> cases = {{3, 3}, {4, 4}, {21, 5}, {0, 0}, {7, 5}};
    for (const auto& [state, expected] : cases) {
        answer_allocation({status(state)});
        const size_t before = m_recorder.statuses().size();
        EXPECT_EQ(expected, m_client->allocate_interface(kOwn, 5000)) << state;
        EXPECT_TRUE(test::wait_until([&] { return m_recorder.statuses().size() > before; }));
        EXPECT_EQ(expected, m_recorder.statuses().back()) << state;
    }
    answer_allocation({});
    EXPECT_EQ(UDS_INTERFACE_UNAVAILABLE, m_client->allocate_interface(kOwn, 200));
    EXPECT_THAT(log(), HasSubstr("Udsifd for 'uds-app' did not become ready in time!"));
}

TEST_F(UdsClientTest, RequestsNeedAnInterfaceAndCarryTheirParameters) {
    const UdsMessage vin{0x17, {0x22, 0xf1, 0x90}};
    EXPECT_EQ(1, m_client->send_request_async(vin, UdsParameters()));
    EXPECT_EQ(1, m_client->send_flowctrl_async(8, 20, 10, FlowStatus::WAIT));
    const auto refused = m_client->send_request(vin, UdsParameters());
    ASSERT_FALSE(refused);
    EXPECT_EQ(UDS_ERROR_REJECTED, refused.error());
    EXPECT_TRUE(m_daemon->requests().empty());

    allocate();
    m_daemon->set_script([this](const std::string& topic, const pb::UdsIfMessage&) {
        Replies replies;
        if (topic == "system/udsifd/request") {
            replies.push_back(m_daemon->reply(kResponse, response(1, "\x62\xf1\x90VIN")));
        }
        return replies;
    });
    const auto answer = m_client->send_request(vin, 3000, 4, 0x33);
    ASSERT_TRUE(answer);
    EXPECT_EQ(0x17u, answer.value().address);
    EXPECT_EQ(std::vector<uint8_t>({0x62, 0xf1, 0x90, 'V', 'I', 'N'}), answer.value().data);
    EXPECT_TRUE(test::wait_until([&] { return m_recorder.responses() == 1; }));

    EXPECT_EQ(0, m_client->send_request_async(vin, UdsParameters()));
    EXPECT_EQ(0, m_client->send_flowctrl_async(8, 20, 10, FlowStatus::WAIT));
    ASSERT_TRUE(m_daemon->wait_requests(4));
    const auto requests = m_daemon->requests();
    const auto& shortform = requests.at(1).second.request();
    EXPECT_EQ(std::string("\x22\xf1\x90"), shortform.payload());
    EXPECT_EQ(kApp, shortform.client_name());
    EXPECT_EQ(
        std::vector<uint32_t>({0x33, 4, 0xFF, 0xFFFF, 3000, 4096, 150, 5000}),
        std::vector<uint32_t>({shortform.extended_address(), shortform.block_size(),
                               shortform.st_min(), shortform.wft_max(), shortform.timeout_ms(),
                               shortform.max_length(), shortform.p2_ms(), shortform.p2_ext_ms()}));
    EXPECT_FALSE(requests.at(2).second.request().has_extended_address());
    const auto& [flow_topic, flow] = requests.at(3);
    EXPECT_EQ("system/udsifd/flowctrl", flow_topic);
    EXPECT_EQ(7u, flow.interface().param());
    EXPECT_EQ(8u, flow.request().block_size());
    EXPECT_EQ(20u, flow.request().st_min());
    EXPECT_EQ(10u, flow.request().wft_max());
    EXPECT_EQ(pb::UdsInterfaceRequest::FS_WAIT, flow.request().flow_status_res());
    EXPECT_EQ(2, m_client->send_flowctrl_async(0, 0, 0, static_cast<FlowStatus>(9)));
}

TEST_F(UdsClientTest, ResponseCodesMapToErrorsAndOtherInstancesTimeOut) {
    allocate();
    // daemon response code -> error of send_request
    const std::vector<std::pair<uint32_t, uint32_t>> cases = {{2, 1},  {3, 2},  {10, 4},
                                                              {12, 4}, {20, 3}, {99, 5}};
    for (const auto& [code, expected] : cases) {
        m_daemon->set_script([this, code = code](const std::string&, const pb::UdsIfMessage&) {
            return Replies{m_daemon->reply(kResponse, response(code, ""))};
        });
        const auto answer = m_client->send_request({0x17, {0x10, 0x03}}, UdsParameters());
        ASSERT_FALSE(answer) << code;
        EXPECT_EQ(expected, answer.error()) << code;
    }
    m_daemon->set_script([this](const std::string&, const pb::UdsIfMessage&) {
        return Replies{m_daemon->reply(kResponse, response(1, "x", 8))};
    });
    const auto answer = m_client->send_request({0x17, {0x10, 0x03}}, 300, 0xFF, 255);
    ASSERT_FALSE(answer);
    EXPECT_EQ(UDS_ERROR_TIMEOUT, answer.error());
    EXPECT_THAT(log(), HasSubstr("[WARNING]: [tavi.diag.uds] Udsifd for 'uds-app' did not "
                                 "responsed in time, timeout!"));
}

TEST_F(UdsClientTest, ReleaseAndWithdrawOnTimeOut) {
    allocate();
    m_daemon->set_script({});
    // An unanswered withdraw keeps the interface; an unanswered release frees it locally.
    EXPECT_FALSE(m_client->withdraw_interface(200));
    EXPECT_THAT(log(), HasSubstr("Udsifd for 'uds-app' did not become free in time, will not "
                                 "enforce it"));
    EXPECT_EQ(0, m_client->send_request_async({0x17, {0x3e}}, UdsParameters()));
    EXPECT_FALSE(m_client->release_interface(200));
    EXPECT_THAT(log(), HasSubstr("Udsifd for 'uds-app' did not become free in time, enforce it!"));
    EXPECT_EQ(1, m_client->send_request_async({0x17, {0x3e}}, UdsParameters()));
    ASSERT_TRUE(m_daemon->wait_requests(4));
    EXPECT_EQ("system/udsifd/withdraw", m_daemon->requests().at(1).first);
    EXPECT_EQ("system/udsifd/release", m_daemon->requests().at(3).first);
    EXPECT_EQ(7u, m_daemon->requests().at(3).second.interface().param());
}

TEST_F(UdsClientTest, AnsweredReleaseFreesTheInterface) {
    allocate();
    m_daemon->set_script([this](const std::string&, const pb::UdsIfMessage&) {
        return Replies{m_daemon->reply(kStatus, status(0))};
    });
    EXPECT_TRUE(m_client->release_interface(5000));
    EXPECT_EQ(1, m_client->send_request_async({0x17, {0x3e}}, UdsParameters()));
}

TEST_F(UdsClientTest, MalformedMessagesAreLoggedAndDropped) {
    m_daemon->peer().publish(kStatus, std::string(30, '\xff'), 1);
    m_daemon->peer().publish(kStatus, m_daemon->reply(kStatus, on_interface(7)).message.get_data(),
                             1);
    EXPECT_TRUE(logged(
        "Unable to deserialize message for topic app/uds-app/uds/status, unable to continue!"));
    EXPECT_TRUE(logged("Status is not available on message for topic: app/uds-app/uds/status"));
    EXPECT_TRUE(m_recorder.statuses().empty());
}

TEST_F(UdsClientTest, SynchronousCallsInsideTheObserverAreRefusedAtOnce) {
    std::vector<uint32_t> inside;
    m_recorder.m_on_status = [&] {
        inside.push_back(m_client->allocate_interface(kOwn, 60000));
        inside.push_back(m_client->send_request({0x17, {0x3e}}, 60000, 0xFF, 255).error());
        inside.push_back(m_client->release_interface(60000));
    };
    allocate();
    ASSERT_TRUE(test::wait_until([&] { return m_recorder.statuses().size() == 1; }));
    EXPECT_THAT(inside, ElementsAre(3u, 3u, 0u));
    expect_logged(
        {"[ERROR]: [tavi.diag.uds] allocate_interface called on the transport's network thread",
         "[ERROR]: [tavi.diag.uds] send_request called on the transport's network thread",
         "[ERROR]: [tavi.diag.uds] release_interface called on the transport's network thread"});
}

TEST(UdsClientPartition, RefusedOnTpa) {
    const _internal::ScopedOverrides tpa(1, test::tpa_hostname());
    std::shared_ptr<com::ITransportClient> transport;
    logging::set_log_mode(logging::STDOUT);
    const std::string log =
        test::log_of([&] { EXPECT_FALSE(create_uds_client(transport, nullptr)); });
    EXPECT_THAT(log, HasSubstr("[ERROR]: [tavi.diag.uds] Cannot create UDS client on TPA "
                               "partition."));
}

}  // namespace
}  // namespace ecu::tavi::diag
