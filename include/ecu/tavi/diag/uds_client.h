/// \file
/// Diagnostic (UDS over ISO transport) interfaces of the ECU, borrowed from the UDS interface
/// daemon "udsifd": allocate one, send requests and flow-control frames on it, give it back.
///
/// Thread safety: every operation may be called from any application thread. The observer is
/// called on the transport's network thread; inside it, the asynchronous operations may be
/// used, while the synchronous ones (allocate_interface, release_interface,
/// withdraw_interface, send_request) fail at once with an ERROR line, since their answer
/// could only arrive on that very thread.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::diag {

/// Names the interface: transport protocol (1 = ISO transport, anything else unknown),
/// physical interface (1 = CAN 1, 2 = CAN 2, anything else unknown) and a parameter passed to
/// the daemon unchanged. The three together tell the interface instance.
struct UdsInterfaceAllocationConfig {
    uint32_t protocol;  ///< transport protocol
    uint32_t phyif;     ///< physical interface
    uint32_t param;     ///< passed to the daemon unchanged
};

/// Parameters of one request, with the defaults of the short send_request overloads.
struct UdsParameters {
    uint8_t st_min = 0xFF;      ///< separation time between consecutive frames
    uint8_t block_size = 0xFF;  ///< frames per flow-control block
    uint16_t wft_max = 0xFFFF;  ///< most wait frames accepted in a row
    uint32_t p2_ms = 150;       ///< the ECU's response time, ms
    uint32_t p2_ext_ms = 5000;  ///< the ECU's extended response time, ms
    /// Also how long the synchronous send_request waits for the response.
    uint32_t timeout_ms = 150000;
    /// 255: none given, the request carries no extended address.
    uint32_t extended_address = 255;
    uint32_t max_length = 4096;  ///< longest response accepted, in bytes
};

/// A UDS payload with the address (identifier) it came from or goes to.
struct UdsMessage {
    uint32_t address = 0;       ///< the ECU's address (identifier)
    std::vector<uint8_t> data;  ///< the UDS payload
};

/// Flow status of an ISO transport flow-control frame.
enum class FlowStatus : int {
    CONTINUE_TO_SEND = 0,  ///< go on sending
    WAIT = 1,              ///< wait for the next flow-control frame
    OVERFLOW = 2,          ///< the receiver cannot take the message
};

/// Interface states: what the client stores and the status callback receives.
enum UdsInterfaceState : uint32_t {
    UDS_INTERFACE_FREE = 0,         ///< released; the client owns no interface
    UDS_INTERFACE_ALLOCATED = 1,    ///< the daemon allocated it to this client
    UDS_INTERFACE_IN_PROGRESS = 2,  ///< the daemon is still working on the allocation
    UDS_INTERFACE_UNAVAILABLE = 3,  ///< also: the allocation was not answered in time
    UDS_INTERFACE_WITHDRAWN = 4,    ///< the allocation was withdrawn
    UDS_INTERFACE_UNKNOWN = 5,      ///< not yet known: at start and while an allocation is sent
};

/// Outcome of a request: the response, or one of these codes.
enum UdsRequestError : uint32_t {
    UDS_ERROR_REJECTED = 1,   ///< also: no interface allocated, nothing was sent
    UDS_ERROR_REFUSED = 2,    ///< the daemon refused the request
    UDS_ERROR_TIMEOUT = 3,    ///< the ECU or the daemon did not answer in time
    UDS_ERROR_TRANSPORT = 4,  ///< an ISO transport error
    UDS_ERROR_OTHER = 5,      ///< any other answer; also: the request could not be built
};
/// The response to a synchronous request, or a UdsRequestError.
using UdsResponse = Result<UdsMessage, uint32_t>;

/// Told about status changes and responses of the client's own interface instance, on the
/// transport's network thread, with none of the client's locks held: the asynchronous
/// operations of the client may be used inside. Messages about other instances are not
/// passed on.
class TAVI_EXPORT IUdsClientObserver {
public:
    virtual ~IUdsClientObserver() = default;
    /// A status the daemon reported: a UdsInterfaceState; UDS_INTERFACE_UNKNOWN for a
    /// passing transport condition, which leaves the stored state alone.
    virtual void on_status(uint32_t state) = 0;
    /// A response to a request, synchronous ones included; called before a waiting
    /// send_request() returns. The reference is valid during the call only.
    virtual void on_response(const UdsMessage& response) = 0;
};

/// A diagnostic interface of the UDS interface daemon, borrowed by this client.
///
/// Made by create_uds_client(). Thread safe; the synchronous operations block their caller
/// and are refused on the network thread. Responses are not matched to requests: the first
/// response of the client's interface after sending ends a synchronous wait, and synchronous
/// requests of one client run one at a time. The client holds the transport; destroy it on
/// any thread but the network thread.
class TAVI_EXPORT UdsClient {
public:
    virtual ~UdsClient() = default;

    /// Asks for the interface and waits until the daemon has settled the allocation ("in
    /// progress" keeps waiting). Returns the state; 3 when not settled within timeout_ms
    /// (WARNING line) or refused on the network thread, 5 when the request could not be
    /// built or sent.
    virtual uint32_t allocate_interface(const UdsInterfaceAllocationConfig& config,
                                        unsigned int timeout_ms) = 0;
    /// Asks for the interface without waiting; false when the request could not be sent.
    virtual bool allocate_interface_async(const UdsInterfaceAllocationConfig& config) const = 0;
    /// Gives the interface back; true when the daemon answered in time. Without an answer
    /// the client counts the interface as free anyway.
    virtual bool release_interface(unsigned int timeout_ms) = 0;
    /// Asks to give the interface back without waiting; false when the request could not be
    /// sent.
    virtual bool release_interface_async() const = 0;
    /// Withdraws the allocation; true when the daemon answered in time. Without an answer
    /// the client keeps its state.
    virtual bool withdraw_interface(unsigned int timeout_ms) = 0;
    /// Asks to withdraw the allocation without waiting; false when the request could not be
    /// sent.
    virtual bool withdraw_interface_async() const = 0;

    /// Sends a request and waits params.timeout_ms for its response. The error is a
    /// UdsRequestError: REJECTED without an interface, TIMEOUT also when refused on the
    /// network thread, OTHER when the request could not be built or sent.
    virtual UdsResponse send_request(const UdsMessage& request, const UdsParameters& params) = 0;
    /// The same with the default parameters, but the given time-out, block size and extended
    /// address.
    virtual UdsResponse send_request(const UdsMessage& request, unsigned int timeout_ms,
                                     unsigned char block_size, unsigned int extended_address) = 0;
    /// Sends a request; the response reaches the observer. 0 sent, 1 no interface (nothing
    /// sent), 2 the request could not be built or sent.
    virtual int send_request_async(const UdsMessage& request, const UdsParameters& params) = 0;
    /// The same with the default parameters, but the given time-out, block size and extended
    /// address.
    virtual int send_request_async(const UdsMessage& request, unsigned int timeout_ms,
                                   unsigned char block_size, unsigned int extended_address) = 0;
    /// Sends a flow-control frame; results as send_request_async.
    virtual int send_flowctrl_async(unsigned char block_size, unsigned char st_min,
                                    unsigned short wft_max, FlowStatus status) = 0;
};

/// A client on the shared transport; observer may be null. The client keeps the raw
/// observer pointer and calls it until the client is destroyed: it must outlive the client.
/// Empty, with an ERROR line, on the TPA partition or without a transport.
TAVI_EXPORT std::shared_ptr<UdsClient> create_uds_client(
    std::shared_ptr<com::ITransportClient>& transport, IUdsClientObserver* observer);

}  // namespace ecu::tavi::diag
