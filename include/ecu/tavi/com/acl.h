/// \file
/// Creates and removes users of the unit's MQTT broker, REST and websocket interfaces, and
/// grants them the topics they may subscribe to and publish on. Requests go to the
/// access-control daemon ("system/aclifd/request"; REST access lists to the REST gateway on
/// "system/mdpd/request"), one answer per request on "app/<client name>/acl/response".
/// User names and topics are checked before anything is sent. Only "vcm" units offer it.
///
/// Thread safety: every operation may be called from any thread; requests of one client are
/// sent one at a time. Each blocks until the answer (at most 150 s), so none may be called
/// from inside an observer: on the transport's network thread it fails at once.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/pb/acl.pb.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::com {

/// Why an ACL request failed.
enum class AclResponseError : int {
    INVALID_REQUEST = 1,  ///< a user name, topic, port or list was refused, or nothing to send
    SERIALIZATION = 2,    ///< the request could not be framed
    FAILED = 3,        ///< not sent, no answer in time, refused on the network thread, or failure
    REFUSED = 4,       ///< the daemon refused the request
    DAEMON_ERROR = 5,  ///< any other answer of the daemon
};

/// Platform features whose standard topics add_mqtt_acl() grants besides the listed ones.
struct TaviFeatures {
    bool uds = false;            ///< diagnostics: "system/udsifd/+", "app/%c/uds/+"
    bool variables = false;      ///< ECU variables: "system/var/+"
    bool variables_ext = false;  ///< the same as variables
    bool pgn = false;            ///< PGN request tokens
    bool sysparams = false;      ///< system parameters, reading and writing
    bool backend = false;        ///< the backend proxy
};

/// Success carries false; test has_value(), not the bool.
using AclResult = Result<bool, AclResponseError>;

/// Manages users and their topics at the unit's access-control daemon.
///
/// Every operation checks its arguments first (an empty or malformed user name, an empty
/// password, a topic that is not allowed: INVALID_REQUEST with a log line, nothing sent),
/// then sends one request and blocks until the answer, at most 150 s. Made by
/// create_acl_client(). Thread safe: requests of one client are sent one at a time.
/// Refused (FAILED, with an ERROR line) on the transport's network thread.
class TAVI_EXPORT AclClient {
public:
    virtual ~AclClient() = default;
    /// Creates a broker user.
    virtual AclResult add_mqtt_user(const std::string& user, const std::string& password) = 0;
    /// Grants a broker user the topics it may subscribe to and publish on, together with
    /// the standard topics of the given features and of its remote log control. At least one
    /// list (or feature) must give a topic.
    ///
    /// "%c" in a topic stands for the user's client name; publish topics under "rt/" are
    /// granted as "rttx/", where real-time data is published.
    virtual AclResult add_mqtt_acl(const std::string& user,
                                   const std::vector<std::string>& subscribe,
                                   const std::vector<std::string>& publish,
                                   const TaviFeatures& features) = 0;
    /// Removes a broker user.
    virtual AclResult rm_mqtt_user(const std::string& user) = 0;
    /// Creates a websocket user on the given port, which must lie in 1024..65535.
    virtual AclResult add_websocket_user(const std::string& user, const std::string& password,
                                         unsigned int port) = 0;
    /// Removes a websocket user.
    virtual AclResult rm_websocket_user(const std::string& user) = 0;
    /// Creates a REST user.
    virtual AclResult add_rest_user(const std::string& user, const std::string& password) = 0;
    /// Removes a REST user.
    virtual AclResult rm_rest_user(const std::string& user) = 0;
    /// Grants a REST user its topics; sent to the REST gateway ("system/mdpd/request").
    virtual AclResult add_rest_acl(const std::string& user,
                                   const std::vector<std::string>& subscribe,
                                   const std::vector<std::string>& publish) = 0;
};

/// The AclClient on the shared transport. Holds the transport; its destructor unsubscribes
/// and must not run on the network thread.
class TAVI_EXPORT AclClientImpl : public AclClient {
public:
    /// Subscribes "app/<client name>/acl/response" for the life of the client. The transport
    /// must not be empty; the unit is not checked (create_acl_client() does that).
    explicit AclClientImpl(std::shared_ptr<ITransportClient>& transport);
    /// Unsubscribes the answer topic.
    ~AclClientImpl() override;
    AclClientImpl(const AclClientImpl&) = delete;
    AclClientImpl& operator=(const AclClientImpl&) = delete;

    ///@{
    AclResult add_mqtt_user(const std::string& user, const std::string& password) override;
    AclResult add_mqtt_acl(const std::string& user, const std::vector<std::string>& subscribe,
                           const std::vector<std::string>& publish,
                           const TaviFeatures& features) override;
    AclResult rm_mqtt_user(const std::string& user) override;
    AclResult add_websocket_user(const std::string& user, const std::string& password,
                                 unsigned int port) override;
    AclResult rm_websocket_user(const std::string& user) override;
    AclResult add_rest_user(const std::string& user, const std::string& password) override;
    AclResult rm_rest_user(const std::string& user) override;
    AclResult add_rest_acl(const std::string& user, const std::vector<std::string>& subscribe,
                           const std::vector<std::string>& publish) override;
    ///@}

    /// Sends a complete request and waits for the answer; whatever answer arrives during
    /// the wait ends it. INVALID_REQUEST without interface protocol or action.
    AclResult send_request(pb::AclIfMessage& request, unsigned int timeout_ms);

private:
    class AclRespObserver;

    template <int P>
    AclResult add_user(const std::string& user, const std::string& password);
    template <int P>
    AclResult rm_user(const std::string& user);
    template <int P>
    AclResult add_acl(const std::string& user, const std::vector<std::string>& subscribe,
                      const std::vector<std::string>& publish);
    /// A request of this client with protocol and action filled in.
    pb::AclIfMessage request(int protocol, int action, const std::string& user) const;
    void store_response(const pb::AclIfMessage& response);

    std::shared_ptr<ITransportClient> m_transport;
    std::string m_client_name;
    std::shared_ptr<AclRespObserver> m_observer;
    pb::AclIfMessage m_last_response;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    /// Counts the answers, so that a wait knows one arrived.
    std::uint64_t m_responses = 0;
};

/// Reads the unit's "hwversion" (up to 60 s) through a variables client of its own;
/// (false, empty), with an ERROR line, unless it is "vcm" or without a transport. Blocks:
/// call it once the transport is connected, and not on its network thread (there the
/// version cannot be read, so no client is made). Create it before another variables client of the
/// same transport has read "hwversion": the transport subscribes a topic once, so a second reader
/// of it would not get the retained value again.
TAVI_EXPORT std::pair<bool, std::shared_ptr<AclClient>> create_acl_client(
    std::shared_ptr<ITransportClient>& transport);

}  // namespace ecu::tavi::com
