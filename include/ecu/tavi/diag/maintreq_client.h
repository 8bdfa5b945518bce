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

/// Asks the vehicle's maintenance computer for service-interval information.
///
/// Made by create_main_req_client(); subscribes TOPIC_MAINT_RESP for its life and holds the
/// transport. Destroy it on any thread but the network thread. The first request (or answer)
/// uses rt::SignalAdapter::instance(): without a support library that ends the process, and
/// as an answer may create the adapter on the network thread, call instance() once at
/// start-up.
class TAVI_EXPORT MaintenanceRequestClient {
public:
    /// Each field is sent as the signal "<field>_qbx2mc".
    struct Request {
        /// The request's signals, named after the bus signals they fill.
        ///@{
        uint8_t aaf = 0;
        uint8_t cid = 0;
        uint8_t abfragezws_fws = 0;
        uint8_t abfragetyp = 0;
        uint8_t einheitdaten = 0;
        uint8_t qualitaetempfohlen = 0;
        uint8_t qualitaetvorhanden = 0;
        uint8_t reihenfolge = 0;
        uint8_t typmeldung = 0;
        ///@}
        /// Field-wise comparison.
        bool operator==(const Request& other) const;
    };
    /// Each field is received as the signal "<field>_mc2qbx".
    struct Response {
        /// The answer's signals, named after the bus signals they come from; values are
        /// the physical values, the fraction cut off and kept within the field's range.
        ///@{
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
        ///@}
        /// Field-wise comparison.
        bool operator==(const Response& other) const;
    };
    /// The answer, or a text that says what failed.
    using RequestResult = Result<Response, std::string>;

    static const char* const TOPIC_MAINT_REQ;   ///< "rt/vekcan/tx/fws_fb"
    static const char* const TOPIC_MAINT_RESP;  ///< "rt/vekcan/rx/fws_27"

    /// Subscribes the answer topic (announcing it to the IPC daemon when the transport is
    /// already connected). The transport must not be empty.
    explicit MaintenanceRequestClient(std::shared_ptr<com::ITransportClient> transport);
    MaintenanceRequestClient(const MaintenanceRequestClient&) = delete;
    MaintenanceRequestClient& operator=(const MaintenanceRequestClient&) = delete;

    /// Takes the token, sends the request and waits for the answer, timeout_ms in all (at
    /// least 1000). The error texts say what failed; "Timeout occured" also when called on
    /// the network thread. The token is taken through a PGN client of its own, which fails
    /// on the TPA partition, and is not given back.
    virtual RequestResult request(const Request& request, unsigned int timeout_ms);
    /// Unsubscribes the answer topic.
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

/// Empty, with an ERROR line, without a transport.
TAVI_EXPORT std::shared_ptr<MaintenanceRequestClient> create_main_req_client(
    std::shared_ptr<com::ITransportClient>& transport);

}  // namespace ecu::tavi::diag
