// The PGN request daemon: hands out request tokens on "system/pgnreqd/request" and answers
// on "app/<client>/pgn/response".
//
// Each acquisition of a client is answered "busy" pgn.busy_answers times before the token
// is granted, so that applications meet the retry path; PGNs listed in pgn.unknown_pgns are
// answered "ECU unknown". Releases are taken silently.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.pgnreqd");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kBehaviourKey = "pgn.token_behaviour";
const char* const kBusyKey = "pgn.busy_answers";
const char* const kUnknownKey = "pgn.unknown_pgns";

using Response = pb::PgnRequestTokenResponse;

class Pgnreqd : public Daemon {
public:
    Pgnreqd() : Daemon("pgnreqd") {}

    std::vector<UnitKey> keys() const override {
        return {{kBehaviourKey, "grant (default) or deny: how token requests are decided"},
                {kBusyKey, "how often each acquisition is answered busy before it is decided"},
                {kUnknownKey, "PGNs no ECU answers for, comma-separated: answered ECU unknown"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        const std::string behaviour = unit.get(kBehaviourKey);
        if (!behaviour.empty() && behaviour != "grant" && behaviour != "deny") {
            errors.push_back(unit.origin(kBehaviourKey) + ": " + kBehaviourKey + ": '" + behaviour +
                             "' is neither grant nor deny");
        }
        const std::string busy = unit.get(kBusyKey);
        if (busy.find_first_not_of("0123456789") != std::string::npos) {
            errors.push_back(unit.origin(kBusyKey) + ": " + kBusyKey + ": '" + busy +
                             "' is no number");
        }
    }

    Result<void, std::string> setup() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_busy_sent.clear();
            m_holders.clear();
        }
        listen("system/pgnreqd/request",
               [this](const std::string&, const com::Message& message) { received(message); });
        return Result<void, std::string>::ok();
    }

private:
    void received(const com::Message& message) {
        auto decoded = m_request_adapter.deserialize(message);
        if (!decoded) {
            WARNING << s_log << "Ignoring a token request that does not decode";
            WARNING.do_flush();
            return;
        }
        const auto& request = decoded.value();
        const auto key = std::make_pair(request.client_name(), request.pgn());
        if (request.action() == pb::PgnRequestTokenRequest::RELEASE) {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_holders.erase(key) > 0) {
                NOTICE << s_log << request.client_name() << " released " << request.pgn();
                NOTICE.do_flush();
            }
            return;
        }
        const auto unknown = unit().get_list(kUnknownKey);
        const unsigned long busy_answers = std::strtoul(unit().get(kBusyKey).c_str(), nullptr, 10);
        Response::Result result = Response::TOKEN_ACQUIRED;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            unsigned long& busy_sent = m_busy_sent[key];
            if (std::find(unknown.begin(), unknown.end(), request.pgn()) != unknown.end()) {
                result = Response::ECU_UNKNOWN;
            } else if (busy_sent < busy_answers) {
                ++busy_sent;
                result = Response::ECU_BUSY;
            } else if (unit().get(kBehaviourKey) == "deny") {
                result = Response::TOKEN_DENIED;
            } else {
                m_holders.insert(key);
            }
            if (result != Response::ECU_BUSY) {
                busy_sent = 0;
            }
        }
        NOTICE << s_log << request.client_name() << " asked for " << request.pgn() << ": "
               << Response::Result_Name(result);
        NOTICE.do_flush();
        Response response;
        response.set_result(result);
        auto framed = m_response_adapter.serialize(response);
        if (framed) {
            framed.value().set_qos(1);
            send("app/" + request.client_name() + "/pgn/response", framed.value());
        }
    }

    std::mutex m_mutex;
    // Busy answers given to the current acquisition of each client and PGN.
    std::map<std::pair<std::string, std::string>, unsigned long> m_busy_sent;
    std::set<std::pair<std::string, std::string>> m_holders;
    com::PbInternalMessageAdapter<pb::PgnRequestTokenRequest> m_request_adapter{
        com::PROTOCOL_PGN_TOKEN};
    com::PbInternalMessageAdapter<pb::PgnRequestTokenResponse> m_response_adapter{
        com::PROTOCOL_PGN_TOKEN};
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Pgnreqd()); });

}  // namespace

}  // namespace ecu::tavi::sim
