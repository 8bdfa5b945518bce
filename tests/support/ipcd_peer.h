// A scripted IPC daemon for tests, on a plain libmosquitto connection (not the library's
// transport): it listens for announcements on "subscription/announcement" and answers each
// with a pb::SubscriptionStatus on "system/ipc/subscriptions" listing every real-time topic
// it has confirmed so far. The report is retained and sent again after every reconnect, so
// a client that subscribes late still gets it.
//
// Thread safe.
#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/mqtt_peer.h"

namespace ecu::tavi::test {

class ScriptedIpcd {
public:
    ScriptedIpcd(const std::string& host, uint16_t port);

    // Connected and listening for announcements.
    bool wait_ready();
    // Topics announced but never confirmed (until confirm() is called for them).
    void ignore(const std::string& topic);
    // Confirms a topic now, announced or not, and publishes the report.
    void confirm(const std::string& topic);

    // Every (client name, topic) pair announced so far, in order of arrival.
    std::vector<std::pair<std::string, std::string>> announcements();
    // Announcements that did not decode as a framed pb::SubscriptionMessage with one topic.
    size_t bad_announcements();
    MqttPeer& peer() { return m_peer; }

private:
    void on_announcement(const MqttPeer::Received& received);
    void publish_status();

    MqttPeer m_peer;
    std::mutex m_mutex;
    std::set<std::string> m_ignored;
    std::set<std::string> m_confirmed;
    std::vector<std::pair<std::string, std::string>> m_announcements;
    size_t m_bad = 0;
};

}  // namespace ecu::tavi::test
