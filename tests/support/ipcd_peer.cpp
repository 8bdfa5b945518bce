#include "support/ipcd_peer.h"

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/subscription.pb.h"

namespace ecu::tavi::test {

namespace {
const char* const kAnnouncementTopic = "subscription/announcement";
const char* const kStatusTopic = "system/ipc/subscriptions";
}  // namespace

ScriptedIpcd::ScriptedIpcd(const std::string& host, uint16_t port) : m_peer(host, port) {
    m_peer.set_handler([this](const MqttPeer::Received& received) {
        if (received.topic == kAnnouncementTopic) {
            on_announcement(received);
        }
    });
    m_peer.set_connect_handler([this] { publish_status(); });
}

bool ScriptedIpcd::wait_ready() {
    return m_peer.subscribe(kAnnouncementTopic, 1);
}

void ScriptedIpcd::ignore(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_ignored.insert(topic);
}

void ScriptedIpcd::confirm(const std::string& topic) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ignored.erase(topic);
        m_confirmed.insert(topic);
    }
    publish_status();
}

std::vector<std::pair<std::string, std::string>> ScriptedIpcd::announcements() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_announcements;
}

size_t ScriptedIpcd::bad_announcements() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bad;
}

void ScriptedIpcd::on_announcement(const MqttPeer::Received& received) {
    const com::PbInternalMessageAdapter<pb::SubscriptionMessage> adapter(
        com::PROTOCOL_SUBSCRIPTION);
    auto decoded =
        adapter.deserialize(com::Message(received.payload.data(), received.payload.size()));
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!decoded || decoded.value().topics_size() != 1) {
            ++m_bad;
            return;
        }
        const std::string& topic = decoded.value().topics(0);
        m_announcements.emplace_back(decoded.value().client_name(), topic);
        if (m_ignored.count(topic) == 0) {
            m_confirmed.insert(topic);
        }
    }
    publish_status();
}

void ScriptedIpcd::publish_status() {
    const com::PbInternalMessageAdapter<pb::SubscriptionStatus> adapter(com::PROTOCOL_SUBSCRIPTION);
    pb::SubscriptionStatus status;
    // Built and published under the lock, so the retained report is always the newest one.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const std::string& topic : m_confirmed) {
        status.add_subscribed_topics(topic);
        status.add_available_topics(topic);
    }
    status.add_available_topics("rt/only/available");
    auto framed = adapter.serialize(status);
    if (framed) {
        m_peer.publish(kStatusTopic, framed.value().get_data(), 1, true);
    }
}

}  // namespace ecu::tavi::test
