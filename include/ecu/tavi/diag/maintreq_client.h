/// \file
/// Service-interval information from the vehicle's maintenance computer: a request group of
/// CAN signals goes out on TOPIC_MAINT_REQ, the answer comes back as a group on
/// TOPIC_MAINT_RESP. Each request first takes the PGN request token of TOPIC_MAINT_REQ.
///
/// Needs the signal adapter (the real-time support library) for both groups.
///
/// Thread safety: request() blocks its caller and may be called from any application
/// thread; called on the transport's network thread it fails at once with an ERROR line.
/// Answers are not matched to requests: the first answer that arrives while a request waits
/// ends the wait.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::com {
class Message;
}

namespace ecu::tavi::diag {

class TAVI_EXPORT MaintenanceRequestClient {
public:
    /// Each field is sent as the signal "<field>_qbx2mc".
    struct Request {
        uint8_t aaf = 0;
        uint8_t cid = 0;
        uint8_t abfragezws_fws = 0;
        uint8_t abfragetyp = 0;
        uint8_t einheitdaten = 0;
        uint8_t qualitaetempfohlen = 0;
        uint8_t qualitaetvorhanden = 0;
        uint8_t reihenfolge = 0;
        uint8_t typmeldung = 0;
        bool operator==(const Request& other) const;
    };
    /// Each field is received as the signal "<field>_mc2qbx".
    struct Response {
        uint32_t wartungsinformation = 0;
        uint8_t aaf = 0;
        uint8_t bwi = 0;
        uint8_t cid = 0;
        uint8_t einheitdaten = 0;
        uint8_t optimierung = 0;
        uint8_t qualitaetempfohlen = 0;
        uint8_t qualitaetvorhanden = 0;
        uint8_t reihenfolge = 0;
        uint8_t statusdaten = 0;
        uint8_t weiteretermine = 0;
        bool operator==(const Response& other) const;
    };
    using RequestResult = Result<Response, std::string>;

    static const char* const TOPIC_MAINT_REQ;   ///< "rt/vekcan/tx/fws_fb"
    static const char* const TOPIC_MAINT_RESP;  ///< "rt/vekcan/rx/fws_27"

    explicit MaintenanceRequestClient(std::shared_ptr<com::ITransportClient> transport);
    MaintenanceRequestClient(const MaintenanceRequestClient&) = delete;
    MaintenanceRequestClient& operator=(const MaintenanceRequestClient&) = delete;

    /// Takes the token, sends the request and waits for the answer, timeout_ms in all (at
    /// least 1000). The error texts say what failed.
    virtual RequestResult request(const Request& request, unsigned int timeout_ms);
    virtual ~MaintenanceRequestClient();

    /// Decodes an answer and hands it to a waiting request; called on the network thread.
    void handle_response(const com::Message& message);

private:
    class PublishWrapper;
    struct State;

    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<PublishWrapper> m_wrapper;
    std::unique_ptr<State> m_state;
};

TAVI_EXPORT std::shared_ptr<MaintenanceRequestClient> create_main_req_client(
    std::shared_ptr<com::ITransportClient>& transport);

}  // namespace ecu::tavi::diag
