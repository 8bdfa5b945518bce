// The UDS interface daemon: lends diagnostic interfaces to applications and answers their
// requests from the unit's answer table.
//
// An allocation is answered "in progress", then with its outcome; release and withdraw are
// accepted only from the client that holds the instance (protocol, physical interface and
// parameter together). Statuses go to "app/<client>/uds/status", responses to
// "app/<client>/uds/response". Flow-control frames are accepted and need no answer.
#include <cctype>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.udsifd");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kInterfacesKey = "uds.interfaces";
const char* const kAnswerKeys = "uds.answer.";
const char* const kDelayKey = "uds.delay_ms";

using State = pb::UdsInterfaceStatus;
using Instance = std::tuple<int, int, uint32_t>;

bool is_hex(const std::string& text) {
    if (text.empty() || text.size() % 2 != 0) {
        return false;
    }
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

std::string from_hex(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
    }
    return bytes;
}

std::string to_hex(const std::string& bytes) {
    static const char* const digits = "0123456789abcdef";
    std::string text;
    for (unsigned char c : bytes) {
        text += digits[c >> 4];
        text += digits[c & 15];
    }
    return text;
}

bool is_number(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

class Udsifd : public Daemon {
public:
    Udsifd() : Daemon("udsifd") {}

    std::vector<UnitKey> keys() const override {
        return {{kInterfacesKey, "how many interfaces may be allocated at the same time"},
                {kAnswerKeys,
                 "uds.answer.<ecu>.<request> = <response>, all hex: the ECU at address <ecu> "
                 "answers the request bytes with the response bytes; other requests get a "
                 "negative response (7f <service> 11)"},
                {kDelayKey, "milliseconds by which every answer of the daemon is held back"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        for (const char* key : {kInterfacesKey, kDelayKey}) {
            const std::string value = unit.get(key);
            if (!value.empty() && !is_number(value)) {
                errors.push_back(unit.origin(key) + ": " + key + ": '" + value + "' is no number");
            }
        }
        for (const auto& key : unit.keys()) {
            if (key.compare(0, std::string(kAnswerKeys).size(), kAnswerKeys) != 0) {
                continue;
            }
            const std::string rest = key.substr(std::string(kAnswerKeys).size());
            const auto dot = rest.find('.');
            const bool key_ok = dot != std::string::npos && dot > 0 &&
                                rest.find_first_not_of("0123456789abcdef") == dot &&
                                is_hex(rest.substr(dot + 1));
            if (!key_ok || !is_hex(unit.get(key))) {
                errors.push_back(unit.origin(key) + ": " + key +
                                 ": expected uds.answer.<ecu>.<request> = <response>, in hex");
            }
        }
    }

    Result<void, std::string> setup() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_owners.clear();
        }
        listen("system/udsifd/+", [this](const std::string& topic, const com::Message& message) {
            received(topic, message);
        });
        return Result<void, std::string>::ok();
    }

    // Applies uds.delay_ms when the unit gives it, at start and after every change of the
    // unit; a delay set through the test kit holds until then.
    void publish_state() override {
        const std::string delay = unit().get(kDelayKey);
        if (!delay.empty()) {
            set_delay(std::chrono::milliseconds(std::strtoul(delay.c_str(), nullptr, 10)));
        }
    }

private:
    void received(const std::string& topic, const com::Message& message) {
        auto decoded = m_adapter.deserialize(message);
        if (!decoded) {
            WARNING << s_log << "Ignoring a message on " << topic << " that does not decode";
            WARNING.do_flush();
            return;
        }
        const pb::UdsIfMessage& in = decoded.value();
        const std::string action = topic.substr(topic.rfind('/') + 1);
        const std::string client =
            in.has_request() ? in.request().client_name() : in.allocation().client_name();
        const Instance instance{in.interface().protocol(), in.interface().phyif(),
                                in.interface().param()};
        if (action == "allocate") {
            allocate(client, in.interface(), instance);
        } else if (action == "release" || action == "withdraw") {
            give_back(client, in.interface(), instance, action == "release");
        } else if (action == "request") {
            answer(client, in, instance);
        } else if (action == "flowctrl") {
            DEBUG << s_log << "flow control from " << client << ": "
                  << pb::UdsInterfaceRequest_FlowStatus_Name(in.request().flow_status_res());
            DEBUG.do_flush();
        }
    }

    void allocate(const std::string& client, const pb::UdsInterface& interface,
                  const Instance& instance) {
        reply_status(client, interface, State::UDS_STATE_IN_PROGRESS);
        State::State outcome = State::UDS_STATE_ALLOCATED;
        const std::string limit = unit().get(kInterfacesKey);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto owner = m_owners.find(instance);
            if (interface.protocol() != pb::UdsInterface::UDS_TP_ISO) {
                outcome = State::UDS_STATE_INVALID_PROTOCOL;
            } else if (interface.phyif() == pb::UdsInterface::UDS_IF_UNKNOWN) {
                outcome = State::UDS_STATE_INVALID_PHYIF;
            } else if (owner != m_owners.end() && owner->second != client) {
                outcome = State::UDS_STATE_ALREADY_ALLOCATED;
            } else if (owner == m_owners.end() && !limit.empty() &&
                       m_owners.size() >= std::strtoul(limit.c_str(), nullptr, 10)) {
                outcome = State::UDS_STATE_UNAVAILABLE;
            } else {
                m_owners[instance] = client;
            }
        }
        NOTICE << s_log << client << ": allocation " << State::State_Name(outcome);
        NOTICE.do_flush();
        reply_status(client, interface, outcome);
    }

    void give_back(const std::string& client, const pb::UdsInterface& interface,
                   const Instance& instance, bool release) {
        State::State outcome = release ? State::UDS_STATE_FREE : State::UDS_STATE_WITHDRAWN;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto owner = m_owners.find(instance);
            if (owner == m_owners.end() || owner->second != client) {
                outcome = State::UDS_STATE_NOT_OWNER;
            } else {
                m_owners.erase(owner);
            }
        }
        NOTICE << s_log << client << ": " << (release ? "release " : "withdraw ")
               << State::State_Name(outcome);
        NOTICE.do_flush();
        reply_status(client, interface, outcome);
    }

    void answer(const std::string& client, const pb::UdsIfMessage& in, const Instance& instance) {
        pb::UdsIfMessage out;
        *out.mutable_interface() = in.interface();
        auto* response = out.mutable_response();
        bool owner = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            auto found = m_owners.find(instance);
            owner = found != m_owners.end() && found->second == client;
        }
        const std::string request = in.request().payload();
        if (!owner) {
            response->set_response_code(3);  // refused: not this client's interface
        } else {
            response->set_response_code(1);
            // uds.answer.<ecu>.<request>: the first ECU that knows the request answers.
            const std::string suffix = "." + to_hex(request);
            bool known = false;
            for (const auto& key : unit().keys()) {
                if (key.compare(0, std::string(kAnswerKeys).size(), kAnswerKeys) == 0 &&
                    key.size() > suffix.size() &&
                    key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0) {
                    const std::string ecu =
                        key.substr(std::string(kAnswerKeys).size(),
                                   key.size() - suffix.size() - std::string(kAnswerKeys).size());
                    response->set_address(
                        static_cast<uint32_t>(std::strtoul(ecu.c_str(), nullptr, 16)));
                    response->set_payload(from_hex(unit().get(key)));
                    known = true;
                    break;
                }
            }
            if (!known) {
                // Negative response: service not supported.
                response->set_payload(std::string("\x7f") + (request.empty() ? '\0' : request[0]) +
                                      "\x11");
            }
        }
        DEBUG << s_log << client << ": request " << to_hex(request) << " answered "
              << to_hex(response->payload());
        DEBUG.do_flush();
        send_framed("app/" + client + "/uds/response", out);
    }

    void reply_status(const std::string& client, const pb::UdsInterface& interface,
                      State::State state) {
        pb::UdsIfMessage out;
        *out.mutable_interface() = interface;
        out.mutable_status()->set_state(state);
        send_framed("app/" + client + "/uds/status", out);
    }

    void send_framed(const std::string& topic, const pb::UdsIfMessage& out) {
        auto framed = m_adapter.serialize(out);
        if (!framed) {
            return;
        }
        framed.value().set_qos(1);
        send(topic, framed.value());
    }

    std::mutex m_mutex;
    std::map<Instance, std::string> m_owners;
    com::PbInternalMessageAdapter<pb::UdsIfMessage> m_adapter{com::PROTOCOL_UDS};
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Udsifd()); });

}  // namespace

}  // namespace ecu::tavi::sim
