/// \file
/// Exchanges data with the remote backend through the unit's backend proxy: content goes out
/// on "be/publish" with a request id, the proxy reports per-request results on
/// "app/<client name>/be/response", and content for the application arrives raw on
/// "app/cid/<content id>". The proxy's connection state ("be/status") and send-queue state
/// ("be/queue/status") are followed as well.
///
/// Thread safety: every operation may be called from any thread; publish() from several at
/// once. Callbacks run on the transport's network thread (but see publish()). Content
/// callbacks run with the client's mutex held: one must not call into the same client, and
/// a lock it takes must never be held by the application while it calls into the client
/// (lock-order inversion).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"

namespace ecu::tavi::com {

/// Sends content to the backend and receives content from it, through the backend proxy.
///
/// Thread safe; no operation blocks on the network. Callbacks run on the transport's network
/// thread, except one: a publish() that fails calls its response callback on the calling
/// thread. The client keeps every callback given to it: connection and queue-status
/// callbacks for its whole life, a response callback until the request's last status, a
/// content callback until it is replaced or cleared. Destroy the client on any thread but
/// the network thread; it holds the transport.
class TAVI_EXPORT BackendClient {
public:
    /// The proxy's connection to the backend.
    enum class ConnectionState {
        Error = 0,         ///< the proxy reports any other state
        Disconnected = 1,  ///< not connected (also before the first status)
        Connected = 2,     ///< connected
    };

    /// The proxy's send queue, as last reported.
    struct QueueStatus {
        std::uint32_t size = 0;        ///< capacity of the queue
        std::uint32_t available = 0;   ///< free places
        std::uint32_t in_flight = 0;   ///< contents being sent
        std::uint32_t kl30robust = 0;  ///< contents kept across a power cycle
        /// When it was received, milliseconds since boot.
        std::uint64_t received_ms = 0;
    };

    /// Called with the request id and the proxy's status of that request: 2 (queued) is
    /// followed by a further answer, every other status is the last one. Runs without the
    /// client's mutex, so it may call into the client.
    using ResponseCallback = std::function<void(std::uint64_t, int)>;

    /// How the proxy is to handle one content.
    struct TxOptions {
        std::uint32_t priority = 0;  ///< the proxy's priority of the content
        /// How long the proxy may keep trying, in seconds.
        std::uint32_t ttl_s = 0;
        /// Keep the content queued across a power cycle.
        bool kl30robust = false;
        bool compress = false;  ///< let the proxy compress the content
        /// Queue the content while the backend is unreachable instead of dropping it.
        bool store_offline = false;
        /// Set: the proxy reports the results of the request.
        ResponseCallback response_callback;
    };

    /// Told every connection state the proxy reports. Runs without the client's mutex.
    using ConnectionCallback = std::function<void(ConnectionState)>;
    /// Told every queue status the proxy reports. Runs without the client's mutex.
    using QueueStatusCallback = std::function<void(const QueueStatus&)>;
    /// Given the content id and the raw content (valid during the call only). Runs with the
    /// client's mutex held: see the file's thread rules.
    using ContentCallback = std::function<void(unsigned int, const Message&)>;

    /// Subscribes the response topic and "be/status". The transport must not be empty.
    explicit BackendClient(std::shared_ptr<ITransportClient> transport);
    /// Unsubscribes everything it subscribed. Not from inside one of its callbacks.
    ~BackendClient();
    BackendClient(const BackendClient&) = delete;
    BackendClient& operator=(const BackendClient&) = delete;

    /// Whether the proxy last reported a connection to the backend; false before any report.
    bool is_connected();
    /// Subscribes "be/queue/status" on first use; the last status received (zeros before).
    QueueStatus queue_status();
    /// Adds a connection callback for the life of the client (there is no removal).
    void add_connection_callback(ConnectionCallback callback);
    /// Adds a queue-status callback for the life of the client and subscribes
    /// "be/queue/status" if that has not happened yet.
    void add_queue_status_callback(QueueStatusCallback callback);
    /// Replaces the callback of a content id; the topic is subscribed once per id. Id 0 is
    /// no content id: the callback is kept but nothing is subscribed (WARNING line).
    void add_content_callback(unsigned int content_id, ContentCallback callback);
    /// Drops the callback of a content id and unsubscribes its topic; a WARNING line when
    /// there is none. From another thread it waits for a running content callback, so once it
    /// returns the callback is not called again.
    void clear_content_callbacks(unsigned int content_id);

    /// Sends the payload as it is; returns the request id (1, 2, ... per client), or 0 when
    /// nothing was sent. A failed send calls the response callback with status 1, on the
    /// calling thread, before publish() returns. An empty payload is refused (NOTICE line,
    /// no callback).
    std::uint64_t publish(const Message& data, unsigned int content_id, const TxOptions& options);

private:
    class ResponseObserver;
    class StatusObserver;
    class QueueStatusObserver;
    class ContentObserver;

    void on_response(const std::string& topic, const Message& message);
    void on_status(const std::string& topic, const Message& message);
    void on_queue_status(const std::string& topic, const Message& message);
    void on_content(const std::string& topic, const Message& message);
    void subscribe_queue_status();

    std::string m_client_name;
    std::shared_ptr<ITransportClient> m_transport;
    std::mutex m_mutex;
    std::map<std::uint64_t, ResponseCallback> m_response_callbacks;
    std::vector<ConnectionCallback> m_connection_callbacks;
    std::vector<QueueStatusCallback> m_queue_status_callbacks;
    std::shared_ptr<ISubscriptionObserver> m_response_observer;
    std::shared_ptr<ISubscriptionObserver> m_status_observer;
    std::shared_ptr<ISubscriptionObserver> m_queue_status_observer;
    std::shared_ptr<ISubscriptionObserver> m_content_observer;
    std::map<unsigned int, ContentCallback> m_content_callbacks;
    ConnectionState m_connection_state = ConnectionState::Disconnected;
    QueueStatus m_queue_status;
    std::atomic<bool> m_queue_status_subscribed{false};
    std::atomic<std::uint64_t> m_request_id{0};
};

/// Empty, with an ERROR line, when there is no transport.
TAVI_EXPORT std::shared_ptr<BackendClient> create_be_client(
    std::shared_ptr<ITransportClient>& transport);

}  // namespace ecu::tavi::com
