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

enum class AclResponseError : int {
    INVALID_REQUEST = 1,  ///< a user name, topic, port or list was refused, or nothing to send
    SERIALIZATION = 2,    ///< the request could not be framed
    FAILED = 3,           ///< no answer in time, or the daemon reports failure
    REFUSED = 4,          ///< the daemon refused the request
    DAEMON_ERROR = 5,     ///< any other answer of the daemon
};

/// Platform features whose standard topics add_mqtt_acl() grants besides the listed ones.
struct TaviFeatures {
    bool uds = false;
    bool variables = false;
    bool variables_ext = false;
    bool pgn = false;
    bool sysparams = false;
    bool backend = false;
};

/// Success carries false; test has_value(), not the bool.
using AclResult = Result<bool, AclResponseError>;

class TAVI_EXPORT AclClient {
public:
    virtual ~AclClient() = default;
    virtual AclResult add_mqtt_user(const std::string& user, const std::string& password) = 0;
    /// "%c" in a topic stands for the user's client name; publish topics under "rt/" are
    /// granted as "rttx/", where real-time data is published.
    virtual AclResult add_mqtt_acl(const std::string& user,
                                   const std::vector<std::string>& subscribe,
                                   const std::vector<std::string>& publish,
                                   const TaviFeatures& features) = 0;
    virtual AclResult rm_mqtt_user(const std::string& user) = 0;
    /// The port must lie in 1024..65535.
    virtual AclResult add_websocket_user(const std::string& user, const std::string& password,
                                         unsigned int port) = 0;
    virtual AclResult rm_websocket_user(const std::string& user) = 0;
    virtual AclResult add_rest_user(const std::string& user, const std::string& password) = 0;
    virtual AclResult rm_rest_user(const std::string& user) = 0;
    virtual AclResult add_rest_acl(const std::string& user,
                                   const std::vector<std::string>& subscribe,
                                   const std::vector<std::string>& publish) = 0;
};

class TAVI_EXPORT AclClientImpl : public AclClient {
public:
    /// Subscribes "app/<client name>/acl/response" for the life of the client.
    explicit AclClientImpl(std::shared_ptr<ITransportClient>& transport);
    ~AclClientImpl() override;
    AclClientImpl(const AclClientImpl&) = delete;
    AclClientImpl& operator=(const AclClientImpl&) = delete;

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

    /// Sends a complete request and waits for the answer; whatever answer arrives during
    /// the wait ends it.
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
/// (false, empty) unless it is "vcm". Create it before another variables client of the same
/// transport has read "hwversion": the transport subscribes a topic once, so a second reader
/// of it would not get the retained value again.
TAVI_EXPORT std::pair<bool, std::shared_ptr<AclClient>> create_acl_client(
    std::shared_ptr<ITransportClient>& transport);

}  // namespace ecu::tavi::com
