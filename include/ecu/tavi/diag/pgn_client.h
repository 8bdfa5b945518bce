/// \file
/// Request tokens for parameter groups (PGN requests on the vehicle bus), handed out by the
/// PGN request daemon "pgnreqd". An application holds the token of a PGN before it asks the
/// vehicle's ECUs for that group.
///
/// Thread safety: one client serves one token request at a time; concurrent calls queue.
/// get_request_token blocks its caller; called on the transport's network thread (inside an
/// observer) it fails at once with an ERROR line.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::diag {

/// Acquires and releases PGN request tokens at the daemon "pgnreqd".
///
/// Made by create_pgn_request_client(); holds the transport, subscribes
/// "app/<client name>/pgn/response" for its life. Destroy it on any thread but the network
/// thread. Tokens are not given back when the client goes: call release_token().
class TAVI_EXPORT PgnRequestClient {
public:
    /// Why no token was granted.
    enum Error : int32_t {
        Unknown = 0,      ///< the daemon refused, or the request could not be sent
        Timeout = 1,      ///< no token within the time-out
        ECU_unknown = 2,  ///< no ECU answers for this PGN
    };

    virtual ~PgnRequestClient() = default;

    /// Asks for the token until it is granted, refused or the time-out passes. While the
    /// daemon answers "busy" the request is sent again after a pause of 2 seconds, which the
    /// client waits out even when the time-out ends sooner. On the network thread it fails
    /// at once with Timeout.
    virtual Result<void, Error> get_request_token(const std::string& pgn,
                                                  std::chrono::seconds timeout) = 0;
    /// Gives the token back without waiting for an answer; a failed send is only logged.
    /// Allowed on the network thread.
    virtual void release_token(const std::string& pgn) = 0;

    /// "Error::Unknown", "Error::Timeout", "Error::ECU_unknown"; null for any other value.
    static const char* error_str(const Error& error);
};

/// Empty, with an ERROR line, on the TPA partition or without a transport.
TAVI_EXPORT std::shared_ptr<PgnRequestClient> create_pgn_request_client(
    std::shared_ptr<com::ITransportClient>& transport);

}  // namespace ecu::tavi::diag
