// PgnRequestClient on the shared transport. The mutex guards the last response; it is held
// for a whole token request, the busy pause included, so one client serves one request at
// a time.
#include "ecu/tavi/diag/pgn_client.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "overrides.h"
#include "sync_call.h"
#include "topics.h"
#include "tpa.h"

namespace ecu::tavi::diag {

namespace {

using namespace ecu::tavi::logging;
using com::_internal::SyncStatus;

const auto s_log = logging::module("tavi.diag.pgn");

const char* const kRequestTopic = "system/pgnreqd/request";
constexpr int kBusyPauseSeconds = 2;

}  // namespace

class PgnRequestClientImpl : public PgnRequestClient {
public:
    explicit PgnRequestClientImpl(std::shared_ptr<com::ITransportClient> transport)
        : m_transport(std::move(transport)),
          m_observer(std::make_shared<PgnRespObserver>(this)),
          m_response_topic(
              com::_internal::app_topic(m_transport->get_client_name(), "/pgn/response")) {
        m_transport->subscribe(m_response_topic, 1, m_observer);
    }
    ~PgnRequestClientImpl() override { m_transport->unsubscribe(m_response_topic, m_observer); }

    Result<void, Error> get_request_token(const std::string& pgn,
                                          std::chrono::seconds timeout) override;
    void release_token(const std::string& pgn) override;

private:
    class PgnRespObserver : public com::ISubscriptionObserver {
    public:
        explicit PgnRespObserver(PgnRequestClientImpl* owner) : m_owner(owner) {}
        // Any response on the client's topic answers the pending request: the daemon
        // names no PGN in it.
        void message(const std::string& /*topic*/, const com::Message& message) override {
            auto decoded = m_owner->m_response_adapter.deserialize(message);
            if (!decoded) {
                return;
            }
            {
                std::lock_guard<std::mutex> lock(m_owner->m_mutex);
                m_owner->m_response = decoded.value();
            }
            m_owner->m_cv.notify_all();
        }

    private:
        PgnRequestClientImpl* m_owner;
    };

    // A framed request of the given action; logs and returns nothing when it cannot be built.
    Result<com::Message, com::err::SerializationError> request(
        pb::PgnRequestTokenRequest_Action action, const std::string& pgn) const;

    std::shared_ptr<com::ITransportClient> m_transport;
    pb::PgnRequestTokenResponse m_response;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::shared_ptr<PgnRespObserver> m_observer;
    std::string m_response_topic;
    com::PbInternalMessageAdapter<pb::PgnRequestTokenRequest> m_request_adapter{
        com::PROTOCOL_PGN_TOKEN};
    com::PbInternalMessageAdapter<pb::PgnRequestTokenResponse> m_response_adapter{
        com::PROTOCOL_PGN_TOKEN};
};

Result<com::Message, com::err::SerializationError> PgnRequestClientImpl::request(
    pb::PgnRequestTokenRequest_Action action, const std::string& pgn) const {
    pb::PgnRequestTokenRequest request;
    if (pb::PgnRequestTokenRequest_Action_IsValid(action)) {
        request.set_action(action);
    }
    request.set_pgn(pgn);
    request.set_client_name(m_transport->get_client_name());
    auto framed = m_request_adapter.serialize(request);
    if (framed) {
        framed.value().set_qos(1);
    }
    return framed;
}

Result<void, PgnRequestClient::Error> PgnRequestClientImpl::get_request_token(
    const std::string& pgn, std::chrono::seconds timeout) {
    using R = Result<void, Error>;
    const auto framed = request(pb::PgnRequestTokenRequest::ACQUIRE, pgn);
    if (!framed) {
        return R::err(Unknown);
    }
    // Refused before the lock: an observer of this client may hold it on this thread.
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, "get_request_token")) {
        return R::err(Timeout);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // A response of an earlier request must not be taken for this one.
        m_response.Clear();
        DEBUG << s_log << "Waiting for PGN token request response";
        DEBUG.do_flush();
        const auto status = com::_internal::publish_and_wait(
            *m_transport, s_log, "get_request_token", kRequestTopic, framed.value(), lock, m_cv,
            deadline, [this] { return m_response.has_result(); });
        if (status == SyncStatus::NOT_SENT) {
            return R::err(Unknown);
        }
        if (status != SyncStatus::ANSWERED) {
            break;
        }
        const auto result = m_response.result();
        switch (result) {
            case pb::PgnRequestTokenResponse::RESULT_UNKNOWN:
            case pb::PgnRequestTokenResponse::TOKEN_DENIED:
            case pb::PgnRequestTokenResponse::ECU_UNKNOWN:
                WARNING << s_log << pb::PgnRequestTokenResponse_Result_Name(result)
                        << " was received, unable to proceed";
                WARNING.do_flush();
                return R::err(result == pb::PgnRequestTokenResponse::ECU_UNKNOWN ? ECU_unknown
                                                                                 : Unknown);
            case pb::PgnRequestTokenResponse::TOKEN_ACQUIRED:
                NOTICE << s_log << "Request token for " << pgn << " has been acquired!";
                NOTICE.do_flush();
                return R::ok();
            case pb::PgnRequestTokenResponse::ECU_BUSY:
                DEBUG << s_log << "ECU busy, try again in " << kBusyPauseSeconds << " seconds";
                DEBUG.do_flush();
                // The pause is taken with the lock held: one request at a time per client.
                std::this_thread::sleep_for(
                    tavi::_internal::fixed_wait(std::chrono::seconds(kBusyPauseSeconds)));
                break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            break;
        }
    }
    INFO << s_log << "PGN request token for " << pgn << " timed out";
    INFO.do_flush();
    return R::err(Timeout);
}

void PgnRequestClientImpl::release_token(const std::string& pgn) {
    const auto framed = request(pb::PgnRequestTokenRequest::RELEASE, pgn);
    NOTICE << s_log << "Explicitly release token for " << pgn;
    NOTICE.do_flush();
    if (framed) {
        m_transport->publish(kRequestTopic, framed.value());
    }
}

const char* PgnRequestClient::error_str(const Error& error) {
    static const std::map<Error, const char*> texts = {
        {Unknown, "Error::Unknown"},
        {Timeout, "Error::Timeout"},
        {ECU_unknown, "Error::ECU_unknown"},
    };
    const auto found = texts.find(error);
    return found == texts.end() ? nullptr : found->second;
}

std::shared_ptr<PgnRequestClient> create_pgn_request_client(
    std::shared_ptr<com::ITransportClient>& transport) {
    if (ecu::tavi::_internal::refuse_vehicle_client(transport != nullptr, s_log,
                                                    "Cannot create PGN client on TPA partition.")) {
        return nullptr;
    }
    return std::make_shared<PgnRequestClientImpl>(transport);
}

}  // namespace ecu::tavi::diag
