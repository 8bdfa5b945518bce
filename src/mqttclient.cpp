// MqttClient: the transport on libmosquittopp.
//
// Threads
//   One network thread per client (thread_main) runs libmosquitto's loop and every callback:
//   connection observers, subscription observers, SUBACK and PUBACK handling. Application
//   threads call everything else.
//
// Locks and what they guard
//   m_client_mutex (recursive)   the subscription map, the deferred-action queue, the
//                                dispatching flag and m_ipcd_observer.
//   IPCdSubscriptionsObserver::m_mutex   the set of topics IPCd reported.
//   m_ready_mutex                m_ready_events; m_ready_cv is waited on by wait_ready,
//                                wait_until_connected and the retry pauses of the network
//                                thread.
//   m_ack_mutex                  m_pending_acks; m_ack_cv is waited on by publish_wait_ack.
//   m_observers_mutex            the connection observer list (copied, then called unlocked).
//   m_thread_mutex               the std::thread object (thread_start, join).
//   Connection state, started/stop flags and the network thread id are atomics.
//
// Nesting order (outer first)
//   m_client_mutex -> IPCd observer mutex -> m_ready_mutex. Nothing is taken while
//   m_ready_mutex is held, so wait_ready never evaluates the subscription state with it held:
//   it reads an event counter, evaluates, and waits for the counter to change.
//   m_ack_mutex is held across the publish in publish_wait_ack, so the PUBACK cannot be
//   handled before its message id is recorded; nothing of ours is taken under it.
//   libmosquitto holds its callback mutex while it calls us on the network thread, and takes
//   only its packet and state mutexes inside publish/subscribe/unsubscribe; those are thus
//   innermost, and none of our locks is held when a libmosquitto callback setter would run.
//   join() holds m_thread_mutex while it waits for the network thread, so the network thread
//   never takes m_thread_mutex (start() and connect() from an observer skip it).
//
// On the network thread with m_client_mutex held
//   message dispatch (every subscription observer), SUBACK bookkeeping and resubscribeAll
//   after a CONNACK. Observers may therefore call subscribe/unsubscribe (queued while
//   dispatching, replayed afterwards), publish and is_ready; blocking calls (wait_ready,
//   publish_wait_ack, join, connect) are refused there because they would wait for this
//   very thread. Connection observers run with none of our locks held.
#include "mqttclient.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <sstream>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
#include "overrides.h"
#include "sync_call.h"
#include "tavi_assert.h"
#include "topics.h"

namespace ecu::tavi::com {

namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.com.mqttclient");

const char* const kIpcdStatusTopic = "system/ipc/subscriptions";

// libmosquitto's key password callback carries no context, so the pass phrase is one value
// for the whole process: the last client constructed with TLS sets it.
std::mutex s_key_password_mutex;
std::string s_key_password;

int key_password_callback(char* buf, int size, int /*rwflag*/, void* /*userdata*/) {
    std::lock_guard<std::mutex> lock(s_key_password_mutex);
    const int length = std::min(size, static_cast<int>(s_key_password.size()));
    std::memcpy(buf, s_key_password.data(), static_cast<size_t>(std::max(length, 0)));
    return length;
}

bool starts_with(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// Subscribed at the broker as soon as the client is connected, before start(): the
// platform's variables and parameters, and the IPCd report that readiness depends on.
bool is_system_topic(const std::string& topic) {
    return starts_with(topic, "system/var/") || starts_with(topic, "system/sysparam/") ||
           topic == "system/sysparams" || topic == kIpcdStatusTopic;
}

const char* or_null(const std::string& value) {
    return value.empty() ? nullptr : value.c_str();
}

// Application callbacks must not take the network thread down: what they throw is logged
// and dropped, and the next observer still runs.
template <typename Call>
void guarded(const char* what, const std::string& topic, Call&& call) {
    try {
        call();
    } catch (const std::exception& e) {
        ERROR << s_log << "Exception in " << what << topic << ": " << e.what() << " (ignored)";
        ERROR.do_flush();
    } catch (...) {
        ERROR << s_log << "Exception in " << what << topic << ": unknown exception (ignored)";
        ERROR.do_flush();
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Construction

MqttClient::Mosq_Client::Mosq_Client(MqttClient& owner, const char* id, bool clean_session)
    : mosqpp::mosquittopp(id, clean_session), m_owner(owner) {}

// libmosquitto is C: nothing may unwind through it.
void MqttClient::Mosq_Client::on_connect(int rc) {
    guarded("on_connect", "", [&] { m_owner.handle_connect(rc); });
}
void MqttClient::Mosq_Client::on_disconnect(int rc) {
    guarded("on_disconnect", "", [&] { m_owner.handle_disconnect(rc); });
}
void MqttClient::Mosq_Client::on_publish(int mid) {
    guarded("on_publish", "", [&] { m_owner.handle_publish(mid); });
}
void MqttClient::Mosq_Client::on_message(const struct mosquitto_message* message) {
    guarded("message dispatch", "", [&] { m_owner.handle_message(message); });
}
void MqttClient::Mosq_Client::on_subscribe(int mid, int, const int*) {
    guarded("on_subscribe", "", [&] { m_owner.handle_subscribe(mid); });
}
void MqttClient::Mosq_Client::on_log(int level, const char* text) {
    guarded("on_log", "", [&] { m_owner.handle_log(level, text); });
}
void MqttClient::Mosq_Client::on_error() {
    guarded("on_error", "", [&] { m_owner.handle_error(); });
}

MqttClient::MqttClient(std::unique_ptr<config::Configuration>& configuration)
    : m_announce_adapter(PROTOCOL_SUBSCRIPTION) {
    static const int s_lib_init = mosqpp::lib_init();
    (void)s_lib_init;

    m_client_name = configuration->get("client_name");
    const bool clean_session = configuration->get("mqtt_clean_session") != "false";
    m_mosq = std::make_unique<Mosq_Client>(*this, m_client_name.c_str(), clean_session);

    m_protocol_version = MQTT_PROTOCOL_V31;
    m_host = configuration->get("host");
    m_port = 1883;
    m_keepalive = 60;
    m_username = configuration->get("login_username");
    m_password = configuration->get("login_password");

    const std::string& version = configuration->get("mqtt_version");
    if (version == "3.1") {
        m_protocol_version = MQTT_PROTOCOL_V31;
    } else if (version == "3.1.1") {
        m_protocol_version = MQTT_PROTOCOL_V311;
    } else if (!version.empty()) {
        ERROR << s_log << "Invalid MQTT version specified '" << version << "'. Using default.";
        ERROR.do_flush();
    }

    // A value that is no number keeps the defaults from there on.
    try {
        m_port = static_cast<uint16_t>(std::stoi(configuration->get("port")));
        const std::string& keepalive = configuration->get("keepalive");
        if (!keepalive.empty()) {
            m_keepalive = static_cast<uint16_t>(std::stoi(keepalive));
        }
    } catch (const std::exception&) {
    }

    m_tls_enabled = configuration->get("tls.enable") == "true";
    if (m_tls_enabled) {
        m_tls_capath = configuration->get("tls.capath");
        m_tls_cafile = configuration->get("tls.cafile");
        m_tls_certfile = configuration->get("tls.certfile");
        m_tls_keyfile = configuration->get("tls.keyfile");
        m_tls_version = configuration->get("tls.version");
        m_tls_ciphers = configuration->get("tls.ciphers");
        std::lock_guard<std::mutex> lock(s_key_password_mutex);
        s_key_password = configuration->get("tls.key.pwd");
    }
}

MqttClient::~MqttClient() {
    TAVI_ASSERT(!is_network_thread(),
                "the transport must not be destroyed by one of its own observers");
    bool running = false;
    {
        std::lock_guard<std::mutex> lock(m_thread_mutex);
        running = m_thread.joinable();
    }
    if (running) {
        disconnect();
        join();
    }
}

void MqttClient::set_retry_delays(std::chrono::milliseconds first_connect,
                                  std::chrono::milliseconds after_loss) {
    m_first_connect_delay = first_connect;
    m_after_loss_delay = after_loss;
}

std::string MqttClient::broker() const {
    return m_host + ":" + std::to_string(m_port);
}

std::string MqttClient::get_client_name() {
    return m_client_name;
}

bool MqttClient::isConnected() {
    return m_state == CONNECTED;
}

bool MqttClient::is_network_thread() const {
    return m_network_thread_id.load() == std::this_thread::get_id();
}

// ---------------------------------------------------------------------------------------
// Connection and the network thread

void MqttClient::thread_start() {
    const bool own_thread = is_network_thread();
    std::unique_lock<std::mutex> lock(m_thread_mutex, std::defer_lock);
    if (!own_thread) {
        lock.lock();
    }
    if (own_thread || m_thread.joinable()) {
        ERROR << s_log << "Tried to start the ITransportClient for " << broker()
              << " twice! Not allowed!";
        ERROR.do_flush();
        return;
    }
    m_stop_requested = false;
    m_mosq->threaded_set(true);
    m_thread = std::thread(&MqttClient::thread_main, this);
}

bool MqttClient::connect() {
    thread_start();
    if (!_internal::refuse_on_network_thread(*this, s_log, "connect")) {
        wait_until_connected();
    }
    return isConnected();
}

bool MqttClient::wait_until_connected() {
    std::unique_lock<std::mutex> lock(m_ready_mutex);
    while (!(isConnected() || m_stop_requested)) {
        m_ready_cv.wait_for(lock, std::chrono::seconds(5));
    }
    return isConnected();
}

bool MqttClient::retry_pause(std::chrono::milliseconds delay) {
    // The pauses are fixed waits of the protocol: tests that restart the broker shorten them
    // with the others.
    std::unique_lock<std::mutex> lock(m_ready_mutex);
    return !m_ready_cv.wait_for(lock, tavi::_internal::fixed_wait(delay),
                                [this] { return m_stop_requested.load(); });
}

void MqttClient::notify_ready_waiters() {
    {
        std::lock_guard<std::mutex> lock(m_ready_mutex);
        ++m_ready_events;
    }
    m_ready_cv.notify_all();
}

void MqttClient::thread_main() {
    m_network_thread_id = std::this_thread::get_id();
    // DISCONNECTED here means an earlier stop(): connect afresh.
    const int state = m_state;
    if ((state == INITIAL || state == DISCONNECTED) && !do_connect()) {
        // Nobody will ever connect now (bad settings or a stop): release connect().
        m_stop_requested = true;
        notify_ready_waiters();
        m_network_thread_id = std::thread::id();
        return;
    }
    for (;;) {
        int rc = MOSQ_ERR_SUCCESS;
        while (rc == MOSQ_ERR_SUCCESS) {
            rc = m_mosq->loop(-1, 1);
        }
        if (m_stop_requested) {
            break;
        }
        const std::string reason = mosqpp::strerror(rc);
        ERROR << s_log << "MQTT client loop for " << broker() << " returned [" << rc << "] "
              << reason << ". "
              << "Will silently keep trying to reconnect forever...";
        ERROR.do_flush();
        bool reconnected = false;
        while (!reconnected && retry_pause(m_after_loss_delay)) {
            reconnected = m_mosq->reconnect() == MOSQ_ERR_SUCCESS;
        }
        if (!reconnected) {
            break;
        }
        if (m_stop_requested) {
            // disconnect() ran while the socket was being opened and found nothing to close.
            m_mosq->disconnect();
        }
    }
    DEBUG << s_log << "MQTT client loop for " << broker() << " stopped with a clean exit.";
    DEBUG.do_flush();
    m_network_thread_id = std::thread::id();
}

bool MqttClient::do_connect() {
    const int state = m_state;
    if (state == CONNECTING || state == CONNECTED) {
        WARNING << s_log << "Already connected (or connection pending). Not doing anything.";
        WARNING.do_flush();
        return true;
    }

    // The connection error texts put ": " between the broker's host:port and libmosquitto's
    // reason ("... at 127.0.0.1:1883: Connection refused"). Kept on purpose: glued
    // together, the port number and the reason would read as one word.
    int rc = m_mosq->opts_set(MOSQ_OPT_PROTOCOL_VERSION, &m_protocol_version);
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to set MQTT version for MQTT broker at " << broker() << ": "
              << mosqpp::strerror(rc);
        ERROR.do_flush();
        return false;
    }
    DEBUG << s_log << "Successfully set MQTT version to " << m_protocol_version
          << " for MQTT broker at " << broker();
    DEBUG.do_flush();

    // The user name goes as given, also empty: libmosquitto refuses a password without
    // one. Only an empty password means none.
    rc = m_mosq->username_pw_set(m_username.c_str(), or_null(m_password));
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Unable to set login user and password for MQTT broker at " << broker()
              << ": " << mosqpp::strerror(rc);
        ERROR.do_flush();
        return false;
    }
    // The password itself never goes to a log.
    DEBUG << s_log << "Successfully set username='" << m_username << "' and password='"
          << (m_password.empty() ? "" : "***") << "' for MQTT broker at " << broker();
    DEBUG.do_flush();

    if (!setup_tls()) {
        return false;
    }

    m_state = CONNECTING;
    rc = m_mosq->connect(m_host.c_str(), m_port, m_keepalive);
    if (rc != MOSQ_ERR_SUCCESS) {
        // Taken at once: for MOSQ_ERR_ERRNO the text comes from errno.
        const std::string reason = mosqpp::strerror(rc);
        if (!m_stop_requested) {
            ERROR << s_log << "Unable to connect to MQTT broker at " << broker() << ": " << reason
                  << ". Will silently keep trying to reconnect forever...";
            ERROR.do_flush();
        }
        while (rc != MOSQ_ERR_SUCCESS) {
            if (!retry_pause(m_first_connect_delay)) {
                // Not pending any more: a later connect() starts afresh.
                m_state = DISCONNECTED;
                return false;
            }
            rc = m_mosq->reconnect();
        }
    }
    if (m_stop_requested) {
        // disconnect() ran while the socket was being opened and found nothing to close.
        m_mosq->disconnect();
    }
    DEBUG << s_log << "Connected socket to MQTT broker at " << broker() << ". Waiting for ACK.";
    DEBUG.do_flush();
    return true;
}

bool MqttClient::setup_tls() {
    if (!m_tls_enabled) {
        return true;
    }
    // A CA file (or path) alone is a complete set-up: the client authenticates the broker
    // and connects without a certificate of its own, which is what brokers with
    // server-only TLS expect. A client certificate and key are added when configured.
    int rc = m_mosq->tls_set(or_null(m_tls_cafile), or_null(m_tls_capath), or_null(m_tls_certfile),
                             or_null(m_tls_keyfile), &key_password_callback);
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Unable to setup TLS, reason[" << rc << "] : " << mosqpp::strerror(rc);
        ERROR.do_flush();
        return false;
    }
    rc = m_mosq->tls_opts_set(1 /* peer verification required */, or_null(m_tls_version),
                              or_null(m_tls_ciphers));
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Unable to set TLS options, reason[" << rc
              << "] : " << mosqpp::strerror(rc);
        ERROR.do_flush();
        return false;
    }
    return true;
}

int MqttClient::disconnect() {
    m_stop_requested = true;
    notify_ready_waiters();
    const int rc = m_mosq->disconnect();
    if (rc != MOSQ_ERR_SUCCESS && !(rc == MOSQ_ERR_NO_CONN && !isConnected())) {
        ERROR << s_log << "Error while disconnecting from MQTT broker at " << broker() << ": "
              << mosqpp::strerror(rc);
        ERROR.do_flush();
    }
    return rc;
}

void MqttClient::start() {
    m_started = true;
    DEBUG << s_log << "MQTT client state set to started for " << broker();
    DEBUG.do_flush();
    bool running = is_network_thread();
    if (!running) {
        std::lock_guard<std::mutex> lock(m_thread_mutex);
        running = m_thread.joinable();
    }
    if (running) {
        resubscribeAll();
    } else {
        thread_start();
    }
}

void MqttClient::join() {
    if (is_network_thread()) {
        ERROR << s_log << "join() called on the network thread of " << broker()
              << ": a thread cannot wait for itself; not joining.";
        ERROR.do_flush();
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_thread_mutex);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    m_started = false;
}

void MqttClient::run(bool) {
    start();
    join();
}

void MqttClient::stop() {
    disconnect();
    join();
}

void MqttClient::add_connection_observer(std::shared_ptr<IConnectionObserver> observer) {
    if (!observer) {
        ERROR << s_log << "Refusing an empty connection observer";
        ERROR.do_flush();
        return;
    }
    std::lock_guard<std::mutex> lock(m_observers_mutex);
    m_connection_observers.push_back(std::move(observer));
}

std::vector<std::shared_ptr<IConnectionObserver>> MqttClient::connection_observers() {
    std::lock_guard<std::mutex> lock(m_observers_mutex);
    return m_connection_observers;
}

// ---------------------------------------------------------------------------------------
// Callbacks (network thread)

void MqttClient::handle_connect(int rc) {
    if (rc == 0) {
        m_state = CONNECTED;
        // libmosquitto leaves Nagle's algorithm on (and its opts_set refuses to change that),
        // which costs every QoS 1 exchange two delayed-ACK stalls.
        const int fd = m_mosq->socket();
        if (fd >= 0) {
            const int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        }
        NOTICE << s_log << "Connection successfully established with MQTT broker at " << broker();
        NOTICE.do_flush();
        resubscribeAll();
    } else {
        ERROR << s_log << "Failed to connect to MQTT broker at " << broker() << " [" << rc << "] "
              << mosqpp::connack_string(rc);
        ERROR.do_flush();
    }
    for (const auto& observer : connection_observers()) {
        guarded("on_connect", "", [&] { observer->on_connect(rc); });
    }
    notify_ready_waiters();
}

void MqttClient::handle_disconnect(int rc) {
    m_state = DISCONNECTED;
    if (rc == 0) {
        NOTICE << s_log << "Successfully disconnected from MQTT broker at " << broker();
        NOTICE.do_flush();
    } else {
        WARNING << s_log << "Unexpectedly disconnected from MQTT broker at " << broker();
        WARNING.do_flush();
    }
    for (const auto& observer : connection_observers()) {
        guarded("on_disconnect", "", [&] { observer->on_disconnect(rc); });
    }
    notify_ready_waiters();
}

void MqttClient::handle_publish(int mid) {
    bool was_pending = false;
    {
        std::lock_guard<std::mutex> lock(m_ack_mutex);
        was_pending = m_pending_acks.erase(mid) > 0;
    }
    if (was_pending) {
        DEBUG << s_log << "Message " << mid << " acknowledgment received";
        DEBUG.do_flush();
        m_ack_cv.notify_all();
    }
    for (const auto& observer : connection_observers()) {
        guarded("on_publish", "", [&] { observer->on_publish(mid); });
    }
}

void MqttClient::handle_log(int level, const char* text) {
    const auto observers = connection_observers();
    if (observers.empty()) {
        return;
    }
    const std::string line(text != nullptr ? text : "");
    for (const auto& observer : observers) {
        guarded("on_log", "", [&] { observer->on_log(level, line); });
    }
}

void MqttClient::handle_error() {
    ERROR << s_log << "on_error received!";
    ERROR.do_flush();
    for (const auto& observer : connection_observers()) {
        guarded("on_error", "", [&] { observer->on_error(); });
    }
}

void MqttClient::handle_subscribe(int mid) {
    {
        std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
        for (auto& [topic, subscription] : m_subscriptions) {
            if (subscription.mid == mid) {
                subscription.subscribed = true;
                DEBUG << s_log << "Subscription acknowledgment received for '" << topic << "'";
                DEBUG.do_flush();
                break;
            }
        }
    }
    notify_ready_waiters();
}

void MqttClient::handle_message(const struct mosquitto_message* mosq_message) {
    Message message(mosq_message->payload,
                    mosq_message->payload != nullptr
                        ? static_cast<size_t>(std::max(mosq_message->payloadlen, 0))
                        : 0);
    // As delivered: the lower of the publisher's and the subscription's QoS, and retained
    // when the broker sent it from its store.
    message.set_qos(static_cast<std::uint8_t>(mosq_message->qos));
    message.set_retain(mosq_message->retain);
    const std::string topic(mosq_message->topic);
    if (get_log_level() >= 7) {
        DEBUG << s_log << "A message arrived on topic: " << topic;
        DEBUG.do_flush();
    }

    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    {
        // Cleared however the dispatch ends: a flag left set would queue every later
        // subscription change forever.
        struct DispatchScope {
            bool& flag;
            ~DispatchScope() { flag = false; }
        } scope{m_dispatching};
        m_dispatching = true;
        const auto exact = m_subscriptions.find(topic);
        if (exact != m_subscriptions.end()) {
            deliver(exact->second.observers, topic, message);
        } else {
            for (const auto& [filter, subscription] : m_subscriptions) {
                bool matches = false;
                mosqpp::topic_matches_sub(filter.c_str(), topic.c_str(), &matches);
                if (matches) {
                    deliver(subscription.observers, topic, message);
                }
            }
        }
    }

    std::vector<SubActionQueueItem> queue;
    queue.swap(m_action_queue);
    for (auto& item : queue) {
        if (item.action == SubActionQueueItem::SUBSCRIBE) {
            subscribe(item.topic, item.qos, std::move(item.observer));
        } else if (item.action == SubActionQueueItem::UNSUBSCRIBE) {
            unsubscribe(item.topic, std::move(item.observer));
        }
    }
}

void MqttClient::deliver(const std::vector<std::shared_ptr<ISubscriptionObserver>>& observers,
                         const std::string& topic, const Message& message) {
    // The list cannot change underneath: subscription changes are queued while dispatching.
    for (const auto& observer : observers) {
        guarded("message() for topic ", topic, [&] { observer->message(topic, message); });
    }
}

// ---------------------------------------------------------------------------------------
// Publishing

int MqttClient::publish(const std::string& topic, const Message& message) {
    return publish_with_mid(topic, message, nullptr);
}

int MqttClient::publish_with_mid(const std::string& topic, const Message& message, int* mid) {
    // Only IPCd publishes on "rt/" itself; everyone else hands real-time data to IPCd on
    // "rttx/", which relays it.
    std::string rewritten;
    const std::string* target = &topic;
    if (starts_with(topic, "rt/") && m_client_name != "ipcd") {
        rewritten = "rttx/" + topic.substr(3);
        target = &rewritten;
        DEBUG << s_log << "Changing RT topic from '" << topic << "' to '" << rewritten << "'";
        DEBUG.do_flush();
    }
    const auto& data = message.get_data();
    const int qos = message.get_qos();
    const int rc = m_mosq->publish(mid, target->c_str(), static_cast<int>(data.size()), data.data(),
                                   qos, message.get_retain());
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to publish a message with QoS=" << qos << " on topic " << *target
              << ": " << mosqpp::strerror(rc);
        ERROR.do_flush();
    } else {
        DEBUG << s_log << "Successfully published a message with QoS=" << qos << " on topic "
              << *target;
        DEBUG.do_flush();
    }
    return rc;
}

bool MqttClient::publish_wait_ack(const std::string& topic, const Message& message,
                                  std::chrono::seconds timeout) {
    if (message.get_qos() == 0) {
        INFO << s_log << "Incorrect use of MqttClient::publish_wait_ack"
             << " with message QoS:0 does not have the desired effect!";
        INFO.do_flush();
    }
    if (_internal::refuse_on_network_thread(*this, s_log, "publish_wait_ack")) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    // Held across the publish: the acknowledgement is handled only after its id is recorded.
    std::unique_lock<std::mutex> lock(m_ack_mutex);
    int mid = 0;
    if (publish_with_mid(topic, message, &mid) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    m_pending_acks.insert(mid);
    if (m_ack_cv.wait_until(lock, deadline, [&] { return m_pending_acks.count(mid) == 0; })) {
        DEBUG << s_log << "Message " << mid << " published and acknowledged successfully";
        DEBUG.do_flush();
        return true;
    }
    m_pending_acks.erase(mid);
    DEBUG << s_log << "Message " << mid << " timeout while waiting for acknowledgment";
    DEBUG.do_flush();
    return false;
}

bool MqttClient::set_will(const std::string& topic, const Message& message) {
    const auto& data = message.get_data();
    if (data.empty()) {
        ERROR << s_log << "No data has been set in Message instance";
        ERROR.do_flush();
        return false;
    }
    const int rc = m_mosq->will_set(topic.c_str(), static_cast<int>(data.size()), data.data(),
                                    message.get_qos(), message.get_retain());
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to set will to topic " << topic << ": " << mosqpp::strerror(rc);
        ERROR.do_flush();
        return false;
    }
    return true;
}

bool MqttClient::clear_will() {
    if (m_mosq->will_clear() != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to clear the will";
        ERROR.do_flush();
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// Subscriptions

void MqttClient::subscribe(const std::string& topic, unsigned char qos,
                           std::shared_ptr<ISubscriptionObserver> observer) {
    if (!observer) {
        ERROR << s_log << "Refusing an empty observer for topic " << topic;
        ERROR.do_flush();
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    if (m_dispatching) {
        m_action_queue.push_back({SubActionQueueItem::SUBSCRIBE, topic, std::move(observer), qos});
        return;
    }
    auto [entry, is_new] = m_subscriptions.try_emplace(topic);
    MosqSubscription& subscription = entry->second;
    // The broker needs to hear of it only for a new topic or a higher QoS.
    const bool needs_subscribe = is_new || subscription.qos < qos;
    subscription.observers.push_back(std::move(observer));
    subscription.qos = qos;
    if (needs_subscribe) {
        do_subscribe(topic, subscription);
    }
}

void MqttClient::unsubscribe(const std::string& topic,
                             std::shared_ptr<ISubscriptionObserver> observer) {
    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    if (m_dispatching) {
        m_action_queue.push_back({SubActionQueueItem::UNSUBSCRIBE, topic, std::move(observer), 0});
        return;
    }
    const auto entry = m_subscriptions.find(topic);
    if (entry == m_subscriptions.end()) {
        return;
    }
    auto& observers = entry->second.observers;
    const auto found = std::find(observers.begin(), observers.end(), observer);
    if (found != observers.end()) {
        observers.erase(found);
    }
    if (!observers.empty()) {
        return;
    }
    m_subscriptions.erase(entry);
    if (!isConnected()) {
        return;
    }
    const int rc = m_mosq->unsubscribe(nullptr, topic.c_str());
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to unsubscribe from topic " << topic << " "
              << mosqpp::strerror(rc);
        ERROR.do_flush();
    } else {
        DEBUG << s_log << "Successfully unsubscribed from topic " << topic;
        DEBUG.do_flush();
    }
}

void MqttClient::resubscribeAll() {
    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    for (auto& [topic, subscription] : m_subscriptions) {
        do_subscribe(topic, subscription);
    }
}

void MqttClient::do_subscribe(const std::string& topic, MosqSubscription& subscription) {
    // Before start() only system topics reach the broker; the rest follow from start().
    if (!isConnected() || !(m_started || is_system_topic(topic))) {
        return;
    }
    int mid = 0;
    const int rc = m_mosq->subscribe(&mid, topic.c_str(), subscription.qos);
    if (rc != MOSQ_ERR_SUCCESS) {
        ERROR << s_log << "Failed to (re)subscribe to topic " << topic << " [" << rc << "] "
              << mosqpp::strerror(rc);
        ERROR.do_flush();
        return;
    }
    subscription.mid = mid;
    DEBUG << s_log << "Successfully (re)subscribed to topic " << topic << " with mid=" << mid;
    DEBUG.do_flush();
    announce_rt_topic(topic, subscription);
}

void MqttClient::announce_rt_topic(const std::string& topic, MosqSubscription& subscription) {
    if (!starts_with(topic, "rt/")) {
        return;
    }
    subscription.announce_pending = true;
    pb::SubscriptionMessage announcement;
    announcement.add_topics(topic);
    announcement.set_client_name(m_client_name);
    auto framed = m_announce_adapter.serialize(announcement);
    if (!framed) {
        return;  // the adapter has logged why
    }
    // QoS 0 as built: an announcement lost with the connection is sent again on reconnect.
    publish(_internal::kAnnouncementTopic, framed.value());
}

std::pair<bool, bool> MqttClient::is_all_subscribed_and_announced() {
    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    bool all_subscribed = true;
    bool all_announced = true;
    for (auto& [topic, subscription] : m_subscriptions) {
        if (!subscription.subscribed) {
            all_subscribed = false;
        }
        if (!subscription.announce_pending) {
            continue;
        }
        if (m_ipcd_observer && m_ipcd_observer->is_active(topic)) {
            subscription.announce_pending = false;
            DEBUG << s_log << "subscribed topic " << topic
                  << " is now active in IPCd subscriptions list";
            DEBUG.do_flush();
        } else {
            all_announced = false;
        }
    }
    return {all_subscribed, all_announced};
}

// ---------------------------------------------------------------------------------------
// Readiness

bool MqttClient::is_ready() {
    if (!m_started || !isConnected()) {
        return false;
    }
    const auto [subscribed, announced] = is_all_subscribed_and_announced();
    const bool ready = subscribed && announced;
    DEBUG << s_log << "is_ready: " << (ready ? "true" : "false") << ", all is "
          << (subscribed ? "" : "NOT ") << "subscribed"
          << " and all is " << (announced ? "" : "NOT ") << "announced";
    DEBUG.do_flush();
    return ready;
}

bool MqttClient::wait_ready(std::chrono::seconds timeout) {
    if (!m_started) {
        return false;
    }
    if (is_network_thread()) {
        // Inside an observer: a ready client has nothing to wait for, so only a wait that
        // would block the thread delivering what it waits for is refused.
        if (!is_ready()) {
            _internal::refuse_on_network_thread(*this, s_log, "wait_ready");
            return false;
        }
        drop_ipcd_observer();
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    {
        std::unique_lock<std::mutex> lock(m_ready_mutex);
        if (!m_ready_cv.wait_until(lock, deadline,
                                   [this] { return isConnected() || m_stop_requested; })) {
            lock.unlock();
            NOTICE << s_log << "wait_ready timed out waiting for connection";
            NOTICE.do_flush();
            return false;
        }
        if (!isConnected()) {
            return false;
        }
    }
    {
        std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
        if (!is_all_subscribed_and_announced().second && !m_ipcd_observer) {
            INFO << s_log << "Creating observer and subscribing";
            INFO.do_flush();
            m_ipcd_observer = std::make_shared<IPCdSubscriptionsObserver>(*this);
            subscribe(kIpcdStatusTopic, 1, m_ipcd_observer);
        }
    }
    for (;;) {
        // Read the event count before evaluating, so an event in between is not missed.
        uint64_t seen = 0;
        {
            std::lock_guard<std::mutex> lock(m_ready_mutex);
            seen = m_ready_events;
        }
        const auto [subscribed, announced] = is_all_subscribed_and_announced();
        if (subscribed && announced) {
            break;
        }
        std::unique_lock<std::mutex> lock(m_ready_mutex);
        const bool woken = m_ready_cv.wait_until(
            lock, deadline, [&] { return m_ready_events != seen || m_stop_requested; });
        if (m_stop_requested) {
            return false;
        }
        if (!woken) {
            lock.unlock();
            NOTICE << s_log << "wait_ready timed out waiting for subscriptions";
            NOTICE.do_flush();
            NOTICE << s_log << describe_missing();
            NOTICE.do_flush();
            return false;
        }
    }
    drop_ipcd_observer();
    return true;
}

void MqttClient::drop_ipcd_observer() {
    std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
    if (m_ipcd_observer) {
        INFO << s_log << "Remove observer and unsubscribe";
        INFO.do_flush();
        unsubscribe(kIpcdStatusTopic, m_ipcd_observer);
        m_ipcd_observer.reset();
    }
}

std::string MqttClient::describe_missing() {
    constexpr size_t kListed = 10;
    std::vector<std::string> unacknowledged;
    std::vector<std::string> unconfirmed;
    {
        std::lock_guard<std::recursive_mutex> lock(m_client_mutex);
        for (const auto& [topic, subscription] : m_subscriptions) {
            if (!subscription.subscribed) {
                unacknowledged.push_back(topic);
            }
            if (subscription.announce_pending) {
                unconfirmed.push_back(topic);
            }
        }
    }
    std::ostringstream out;
    const auto list = [&](const std::vector<std::string>& topics) {
        if (topics.empty()) {
            out << "none";
        }
        for (size_t i = 0; i < topics.size() && i < kListed; ++i) {
            out << (i > 0 ? ", '" : "'") << topics[i] << "'";
        }
        if (topics.size() > kListed) {
            out << " and " << topics.size() - kListed << " more";
        }
    };
    out << "Topics not acknowledged by the broker: ";
    list(unacknowledged);
    out << "; real-time topics not confirmed by IPCd: ";
    list(unconfirmed);
    return out.str();
}

// ---------------------------------------------------------------------------------------
// IPCd reports

IPCdSubscriptionsObserver::IPCdSubscriptionsObserver(MqttClient& client)
    : m_client(client), m_adapter(PROTOCOL_SUBSCRIPTION) {}

void IPCdSubscriptionsObserver::message(const std::string&, const Message& message) {
    auto status = m_adapter.deserialize(message);
    if (!status) {
        return;  // the adapter has logged why
    }
    const pb::SubscriptionStatus& report = status.value();
    DEBUG << s_log << "IPCd announced " << report.subscribed_topics_size() << " subscribed of "
          << report.available_topics_size() << " available RT topics";
    DEBUG.do_flush();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_topics.insert(report.subscribed_topics().begin(), report.subscribed_topics().end());
    }
    m_client.notify_ready_waiters();
}

bool IPCdSubscriptionsObserver::is_active(const std::string& topic) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_topics.count(topic) > 0;
}

}  // namespace ecu::tavi::com
