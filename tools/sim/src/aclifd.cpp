// The access-control daemon: answers user and access-list requests on
// "system/aclifd/request" and, for REST access lists, the REST gateway's
// "system/mdpd/request", on "app/<client>/acl/response".
//
// MQTT users are made real on the broker: given the administrator of mosquitto's dynamic
// security plugin, the daemon logs in with it and sends the plugin's own commands on
// "$CONTROL/dynamic-security/v1". A user can then log in, and its access list becomes a
// role "acl-<user>" that allows exactly the listed subscriptions and publications. The
// request is answered once the plugin has answered. REST and websocket users, and MQTT
// users without the plugin, are recorded and logged only.
//
// "%c" stands for the user's client name. The plugin of mosquitto 2.0 matches topics
// literally and does not expand it, so the daemon writes the user name in its place: as on
// the unit, where each application logs in under its own name, the user's client name is
// its user name.
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/acl.pb.h"
#include "ecu/tavi/sim/daemon.h"
#include "ecu/tavi/sim/simulator.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.aclifd");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kRequestTopic = "system/aclifd/request";
const char* const kRestGatewayTopic = "system/mdpd/request";
const char* const kControlTopic = "$CONTROL/dynamic-security/v1";
const char* const kControlResponseTopic = "$CONTROL/dynamic-security/v1/response";
const char* const kRefusedKey = "aclifd.refused_users";

// Answers of the daemon.
const int kSuccess = 1;
const int kFailed = 2;
const int kRefused = 7;

using Adapter = com::PbInternalMessageAdapter<pb::AclIfMessage>;

std::string json_string(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        if (static_cast<unsigned char>(c) >= 0x20) {
            out += c;
        }
    }
    return out + "\"";
}

std::string joined(const google::protobuf::RepeatedPtrField<std::string>& topics) {
    std::string text;
    for (const auto& topic : topics) {
        text += (text.empty() ? "" : ", ") + topic;
    }
    return "[" + text + "]";
}

std::string with_client_name(std::string topic, const std::string& client_name) {
    for (auto at = topic.find("%c"); at != std::string::npos;
         at = topic.find("%c", at + client_name.size())) {
        topic.replace(at, 2, client_name);
    }
    return topic;
}

// One command of the plugin; `fields` is the rest of its JSON object.
struct Command {
    std::string name;
    std::string fields;
    // Its failure does not fail the request (removing what may not exist).
    bool may_fail = false;
};

class Aclifd : public Daemon {
public:
    Aclifd() : Daemon("aclifd") {}

    std::vector<UnitKey> keys() const override {
        return {{kRefusedKey,
                 "user names, comma-separated, whose creation the daemon refuses (answer 7)"}};
    }

    std::map<std::string, std::string> connection_keys(
        const SimulatorOptions& options) const override {
        if (options.dynsec_username.empty()) {
            return {};
        }
        return {{"login_username", options.dynsec_username},
                {"login_password", options.dynsec_password}};
    }

    Result<void, std::string> setup() override {
        m_dynsec = !options().dynsec_username.empty();
        listen(kRequestTopic, [this](const auto& t, const auto& m) { request(t, m); });
        listen(kRestGatewayTopic, [this](const auto& t, const auto& m) { request(t, m); });
        if (m_dynsec) {
            listen(kControlResponseTopic,
                   [this](const auto& t, const auto& m) { control_response(t, m); });
        }
        return Result<void, std::string>::ok();
    }

private:
    struct Pending {
        std::string reply_topic;
        std::string what;
        std::vector<Command> commands;
    };

    void answer(const std::string& reply_topic, int result) {
        pb::AclIfMessage message;
        message.mutable_response()->set_result(result);
        send_framed(reply_topic, message, com::PROTOCOL_ACL);
    }

    void request(const std::string& topic, const com::Message& message) {
        auto decoded = m_adapter.deserialize(message);
        if (!decoded || !decoded.value().has_request()) {
            WARNING << s_log << "Ignoring a request on " << topic << " that does not decode";
            WARNING.do_flush();
            return;
        }
        const pb::AclIfMessage& received = decoded.value();
        const auto& body = received.request();
        const std::string reply_topic = "app/" + body.client_name() + "/acl/response";
        const auto protocol = received.interface().protocol();
        const std::string& user = body.username();
        const std::string what = pb::AclInterface::Protocol_Name(protocol) + " " +
                                 pb::AclInterfaceRequest::Action_Name(body.action()) + " " + user +
                                 " for " + body.client_name();

        const auto refused = unit().get_list(kRefusedKey);
        if (body.action() == pb::AclInterfaceRequest::ADD_USER &&
            std::find(refused.begin(), refused.end(), user) != refused.end()) {
            NOTICE << s_log << "refusing " << what << " (" << kRefusedKey << ")";
            NOTICE.do_flush();
            answer(reply_topic, kRefused);
            return;
        }
        if (protocol != pb::AclInterface::MQTT || !m_dynsec) {
            NOTICE << s_log << "recorded " << what << details(body);
            NOTICE.do_flush();
            answer(reply_topic, kSuccess);
            return;
        }
        auto commands = broker_commands(body);
        if (commands.empty()) {
            WARNING << s_log << "cannot carry out " << what;
            WARNING.do_flush();
            answer(reply_topic, kFailed);
            return;
        }
        const std::string id = std::to_string(++m_next_id);
        std::ostringstream json;
        json << "{\"commands\": [";
        for (size_t i = 0; i < commands.size(); ++i) {
            json << (i == 0 ? "" : ", ") << "{\"command\": " << json_string(commands[i].name)
                 << commands[i].fields << ", \"correlationData\": " << json_string(id) << "}";
        }
        json << "]}";
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pending[id] = {reply_topic, what + details(body), std::move(commands)};
        }
        const std::string text = json.str();
        com::Message control(text.data(), text.size());
        control.set_qos(1);
        transport().publish(kControlTopic, control);
    }

    static std::string details(const pb::AclInterfaceRequest& body) {
        std::string text;
        if (body.has_port()) {
            text += " on port " + std::to_string(body.port());
        }
        if (body.action() == pb::AclInterfaceRequest::ADD_ACL) {
            text += ": subscribe " + joined(body.subscribe_topics()) + ", publish " +
                    joined(body.publish_topics());
        }
        return text;
    }

    static std::vector<Command> broker_commands(const pb::AclInterfaceRequest& body) {
        const std::string user = ", \"username\": " + json_string(body.username());
        const std::string role = ", \"rolename\": " + json_string("acl-" + body.username());
        switch (body.action()) {
            case pb::AclInterfaceRequest::ADD_USER:
                // Added again: the new password holds.
                return {{"deleteClient", user, true},
                        {"createClient", user + ", \"password\": " + json_string(body.password())}};
            case pb::AclInterfaceRequest::REMOVE_USER:
                return {{"deleteClient", user}, {"deleteRole", role, true}};
            case pb::AclInterfaceRequest::ADD_ACL: {
                std::string acls;
                auto add = [&acls](const char* type, const std::string& topic) {
                    acls += std::string(acls.empty() ? "" : ", ") + "{\"acltype\": \"" + type +
                            "\", \"topic\": " + json_string(topic) + ", \"allow\": true}";
                };
                for (const auto& topic : body.subscribe_topics()) {
                    add("subscribePattern", with_client_name(topic, body.username()));
                }
                for (const auto& topic : body.publish_topics()) {
                    add("publishClientSend", with_client_name(topic, body.username()));
                }
                // The list replaces the one granted before.
                return {{"deleteRole", role, true},
                        {"createRole", role + ", \"acls\": [" + acls + "]"},
                        {"addClientRole", user + role}};
            }
            default:
                return {};
        }
    }

    // The plugin answers every command of a message in one response, in order, each with
    // our correlation data and, when it failed, an "error".
    void control_response(const std::string& /*topic*/, const com::Message& message) {
        const std::string text(message.get_data().begin(), message.get_data().end());
        const std::string marker = "\"correlationData\":\"";
        const auto at = text.find(marker);
        if (at == std::string::npos) {
            return;
        }
        const auto begin = at + marker.size();
        const std::string id = text.substr(begin, text.find('"', begin) - begin);
        Pending pending;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto it = m_pending.find(id);
            if (it == m_pending.end()) {
                return;
            }
            pending = std::move(it->second);
            m_pending.erase(it);
        }
        // Split into the answers of the single commands.
        std::vector<std::string> answers;
        for (auto from = text.find("{\"command\""); from != std::string::npos;) {
            const auto next = text.find("{\"command\"", from + 1);
            answers.push_back(text.substr(from, next == std::string::npos ? next : next - from));
            from = next;
        }
        std::string error;
        for (size_t i = 0; i < pending.commands.size() && i < answers.size(); ++i) {
            const auto e = answers[i].find("\"error\":\"");
            if (e != std::string::npos && !pending.commands[i].may_fail) {
                const auto b = e + 9;
                error = pending.commands[i].name + ": " +
                        answers[i].substr(b, answers[i].find('"', b) - b);
                break;
            }
        }
        if (answers.size() < pending.commands.size()) {
            error = "incomplete answer of the broker";
        }
        if (error.empty()) {
            NOTICE << s_log << "broker: " << pending.what;
            NOTICE.do_flush();
        } else {
            WARNING << s_log << "broker refused " << pending.what << ": " << error;
            WARNING.do_flush();
        }
        answer(pending.reply_topic, error.empty() ? kSuccess : kFailed);
    }

    bool m_dynsec = false;
    std::atomic<unsigned long> m_next_id{0};
    std::mutex m_mutex;
    std::map<std::string, Pending> m_pending;
    Adapter m_adapter{com::PROTOCOL_ACL};
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Aclifd()); });

}  // namespace

}  // namespace ecu::tavi::sim
