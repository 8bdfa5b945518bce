#include "ecu/tavi/diag/pgn_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "overrides.h"
#include "support/client_fixture.h"
#include "sync_call.h"

namespace ecu::tavi::diag {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Daemon = test::ScriptedDaemon<pb::PgnRequestTokenRequest>;
using Replies = std::vector<Daemon::Reply>;
using Result_ = pb::PgnRequestTokenResponse;

const char* const kApp = "pgn-app";
const std::string kResponseTopic = std::string("app/") + kApp + "/pgn/response";

pb::PgnRequestTokenResponse answer(pb::PgnRequestTokenResponse_Result result) {
    pb::PgnRequestTokenResponse response;
    response.set_result(result);
    return response;
}

class PgnClientTest : public test::ClientTest {
protected:
    PgnClientTest() : ClientTest(kApp) {}
    void make_client() override {
        m_daemon =
            std::make_unique<Daemon>(m_broker, "system/pgnreqd/request", com::PROTOCOL_PGN_TOKEN);
        logging::enable("tavi.diag.pgn", false);
        m_client = create_pgn_request_client(m_transport);
        ASSERT_TRUE(m_client);
    }
    void drop_client() override {
        tavi::_internal::g_fixed_wait_divisor = 1;
        m_client.reset();
    }

    // The daemon answers the requests with these results in turn, the last one from then on.
    void answer_with(std::vector<pb::PgnRequestTokenResponse_Result> results) {
        m_daemon->set_script(
            [this, results](const std::string&, const pb::PgnRequestTokenRequest& request) {
                if (request.action() != pb::PgnRequestTokenRequest::ACQUIRE) {
                    return Replies{};
                }
                const size_t n = m_daemon->requests().size() - 1;
                return Replies{m_daemon->reply(kResponseTopic,
                                               answer(results[std::min(n, results.size() - 1)]))};
            });
    }
    std::unique_ptr<Daemon> m_daemon;
    std::shared_ptr<PgnRequestClient> m_client;
};

TEST_F(PgnClientTest, GrantedTokenIsReleasedWithoutWaiting) {
    answer_with({Result_::TOKEN_ACQUIRED});
    EXPECT_TRUE(m_client->get_request_token("65226", 5s));
    m_client->release_token("65226");
    ASSERT_TRUE(m_daemon->wait_requests(2));
    const auto requests = m_daemon->requests();
    EXPECT_EQ(pb::PgnRequestTokenRequest::ACQUIRE, requests[0].second.action());
    EXPECT_EQ(pb::PgnRequestTokenRequest::RELEASE, requests[1].second.action());
    for (const auto& request : requests) {
        EXPECT_EQ("65226", request.second.pgn());
        EXPECT_EQ(kApp, request.second.client_name());
    }
    expect_logged(
        {"[NOTICE]: [tavi.diag.pgn] Request token for 65226 has been "
         "acquired!",
         "[NOTICE]: [tavi.diag.pgn] Explicitly release token for 65226"});
}

TEST_F(PgnClientTest, RefusalsEndTheRequestWithTheirError) {
    const std::vector<std::pair<pb::PgnRequestTokenResponse_Result, PgnRequestClient::Error>>
        cases = {{Result_::RESULT_UNKNOWN, PgnRequestClient::Unknown},
                 {Result_::TOKEN_DENIED, PgnRequestClient::Unknown},
                 {Result_::ECU_UNKNOWN, PgnRequestClient::ECU_unknown}};
    for (const auto& [result, error] : cases) {
        answer_with({result});
        const auto token = m_client->get_request_token("65226", 5s);
        ASSERT_FALSE(token);
        EXPECT_EQ(error, token.error());
        EXPECT_THAT(log(), HasSubstr("[WARNING]: [tavi.diag.pgn] " +
                                     pb::PgnRequestTokenResponse_Result_Name(result) +
                                     " was received, unable to proceed"));
    }
}

TEST_F(PgnClientTest, BusyDaemonIsAskedAgainAfterThePause) {
    tavi::_internal::g_fixed_wait_divisor = 10;
    answer_with({Result_::ECU_BUSY, Result_::TOKEN_ACQUIRED});
    EXPECT_TRUE(m_client->get_request_token("65226", 1s));
    EXPECT_EQ(2u, m_daemon->requests().size());
    EXPECT_THAT(log(), HasSubstr("[DEBUG]: [tavi.diag.pgn] ECU busy, try again in 2 seconds"));
}

TEST_F(PgnClientTest, TimeOutShorterThanTheBusyPauseEndsAfterIt) {
    // The whole 2 s pause: the shortest time-out is 1 s.
    answer_with({Result_::ECU_BUSY});
    const auto start = std::chrono::steady_clock::now();
    const auto token = m_client->get_request_token("65226", 1s);
    ASSERT_FALSE(token);
    EXPECT_EQ(PgnRequestClient::Timeout, token.error());
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2000ms);
    EXPECT_EQ(1u, m_daemon->requests().size());
    EXPECT_THAT(log(), HasSubstr("[INFO]: [tavi.diag.pgn] PGN request token for 65226 timed out"));
}

TEST_F(PgnClientTest, AnswerOfAnEarlierRequestIsNotTakenAgain) {
    answer_with({Result_::TOKEN_ACQUIRED});
    ASSERT_TRUE(m_client->get_request_token("65226", 5s));
    m_daemon->set_script({});
    const auto token = m_client->get_request_token("65226", 1s);
    ASSERT_FALSE(token);
    EXPECT_EQ(PgnRequestClient::Timeout, token.error());
}

TEST_F(PgnClientTest, TokenRequestInsideAnObserverIsRefusedAtOnce) {
    std::atomic<int> error{-1};
    ASSERT_TRUE(run_inside([&] { error = m_client->get_request_token("65226", 60s).error(); }));
    EXPECT_EQ(PgnRequestClient::Timeout, error);
    EXPECT_THAT(log(), HasSubstr("[ERROR]: [tavi.diag.pgn] get_request_token called on the "
                                 "transport's network thread"));
}

TEST(PgnClientStatic, ErrorTextsAndTpaRefusal) {
    EXPECT_STREQ("Error::Unknown", PgnRequestClient::error_str(PgnRequestClient::Unknown));
    EXPECT_STREQ("Error::Timeout", PgnRequestClient::error_str(PgnRequestClient::Timeout));
    EXPECT_STREQ("Error::ECU_unknown", PgnRequestClient::error_str(PgnRequestClient::ECU_unknown));
    EXPECT_EQ(nullptr, PgnRequestClient::error_str(static_cast<PgnRequestClient::Error>(7)));

    const _internal::ScopedOverrides tpa(1, test::tpa_hostname());
    std::shared_ptr<com::ITransportClient> transport;
    logging::set_log_mode(logging::STDOUT);
    const std::string log =
        test::log_of([&] { EXPECT_FALSE(create_pgn_request_client(transport)); });
    EXPECT_THAT(log, HasSubstr("[ERROR]: [tavi.diag.pgn] Cannot create PGN client on TPA "
                               "partition."));
}

}  // namespace
}  // namespace ecu::tavi::diag
