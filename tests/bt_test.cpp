#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>

#include "ecu/tavi/bt/bluetooth.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "overrides.h"
#include "support/client_fixture.h"

namespace ecu::tavi::bt {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using Response = pb::BtDiscoveryResponse;

class Collector : public IDiscoveryObserver {
public:
    void discovery_result(const DiscoveryResult& result) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_results.push_back(result);
    }
    std::vector<DiscoveryResult> results() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_results;
    }

private:
    std::mutex m_mutex;
    std::vector<DiscoveryResult> m_results;
};

// The Bluetooth service, played by the peer: answers each discovery request first with a
// foreign request id, then with its own, with the statuses the test sets.
class BtTest : public test::ClientTest {
protected:
    BtTest() : ClientTest("platform-app") {}
    void make_client() override {
        m_peer->set_handler([this](const test::MqttPeer::Received& message) {
            if (message.topic != "system/bt/discovery/request" || m_silent) {
                return;
            }
            const auto request = parse<pb::BtDiscoveryRequest>(message.payload);
            const std::string topic =
                "app/" + request.header().client_name() + "/bt/discovery/response";
            Response answer;
            answer.set_rpc_status(m_rpc_status);
            answer.set_discovery_status(request.action() == pb::BtDiscoveryRequest::DISCOVERY_START
                                            ? Response::DISCOVERY_SCANNING
                                            : Response::DISCOVERY_IDLE);
            answer.set_request_id(request.header().request_id() + 1000);
            publish(topic, answer, com::PROTOCOL_BT_DISCOVERY);
            answer.set_request_id(request.header().request_id());
            publish(topic, answer, com::PROTOCOL_BT_DISCOVERY);
        });
        ASSERT_TRUE(m_peer->subscribe("system/bt/discovery/request"));
    }

    std::shared_ptr<BluetoothClient> client() {
        auto made = create_bt_client(m_transport);
        EXPECT_TRUE(m_transport->wait_ready(10s));
        return made;
    }

    std::atomic<bool> m_silent{false};
    std::atomic<Response::RpcStatus> m_rpc_status{Response::RPC_OK};
};

TEST_F(BtTest, StatusDecidesAvailableAndOperational) {
    tavi::_internal::ScopedOverrides fast(20);  // polls every 50 ms, for 250 ms
    struct Case {
        int status;  // -1: none sent
        bool available;
        bool operational;
    };
    for (const Case& c : {Case{-1, false, false}, Case{0, false, false}, Case{1, true, false},
                          Case{2, true, true}}) {
        auto bt = client();
        if (c.status >= 0) {
            pb::BtStatus status;
            status.set_status(static_cast<pb::BtStatus::Status>(c.status));
            publish("system/bt/status", status, com::PROTOCOL_BT_STATUS);
        }
        EXPECT_EQ(c.available, bt->available()) << c.status;
        EXPECT_EQ(c.operational, bt->operational()) << c.status;
    }
}

TEST_F(BtTest, ScanTakesTheMatchingAnswerAndDeliversResults) {
    auto bt = client();
    auto collector = std::make_shared<Collector>();
    auto discovery = bt->discovery_manager();
    discovery->register_observer(collector);

    ASSERT_TRUE(discovery->start_scan());
    EXPECT_TRUE(discovery->scanning());
    expect_logged(
        {"[INFO]: [tavi.bt.discovery] RPC response sequence error, will "
         "keep waiting\n",
         "[INFO]: [tavi.bt.discovery] BT device is scanning.\n"});
    ASSERT_TRUE(m_transport->wait_ready(10s));

    pb::BtDiscoveryResults results;
    results.set_status(pb::BtDiscoveryResults::RESULTS_OK);
    auto* device = results.add_devices();
    device->set_address("00:11:22:33:44:55");
    device->set_name("headset");
    device->set_rssi(-60);
    device->set_paired(true);
    device->set_timestamp_discovered(100);
    device->set_timestamp_last_seen(200);
    auto* service = device->add_services();
    service->set_uuid("110b");
    service->set_name("audio sink");
    publish("system/bt/discovery/results", results, com::PROTOCOL_BT_DISCOVERY);
    ASSERT_TRUE(test::wait_until([&] { return collector->results().size() == 1; }));

    const DiscoveryResult last = discovery->scan_results();
    ASSERT_EQ(1u, last.devices().size());
    const Device& found = last.devices()[0];
    EXPECT_EQ("00:11:22:33:44:55", found.address());
    EXPECT_EQ("headset", found.name());
    EXPECT_EQ(-60, found.rssi());
    EXPECT_TRUE(found.paired());
    EXPECT_FALSE(found.connected());
    EXPECT_EQ(100u, found.timestamp_discovered());
    EXPECT_EQ(200u, found.timestamp_last_seen());
    ASSERT_EQ(1u, found.services().size());
    EXPECT_EQ("audio sink", found.services()[0].name);

    // A failed scan reports nothing to the observers.
    results.set_status(pb::BtDiscoveryResults::RESULTS_FAILED);
    publish("system/bt/discovery/results", results, com::PROTOCOL_BT_DISCOVERY);
    EXPECT_TRUE(logged("BT discovery failed, no results received: RESULTS_FAILED\n"));

    EXPECT_TRUE(discovery->stop_scan());
    EXPECT_FALSE(discovery->scanning());
    EXPECT_EQ(1u, collector->results().size());
}

TEST_F(BtTest, RefusedOrUnansweredCallsFail) {
    tavi::_internal::ScopedOverrides fast(100);  // 300 ms for an answer
    auto discovery = client()->discovery_manager();
    m_rpc_status = Response::RPC_FAILED;
    EXPECT_FALSE(discovery->start_scan());
    EXPECT_THAT(log(), HasSubstr("[NOTICE]: [tavi.bt.discovery] Failed to start Device "
                                 "Discovery\n"));
    m_silent = true;
    EXPECT_FALSE(discovery->stop_scan());
    expect_logged({"[INFO]: [tavi.bt.discovery] RPC timed out\n",
                   "[NOTICE]: [tavi.bt.discovery] Failed to stop Device "
                   "Discovery\n"});
    EXPECT_FALSE(discovery->scanning());
}

}  // namespace
}  // namespace ecu::tavi::bt
