#include "ecu/tavi/com/acl.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/var/variables.h"
#include "sync_call.h"
#include "topics.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.com.acl");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::com {

namespace {

using Adapter = PbInternalMessageAdapter<pb::AclIfMessage>;

const char* const kAclifdTopic = "system/aclifd/request";
const char* const kMdpdTopic = "system/mdpd/request";
const unsigned int kRequestTimeoutMs = 150000;
const int kHwversionTimeoutMs = 60000;
const char* const kSpecialChars = "+#/%_";

// Topics only the platform itself may subscribe to.
const std::vector<std::string> kNotAllowedSubscriptions = {
    "system/udsifd/request", "system/aclifd/request", "system/mdpd/request", "be/publish",
    "app/cid/+"};

AclResult refuse(AclResponseError error) {
    return AclResult::err(error);
}

AclResult invalid(const std::string& text) {
    ERROR << s_log << text;
    ERROR.do_flush();
    return refuse(AclResponseError::INVALID_REQUEST);
}

// ASCII only, whatever locale the application has set.
bool is_alnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool is_special(char c) {
    return c != '\0' && std::strchr(kSpecialChars, c) != nullptr;
}

std::string proto_name(int protocol) {
    return pb::AclInterface::Protocol_Name(static_cast<pb::AclInterface::Protocol>(protocol));
}

bool valid_user_name(const std::string& user) {
    if (user.empty() || !std::all_of(user.begin(), user.end(), is_alnum)) {
        ERROR << s_log << "Username contains invalid chars, only alphanumeric is allowed";
        ERROR.do_flush();
        return false;
    }
    return true;
}

bool log_invalid_topic(const std::string& text) {
    ERROR << s_log << text;
    ERROR.do_flush();
    return false;
}

bool valid_topic(const std::string& topic) {
    if (topic.empty()) {
        return log_invalid_topic("Empty topic cannot be used");
    }
    if (!std::all_of(topic.begin(), topic.end(),
                     [](char c) { return is_alnum(c) || is_special(c); })) {
        return log_invalid_topic("Topic " + topic + " contains invalid characters");
    }
    if (!is_alnum(topic.front())) {
        return log_invalid_topic("Topic " + topic + " starts with invalid characters");
    }
    if (topic.back() == '%' || topic.back() == '/') {
        return log_invalid_topic("Topic " + topic + " ends with invalid characters");
    }
    for (size_t i = 1; i < topic.size(); ++i) {
        if (topic[i] == topic[i - 1] && is_special(topic[i])) {
            return log_invalid_topic("Topic " + topic + " contains illegal character sequence");
        }
    }
    return true;
}

bool all_valid(const std::vector<std::string>& topics) {
    return std::all_of(topics.begin(), topics.end(), valid_topic);
}

void append(std::vector<std::string>& list, std::initializer_list<const char*> topics) {
    list.insert(list.end(), topics.begin(), topics.end());
}

}  // namespace

class AclClientImpl::AclRespObserver : public ISubscriptionObserver {
public:
    explicit AclRespObserver(AclClientImpl* client) : m_client(client) {}

    void message(const std::string& topic, const Message& message) override {
        if (m_expected_topic.empty()) {
            m_expected_topic = _internal::app_topic(m_client->m_client_name, "/acl/response");
        }
        const auto response = Adapter(PROTOCOL_ACL).deserialize(message);
        if (!response) {
            ERROR << s_log << "Unable to deserialize message for topic: " << topic
                  << ", unable to continue";
            ERROR.do_flush();
            return;
        }
        if (topic != m_expected_topic) {
            return;
        }
        if (!response.value().has_response()) {
            ERROR << s_log << "Result is not available on message for topic: " << topic
                  << ", unable to continue";
            ERROR.do_flush();
            return;
        }
        m_client->store_response(response.value());
    }

private:
    AclClientImpl* m_client;
    // Only ever touched on the network thread.
    std::string m_expected_topic;
};

AclClientImpl::AclClientImpl(std::shared_ptr<ITransportClient>& transport)
    : m_transport(transport),
      m_client_name(transport->get_client_name()),
      m_observer(std::make_shared<AclRespObserver>(this)) {
    m_transport->subscribe(_internal::app_topic(m_client_name, "/acl/response"), 0, m_observer);
}

AclClientImpl::~AclClientImpl() {
    m_transport->unsubscribe(_internal::app_topic(m_client_name, "/acl/response"), m_observer);
}

void AclClientImpl::store_response(const pb::AclIfMessage& response) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_last_response = response;
        ++m_responses;
    }
    m_cv.notify_all();
}

pb::AclIfMessage AclClientImpl::request(int protocol, int action, const std::string& user) const {
    pb::AclIfMessage message;
    message.mutable_interface()->set_protocol(static_cast<pb::AclInterface::Protocol>(protocol));
    auto* body = message.mutable_request();
    body->set_client_name(m_client_name);
    body->set_action(static_cast<pb::AclInterfaceRequest::Action>(action));
    body->set_username(user);
    return message;
}

template <int P>
AclResult AclClientImpl::add_user(const std::string& user, const std::string& password) {
    if (user.empty() || password.empty()) {
        return invalid("Username or password for " + proto_name(P) + " cannot be empty");
    }
    if (!valid_user_name(user)) {
        return refuse(AclResponseError::INVALID_REQUEST);
    }
    auto message = request(P, pb::AclInterfaceRequest::ADD_USER, user);
    message.mutable_request()->set_password(password);
    return send_request(message, kRequestTimeoutMs);
}

template <int P>
AclResult AclClientImpl::rm_user(const std::string& user) {
    if (user.empty()) {
        return invalid("Username for " + proto_name(P) + " cannot be empty");
    }
    if (!valid_user_name(user)) {
        return refuse(AclResponseError::INVALID_REQUEST);
    }
    auto message = request(P, pb::AclInterfaceRequest::REMOVE_USER, user);
    return send_request(message, kRequestTimeoutMs);
}

template <int P>
AclResult AclClientImpl::add_acl(const std::string& user, const std::vector<std::string>& subscribe,
                                 const std::vector<std::string>& publish) {
    if (user.empty()) {
        return invalid("Username for " + proto_name(P) + " cannot be empty");
    }
    if (!valid_user_name(user)) {
        return refuse(AclResponseError::INVALID_REQUEST);
    }
    for (const auto& topic : subscribe) {
        if (std::find(kNotAllowedSubscriptions.begin(), kNotAllowedSubscriptions.end(), topic) !=
            kNotAllowedSubscriptions.end()) {
            return invalid("Topic list for subscription contains not allowed topics");
        }
    }
    if (!all_valid(subscribe)) {
        return invalid("Subscription list contains invalid topics");
    }
    if (!all_valid(publish)) {
        return invalid("Publish list contains invalid topics");
    }
    auto message = request(P, pb::AclInterfaceRequest::ADD_ACL, user);
    auto* body = message.mutable_request();
    for (const auto& topic : subscribe) {
        body->add_subscribe_topics(topic);
    }
    for (const auto& topic : publish) {
        body->add_publish_topics(topic);
    }
    return send_request(message, kRequestTimeoutMs);
}

AclResult AclClientImpl::add_mqtt_user(const std::string& user, const std::string& password) {
    return add_user<pb::AclInterface::MQTT>(user, password);
}

AclResult AclClientImpl::rm_mqtt_user(const std::string& user) {
    return rm_user<pb::AclInterface::MQTT>(user);
}

AclResult AclClientImpl::rm_websocket_user(const std::string& user) {
    return rm_user<pb::AclInterface::WEBSOCKET>(user);
}

AclResult AclClientImpl::add_rest_user(const std::string& user, const std::string& password) {
    return add_user<pb::AclInterface::REST>(user, password);
}

AclResult AclClientImpl::rm_rest_user(const std::string& user) {
    return rm_user<pb::AclInterface::REST>(user);
}

AclResult AclClientImpl::add_rest_acl(const std::string& user,
                                      const std::vector<std::string>& subscribe,
                                      const std::vector<std::string>& publish) {
    return add_acl<pb::AclInterface::REST>(user, subscribe, publish);
}

AclResult AclClientImpl::add_websocket_user(const std::string& user, const std::string& password,
                                            unsigned int port) {
    const int protocol = pb::AclInterface::WEBSOCKET;
    if (user.empty() || password.empty()) {
        return invalid("Username or password for " + proto_name(protocol) + " cannot be empty");
    }
    if (!valid_user_name(user)) {
        return refuse(AclResponseError::INVALID_REQUEST);
    }
    if (port < 1024) {
        return invalid("Requested port is privileged and cannot be used");
    }
    if (port > 65535) {
        return invalid("Requested port is too high and cannot be used");
    }
    auto message = request(protocol, pb::AclInterfaceRequest::ADD_USER, user);
    message.mutable_request()->set_password(password);
    message.mutable_request()->set_port(port);
    return send_request(message, kRequestTimeoutMs);
}

AclResult AclClientImpl::add_mqtt_acl(const std::string& user,
                                      const std::vector<std::string>& subscribe,
                                      const std::vector<std::string>& publish,
                                      const TaviFeatures& features) {
    std::vector<std::string> sub = subscribe;
    std::vector<std::string> pub = publish;
    // "%c" goes to the daemon as it is: the broker puts in the user's client name.
    if (features.uds) {
        append(pub, {"system/udsifd/+"});
        append(sub, {"app/%c/uds/+"});
    }
    if (features.variables || features.variables_ext) {
        append(sub, {"system/var/+"});
    }
    if (features.pgn) {
        append(pub, {"system/pgnreqd/request"});
        append(sub, {"app/%c/pgn/response"});
    }
    if (features.sysparams) {
        append(pub, {"system/vard/request/+", "system/sysparams/write"});
        append(sub, {"system/sysparam/+", "system/sysparams"});
    }
    if (features.backend) {
        append(pub, {"be/publish"});
        append(sub, {"be/status", "be/queue/status", "app/%c/be/response"});
    }
    if (sub.empty() && pub.empty()) {
        return invalid("Both subscription and publish topics cannot be empty");
    }
    append(sub, {"app/%c/log/configure"});
    append(pub, {"app/%c/log/config"});
    // Real-time data is published on "rttx/" and relayed by the IPC daemon.
    for (auto& topic : pub) {
        if (topic.compare(0, 3, "rt/") == 0) {
            topic.replace(0, 3, "rttx/");
        }
    }
    return add_acl<pb::AclInterface::MQTT>(user, sub, pub);
}

AclResult AclClientImpl::send_request(pb::AclIfMessage& request, unsigned int timeout_ms) {
    if (!request.has_interface() || !request.has_request() || request.request().action() == 0 ||
        request.interface().protocol() == 0) {
        WARNING << s_log << "Send request called without a valid request to send";
        WARNING.do_flush();
        return refuse(AclResponseError::INVALID_REQUEST);
    }
    const auto framed = Adapter(PROTOCOL_ACL).serialize(request);
    if (!framed) {
        ERROR << s_log << "Unable to serialize ACL request for client " << m_client_name;
        ERROR.do_flush();
        return refuse(AclResponseError::SERIALIZATION);
    }
    const bool rest_acl = request.interface().protocol() == pb::AclInterface::REST &&
                          request.request().action() == pb::AclInterfaceRequest::ADD_ACL;
    const char* topic = rest_acl ? kMdpdTopic : kAclifdTopic;

    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t before = m_responses;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    const auto status = _internal::publish_and_wait(*m_transport, s_log, "AclClient::send_request",
                                                    topic, framed.value(), lock, m_cv, deadline,
                                                    [&] { return m_responses != before; });
    if (status != _internal::SyncStatus::ANSWERED) {
        if (status == _internal::SyncStatus::TIMED_OUT) {
            WARNING << s_log << "AclIfd/mdpd did not send response in time!";
            WARNING.do_flush();
        }
        return refuse(AclResponseError::FAILED);
    }
    switch (m_last_response.response().result()) {
        case 1:
            return AclResult::ok(false);
        case 2:
            return refuse(AclResponseError::FAILED);
        case 7:
            return refuse(AclResponseError::REFUSED);
        default:
            return refuse(AclResponseError::DAEMON_ERROR);
    }
}

std::pair<bool, std::shared_ptr<AclClient>> create_acl_client(
    std::shared_ptr<ITransportClient>& transport) {
    if (!transport) {
        ERROR << s_log << "Cannot create an ACL client without a transport client";
        ERROR.do_flush();
        return {false, nullptr};
    }
    const std::string hwversion =
        var::create_var_client(transport)->get("hwversion", "", kHwversionTimeoutMs);
    if (hwversion != "vcm") {
        ERROR << s_log << "AclClient is not available on this version!";
        ERROR.do_flush();
        return {false, nullptr};
    }
    return {true, std::make_shared<AclClientImpl>(transport)};
}

}  // namespace ecu::tavi::com
