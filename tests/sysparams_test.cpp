#include "ecu/tavi/var/sysparams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "ecu/tavi/com/protocol_types.h"
#include "overrides.h"
#include "support/client_fixture.h"

namespace ecu::tavi::var {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Table = SysParamsClient::Table;

pb::SystemParameterEntry entry(unsigned int id, const std::string& value) {
    pb::SystemParameterEntry made;
    made.set_id(id);
    made.set_value(value);
    made.set_name("param" + std::to_string(id));
    return made;
}

// The variable service's parameter table, played by the peer: answers requests, applies
// writes except to the parameter that refuses changes, or stays silent.
class SysParamsTest : public test::ClientTest {
protected:
    SysParamsTest() : ClientTest("platform-app") {}
    void make_client() override {
        for (unsigned int id : {1u, 2u, kLocked}) {
            *m_table.add_entries() = entry(id, "v" + std::to_string(id));
        }
        m_peer->set_handler([this](const test::MqttPeer::Received& message) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (message.topic == "system/sysparams/write") {
                const auto list = parse<pb::SystemParameterList>(message.payload);
                for (const auto& written : list.entries()) {
                    for (auto& held : *m_table.mutable_entries()) {
                        if (held.id() == written.id() && held.id() != kLocked) {
                            held = written;
                        }
                    }
                }
            } else if (!m_silent) {
                ++m_requests;
                publish("system/sysparams", m_table, com::PROTOCOL_SYSPARAMS);
            }
        });
        ASSERT_TRUE(m_peer->subscribe("system/vard/request/sysparams"));
        ASSERT_TRUE(m_peer->subscribe("system/sysparams/write"));
        m_params = create_sysparams_client(m_transport);
    }

    static constexpr unsigned int kLocked = 3;
    std::mutex m_mutex;
    pb::SystemParameterList m_table;
    std::atomic<bool> m_silent{false};
    std::atomic<int> m_requests{0};
    std::shared_ptr<SysParamsClient> m_params;
};

TEST_F(SysParamsTest, ReadsFetchWhenEmptyOrForced) {
    auto found = m_params->get(2, false);
    EXPECT_TRUE(found.first);
    EXPECT_EQ("v2", found.second.value());
    EXPECT_EQ("param2", found.second.name());
    EXPECT_EQ(1, m_requests);

    EXPECT_FALSE(m_params->get(99, false).first) << "unknown id, from the cache";
    EXPECT_EQ(1, m_requests);
    EXPECT_EQ(3u, m_params->get_all(true).size());
    EXPECT_EQ(2, m_requests);

    // A table that fails to come leaves an empty table, so the next read fetches again.
    m_params->set_receive_timeout(50);
    m_silent = true;
    EXPECT_TRUE(m_params->get_all(true).empty());
    EXPECT_THAT(log(), HasSubstr("[WARNING]: [tavi.sysparams] [SysParamsClient] Request for all "
                                 "SystemParameters timed out\n"));
    m_silent = false;
    m_params->set_receive_timeout(10000);
    EXPECT_TRUE(m_params->get(1, false).first);
}

TEST_F(SysParamsTest, WriteReportsEachStatus) {
    using S = SysParamsClient;
    EXPECT_EQ(S::EMPTY, m_params->write().status);
    m_params->fetch();
    auto result = m_params->write();
    EXPECT_EQ(S::NOTHING_CHANGED, result.status);
    EXPECT_FALSE(result.success);
    // An emptied table is never written, changed or not.
    m_params->set_all({});
    EXPECT_EQ(S::EMPTY, m_params->write().status);

    m_params->merge({{1, entry(1, "new1")}});  // fetches the emptied table first
    result = m_params->write();
    EXPECT_EQ(S::WRITTEN, result.status);
    EXPECT_TRUE(result.success);
    EXPECT_EQ("new1", m_params->get(1, false).second.value());

    // The locked parameter comes back unchanged; only it is reported.
    Table changed = m_params->get_all(false);
    changed[2] = entry(2, "new2");
    changed[kLocked] = entry(kLocked, "new3");
    m_params->set_all(changed);
    result = m_params->write();
    EXPECT_EQ(S::NOT_ALL_WRITTEN, result.status);
    ASSERT_EQ(1u, result.unverified.size());
    EXPECT_EQ("new3", result.unverified.at(kLocked).value());
    EXPECT_EQ("new2", m_params->get(2, false).second.value());

    m_params->set_receive_timeout(50);
    m_silent = true;
    m_params->merge({{1, entry(1, "lost")}});
    EXPECT_EQ(S::NOT_RECEIVED, m_params->write().status);

    const std::string text = log();
    for (const char* line :
         {"[INFO]: [tavi.sysparams] [SysParamsClient] Nothing to write because no values have "
          "been changed\n",
          "[NOTICE]: [tavi.sysparams] [SysParamsClient] Not all values could be written!\n",
          "[ERROR]: [tavi.sysparams] [SysParamsClient] Seems that updated parameters could not "
          "be received!\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST_F(SysParamsTest, MergeOnAnEmptyTableFetchesFirst) {
    m_params->merge({{7, entry(7, "added")}, {1, entry(1, "x")}});
    const Table table = m_params->get_all(false);
    EXPECT_EQ(1, m_requests);
    ASSERT_EQ(4u, table.size());
    EXPECT_EQ("x", table.at(1).value());
    EXPECT_EQ("v2", table.at(2).value());
}

TEST_F(SysParamsTest, ChangesAreRefusedOnTpa) {
    tavi::_internal::ScopedOverrides tpa(1, test::tpa_hostname());
    SysParamsClient params(m_transport);
    params.set_all({{1, entry(1, "x")}});
    params.merge({{1, entry(1, "x")}});
    EXPECT_EQ(SysParamsClient::EMPTY, params.write().status);
    EXPECT_EQ(0, m_requests) << "merge did not even fetch";
    expect_logged(
        {"[ERROR]: [tavi.sysparams] [SysParamsClient] Cannot set all "
         "sysparams on TPA partition.\n",
         "[ERROR]: [tavi.sysparams] [SysParamsClient] Cannot merge "
         "sysparams on TPA partition.\n"});
}

}  // namespace
}  // namespace ecu::tavi::var
