// MaintenanceRequestClient: token, pack, publish, wait, unpack. The state's mutex guards the
// last result and the count of answers; answers are decoded on the network thread.
#include "ecu/tavi/diag/maintreq_client.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/diag/pgn_client.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "sync_call.h"
#include "topics.h"

// Every line of this client names the client, its source and the line it was written from.
#define MRC_STRINGIFY2(x) #x
#define MRC_STRINGIFY(x) MRC_STRINGIFY2(x)
#define MRC "[MaintenanceRequestClient:maintreq_client:" MRC_STRINGIFY(__LINE__) "] "

namespace ecu::tavi::diag {

namespace {

using namespace ecu::tavi::logging;
using Clock = std::chrono::steady_clock;
using Request = MaintenanceRequestClient::Request;
using Response = MaintenanceRequestClient::Response;
using RequestResult = MaintenanceRequestClient::RequestResult;

const auto s_log = logging::module("tavi.diag.maintreq");

const char* const kWartungsinformation = "wartungsinformation_mc2qbx";

const std::map<std::string, std::function<uint8_t(const Request&)>> s_request_signals = {
    {"aaf_qbx2mc", std::mem_fn(&Request::aaf)},
    {"cid_qbx2mc", std::mem_fn(&Request::cid)},
    {"abfragezws_fws_qbx2mc", std::mem_fn(&Request::abfragezws_fws)},
    {"abfragetyp_qbx2mc", std::mem_fn(&Request::abfragetyp)},
    {"einheitdaten_qbx2mc", std::mem_fn(&Request::einheitdaten)},
    {"qualitaetempfohlen_qbx2mc", std::mem_fn(&Request::qualitaetempfohlen)},
    {"qualitaetvorhanden_qbx2mc", std::mem_fn(&Request::qualitaetvorhanden)},
    {"reihenfolge_qbx2mc", std::mem_fn(&Request::reihenfolge)},
    {"typmeldung_qbx2mc", std::mem_fn(&Request::typmeldung)},
};

// The 32-bit "wartungsinformation_mc2qbx" is handled apart.
const std::map<std::string, std::function<uint8_t&(Response&)>> s_response_signals = {
    {"aaf_mc2qbx", std::mem_fn(&Response::aaf)},
    {"bwi_mc2qbx", std::mem_fn(&Response::bwi)},
    {"cid_mc2qbx", std::mem_fn(&Response::cid)},
    {"einheitdaten_mc2qbx", std::mem_fn(&Response::einheitdaten)},
    {"optimierung_mc2qbx", std::mem_fn(&Response::optimierung)},
    {"qualitaetempfohlen_mc2qbx", std::mem_fn(&Response::qualitaetempfohlen)},
    {"qualitaetvorhanden_mc2qbx", std::mem_fn(&Response::qualitaetvorhanden)},
    {"reihenfolge_mc2qbx", std::mem_fn(&Response::reihenfolge)},
    {"statusdaten_mc2qbx", std::mem_fn(&Response::statusdaten)},
    {"weiteretermine_mc2qbx", std::mem_fn(&Response::weiteretermine)},
};

// A scaled value in a field of type T, the fraction cut off; values outside T's range end
// at its bounds.
template <typename T>
T to_field(double value) {
    if (!(value > 0)) {
        return 0;
    }
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
        return std::numeric_limits<T>::max();
    }
    return static_cast<T>(value);
}

RequestResult failed(const std::string& text) {
    return RequestResult::err(text);
}

}  // namespace

const char* const MaintenanceRequestClient::TOPIC_MAINT_REQ = "rt/vekcan/tx/fws_fb";
const char* const MaintenanceRequestClient::TOPIC_MAINT_RESP = "rt/vekcan/rx/fws_27";

bool Request::operator==(const Request& o) const {
    return aaf == o.aaf && cid == o.cid && abfragezws_fws == o.abfragezws_fws &&
           abfragetyp == o.abfragetyp && einheitdaten == o.einheitdaten &&
           qualitaetempfohlen == o.qualitaetempfohlen &&
           qualitaetvorhanden == o.qualitaetvorhanden && reihenfolge == o.reihenfolge &&
           typmeldung == o.typmeldung;
}

bool Response::operator==(const Response& o) const {
    return wartungsinformation == o.wartungsinformation && aaf == o.aaf && bwi == o.bwi &&
           cid == o.cid && einheitdaten == o.einheitdaten && optimierung == o.optimierung &&
           qualitaetempfohlen == o.qualitaetempfohlen &&
           qualitaetvorhanden == o.qualitaetvorhanden && reihenfolge == o.reihenfolge &&
           statusdaten == o.statusdaten && weiteretermine == o.weiteretermine;
}

struct MaintenanceRequestClient::State {
    std::mutex mutex;
    std::condition_variable cv;
    RequestResult last = RequestResult::err("");
    uint64_t answers = 0;
};

class MaintenanceRequestClient::PublishWrapper : public com::ISubscriptionObserver {
public:
    explicit PublishWrapper(MaintenanceRequestClient* owner) : m_owner(owner) {}
    void message(const std::string& /*topic*/, const com::Message& message) override {
        m_owner->handle_response(message);
    }

private:
    MaintenanceRequestClient* m_owner;
};

MaintenanceRequestClient::MaintenanceRequestClient(std::shared_ptr<com::ITransportClient> transport)
    : m_transport(std::move(transport)),
      m_wrapper(std::make_shared<PublishWrapper>(this)),
      m_state(std::make_unique<State>()) {
    pb::SubscriptionMessage announcement;
    announcement.add_topics(TOPIC_MAINT_RESP);
    announcement.set_client_name(m_transport->get_client_name());
    auto framed = com::PbInternalMessageAdapter<pb::SubscriptionMessage>(com::PROTOCOL_SUBSCRIPTION)
                      .serialize(announcement);
    if (!framed) {
        ERROR << s_log << MRC "Unable to serialize SubscriptionMessage for " << TOPIC_MAINT_RESP;
        ERROR.do_flush();
    } else if (m_transport->isConnected()) {
        // Before the connection there is nobody to tell; the transport announces the topic
        // itself whenever it subscribes.
        m_transport->publish(com::_internal::kAnnouncementTopic, framed.value());
    }
    m_transport->subscribe(TOPIC_MAINT_RESP, 0, m_wrapper);
}

MaintenanceRequestClient::~MaintenanceRequestClient() {
    m_transport->unsubscribe(TOPIC_MAINT_RESP, m_wrapper);
}

MaintenanceRequestClient::RequestResult MaintenanceRequestClient::request(const Request& request,
                                                                          unsigned int timeout_ms) {
    if (timeout_ms < 1000) {
        return failed("Timeout should be over 1000ms");
    }
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log,
                                                 MRC "MaintenanceRequestClient::request")) {
        return failed("Timeout occured");
    }

    // The token is named by the request topic and is never given back explicitly.
    auto pgn_client = create_pgn_request_client(m_transport);
    const auto start = Clock::now();
    const auto token = pgn_client
                           ? pgn_client->get_request_token(TOPIC_MAINT_REQ,
                                                           std::chrono::seconds(timeout_ms / 1000))
                           : Result<void, PgnRequestClient::Error>::err(PgnRequestClient::Unknown);
    if (!token) {
        return failed(std::string("PGN request token error: ") +
                      PgnRequestClient::error_str(token.error()));
    }
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    const auto timeout = std::chrono::milliseconds(timeout_ms);
    if (elapsed > timeout || timeout - elapsed < std::chrono::milliseconds(100)) {
        return failed("Getting the request token took too long time.");
    }

    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    auto group = adapter.create_sg(TOPIC_MAINT_REQ);
    if (!group) {
        const std::string text = std::string("Unable to SignalGroup for topic: ") + TOPIC_MAINT_REQ;
        ERROR << s_log << MRC << text;
        ERROR.do_flush();
        return failed(text);
    }
    for (const auto& [name, field] : s_request_signals) {
        if (!group->set_signal_scaled_value(name, static_cast<double>(field(request)))) {
            const std::string text =
                "Unable to set Signal '" + name + "' for SignalGroup: " + TOPIC_MAINT_REQ;
            WARNING << s_log << MRC << text;
            WARNING.do_flush();
            return failed(text);
        }
    }
    auto packed = adapter.pack(*group);
    if (!packed) {
        ERROR << s_log << MRC "Unable to pack Request";
        ERROR.do_flush();
        return failed("Unable to pack maintenance request");
    }

    // Locked before publishing, so that an answer cannot slip in before the wait.
    std::unique_lock<std::mutex> lock(m_state->mutex);
    const uint64_t before = m_state->answers;
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log, MRC "MaintenanceRequestClient::request", TOPIC_MAINT_REQ,
        packed.value(), lock, m_state->cv, Clock::now() + (timeout - elapsed),
        [&] { return m_state->answers != before; });
    if (status == com::_internal::SyncStatus::ANSWERED) {
        return m_state->last;
    }
    if (status == com::_internal::SyncStatus::NOT_SENT) {
        return failed("Unable to publish maintenance request");
    }
    WARNING << s_log << MRC "Timeout occured while waiting for maintenance request!";
    WARNING.do_flush();
    return failed("Timeout occured");
}

void MaintenanceRequestClient::handle_response(const com::Message& message) {
    RequestResult result = RequestResult::err("");
    auto group = rt::SignalAdapter::instance().unpack(TOPIC_MAINT_RESP, message);
    if (!group) {
        char text[64];
        std::snprintf(text, sizeof(text), "%d", static_cast<int>(group.error().code));
        result = failed(std::string("Unable to unpack maintenance response, err ") + text +
                        " error msg: " + group.error().message);
    } else {
        Response response;
        std::string missing;
        for (const auto& [name, field] : s_response_signals) {
            const rt::Signal* signal = group.value().signal(name);
            if (signal == nullptr) {
                missing = name;
                break;
            }
            field(response) = to_field<uint8_t>(signal->value_scaled().value);
        }
        const rt::Signal* info = group.value().signal(kWartungsinformation);
        if (missing.empty() && info != nullptr) {
            response.wartungsinformation = to_field<uint32_t>(info->value_scaled().value);
            result = RequestResult::ok(response);
        } else {
            if (missing.empty()) {
                missing = kWartungsinformation;
            }
            result = failed("Unable to get Signal '" + missing +
                            "' for SignalGroup: " + TOPIC_MAINT_RESP);
        }
    }
    if (!result) {
        WARNING << s_log << MRC << result.error();
        WARNING.do_flush();
    }
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->last = std::move(result);
        ++m_state->answers;
    }
    m_state->cv.notify_all();
}

std::shared_ptr<MaintenanceRequestClient> create_main_req_client(
    std::shared_ptr<com::ITransportClient>& transport) {
    if (!transport) {
        ERROR << s_log << MRC "Cannot create a maintenance request client without a transport";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<MaintenanceRequestClient>(transport);
}

}  // namespace ecu::tavi::diag
