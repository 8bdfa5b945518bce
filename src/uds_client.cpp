// UdsClient on the shared transport.
//
// Locks: the status lock guards the interface state, the stored allocation config and the
// status counter; the response lock guards the last response and the response counter. The
// observer takes them one after the other, never nested, and calls the application's
// observer with neither held, so that it may use the asynchronous operations.
#include "ecu/tavi/diag/uds_client.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "sync_call.h"
#include "topics.h"
#include "tpa.h"

namespace ecu::tavi::diag {

namespace {

using namespace ecu::tavi::logging;
using com::_internal::SyncStatus;
using Clock = std::chrono::steady_clock;
using Adapter = com::PbInternalMessageAdapter<pb::UdsIfMessage>;

const auto s_log = logging::module("tavi.diag.uds");

const char* const kAllocateTopic = "system/udsifd/allocate";
const char* const kReleaseTopic = "system/udsifd/release";
const char* const kWithdrawTopic = "system/udsifd/withdraw";
const char* const kRequestTopic = "system/udsifd/request";
const char* const kFlowCtrlTopic = "system/udsifd/flowctrl";

void fill_interface(pb::UdsInterface& out, const UdsInterfaceAllocationConfig& config) {
    const auto protocol =
        config.protocol == 1 ? pb::UdsInterface::UDS_TP_ISO : pb::UdsInterface::UDS_TP_UNKNOWN;
    const auto phyif = config.phyif == 1   ? pb::UdsInterface::UDS_IF_CAN1
                       : config.phyif == 2 ? pb::UdsInterface::UDS_IF_CAN2
                                           : pb::UdsInterface::UDS_IF_UNKNOWN;
    if (pb::UdsInterface_TransportProtocol_IsValid(protocol)) {
        out.set_protocol(protocol);
    }
    if (pb::UdsInterface_PhysicalInterface_IsValid(phyif)) {
        out.set_phyif(phyif);
    }
    out.set_param(config.param);
}

// The public config of a received interface.
UdsInterfaceAllocationConfig config_of(const pb::UdsInterface& in) {
    return {in.protocol() == pb::UdsInterface::UDS_TP_ISO ? 1u : 0u,
            in.phyif() == pb::UdsInterface::UDS_IF_CAN1   ? 1u
            : in.phyif() == pb::UdsInterface::UDS_IF_CAN2 ? 2u
                                                          : 0u,
            in.param()};
}

bool same(const UdsInterfaceAllocationConfig& a, const UdsInterfaceAllocationConfig& b) {
    return a.protocol == b.protocol && a.phyif == b.phyif && a.param == b.param;
}

std::string describe(const UdsInterfaceAllocationConfig& c) {
    return "Status: '" + std::to_string(c.protocol) + "' If: '" + std::to_string(c.phyif) +
           "' Alloc: '" + std::to_string(c.param) + "'";
}

uint32_t map_response_code(uint32_t code) {
    switch (code) {
        case 1:
            return 0;
        case 2:
            return UDS_ERROR_REJECTED;
        case 3:
            return UDS_ERROR_REFUSED;
        case 10:
        case 11:
        case 12:
            return UDS_ERROR_TRANSPORT;
        case 20:
            return UDS_ERROR_TIMEOUT;
        default:
            return UDS_ERROR_OTHER;
    }
}

UdsParameters short_parameters(unsigned int timeout_ms, unsigned char block_size,
                               unsigned int extended_address) {
    UdsParameters params;
    params.block_size = block_size;
    params.timeout_ms = timeout_ms;
    params.extended_address = extended_address;
    return params;
}

const char* const kInterfaceTopics[] = {kAllocateTopic, kReleaseTopic, kWithdrawTopic};

Clock::time_point deadline_in(unsigned int ms) {
    return Clock::now() + std::chrono::milliseconds(ms);
}

}  // namespace

class UdsClientImpl : public UdsClient {
public:
    UdsClientImpl(std::shared_ptr<com::ITransportClient> transport, IUdsClientObserver* observer);
    ~UdsClientImpl() override;

    uint32_t allocate_interface(const UdsInterfaceAllocationConfig& config,
                                unsigned int timeout_ms) override;
    bool allocate_interface_async(const UdsInterfaceAllocationConfig& config) const override;
    bool release_interface(unsigned int timeout_ms) override;
    bool release_interface_async() const override;
    bool withdraw_interface(unsigned int timeout_ms) override;
    bool withdraw_interface_async() const override;
    UdsResponse send_request(const UdsMessage& request, const UdsParameters& params) override;
    UdsResponse send_request(const UdsMessage& request, unsigned int timeout_ms,
                             unsigned char block_size, unsigned int extended_address) override;
    int send_request_async(const UdsMessage& request, const UdsParameters& params) override;
    int send_request_async(const UdsMessage& request, unsigned int timeout_ms,
                           unsigned char block_size, unsigned int extended_address) override;
    int send_flowctrl_async(unsigned char block_size, unsigned char st_min, unsigned short wft_max,
                            FlowStatus status) override;

private:
    class PublishObserver : public com::ISubscriptionObserver {
    public:
        explicit PublishObserver(UdsClientImpl* owner) : m_owner(owner) {}
        void message(const std::string& topic, const com::Message& message) override {
            m_owner->message(topic, message);
        }

    private:
        UdsClientImpl* m_owner;
    };

    enum class Kind { ALLOCATE, RELEASE, WITHDRAW };

    // With the status lock held: the framed allocation, release or withdraw request for
    // the stored interface; an allocation stores its config first and makes the state
    // unknown. Logs and returns nothing when the request cannot be framed.
    Result<com::Message, com::err::SerializationError> interface_request(
        Kind kind, const UdsInterfaceAllocationConfig* config) const;
    bool interface_request_async(Kind kind, const UdsInterfaceAllocationConfig* config) const;
    // The synchronous release and withdraw: one wait for any status of this interface.
    bool give_back(Kind kind, const char* call, unsigned int timeout_ms);
    // A framed request (diagnostic or flow control) on the owned interface, or 1 (no
    // interface) or 2 (not framed) as send_request_async says.
    Result<com::Message, int> interface_message(
        const std::function<void(pb::UdsInterfaceRequest&)>& fill) const;
    Result<com::Message, int> diagnostic_request(const UdsMessage& request,
                                                 const UdsParameters& params) const;
    int publish_request(const char* topic, const Result<com::Message, int>& framed);

    void message(const std::string& topic, const com::Message& message);
    // With the status lock held: whether a message is about the owned interface; logs
    // when it is not.
    bool is_own_instance(const pb::UdsInterface& interface, const char* what) const;
    void status_received(const std::string& topic, const pb::UdsIfMessage& message);
    void response_received(const pb::UdsIfMessage& message);

    mutable std::mutex m_status_mutex;
    std::condition_variable m_status_cv;
    mutable std::mutex m_response_mutex;
    std::condition_variable m_response_cv;

    UdsMessage m_response;
    uint32_t m_response_code = 0;
    // Counts the responses and statuses of this interface, so that a waiter can tell that
    // one arrived since it sent its request.
    uint64_t m_responses = 0;
    uint64_t m_statuses = 0;

    mutable UdsInterfaceAllocationConfig m_config{0, 0, 0};
    mutable uint32_t m_state = UDS_INTERFACE_UNKNOWN;

    std::shared_ptr<com::ITransportClient> m_transport;
    std::string m_client_name;
    std::string m_status_topic;
    std::string m_response_topic;
    Adapter m_adapter{com::PROTOCOL_UDS};
    std::shared_ptr<PublishObserver> m_observer;
    IUdsClientObserver* m_app_observer;
};

UdsClientImpl::UdsClientImpl(std::shared_ptr<com::ITransportClient> transport,
                             IUdsClientObserver* observer)
    : m_transport(std::move(transport)),
      m_client_name(m_transport->get_client_name()),
      m_status_topic(com::_internal::app_topic(m_client_name, "/uds/status")),
      m_response_topic(com::_internal::app_topic(m_client_name, "/uds/response")),
      m_observer(std::make_shared<PublishObserver>(this)),
      m_app_observer(observer) {
    m_transport->subscribe(m_status_topic, 1, m_observer);
    m_transport->subscribe(m_response_topic, 1, m_observer);
}

UdsClientImpl::~UdsClientImpl() {
    m_transport->unsubscribe(m_status_topic, m_observer);
    m_transport->unsubscribe(m_response_topic, m_observer);
}

Result<com::Message, com::err::SerializationError> UdsClientImpl::interface_request(
    Kind kind, const UdsInterfaceAllocationConfig* config) const {
    pb::UdsIfMessage request;
    fill_interface(*request.mutable_interface(), config != nullptr ? *config : m_config);
    request.mutable_allocation()->set_client_name(m_client_name);
    auto framed = m_adapter.serialize(request);
    if (!framed) {
        static const char* const kWhat[] = {"allocation", "release", "withdraw"};
        ERROR << s_log << "Unable to serialize " << kWhat[static_cast<int>(kind)]
              << " request for client " << m_client_name;
        ERROR.do_flush();
        return framed;
    }
    if (kind == Kind::ALLOCATE) {
        m_config = *config;
        m_state = UDS_INTERFACE_UNKNOWN;
    }
    framed.value().set_qos(1);
    return framed;
}

bool UdsClientImpl::interface_request_async(Kind kind,
                                            const UdsInterfaceAllocationConfig* config) const {
    std::lock_guard<std::mutex> lock(m_status_mutex);
    auto framed = interface_request(kind, config);
    return framed &&
           m_transport->publish(kInterfaceTopics[static_cast<int>(kind)], framed.value()) == 0;
}

bool UdsClientImpl::allocate_interface_async(const UdsInterfaceAllocationConfig& config) const {
    return interface_request_async(Kind::ALLOCATE, &config);
}

bool UdsClientImpl::release_interface_async() const {
    return interface_request_async(Kind::RELEASE, nullptr);
}

bool UdsClientImpl::withdraw_interface_async() const {
    return interface_request_async(Kind::WITHDRAW, nullptr);
}

uint32_t UdsClientImpl::allocate_interface(const UdsInterfaceAllocationConfig& config,
                                           unsigned int timeout_ms) {
    // Refused before the lock: the observer may be holding it on this very thread.
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, "allocate_interface")) {
        return UDS_INTERFACE_UNAVAILABLE;
    }
    const auto deadline = deadline_in(timeout_ms);
    std::unique_lock<std::mutex> lock(m_status_mutex);
    auto framed = interface_request(Kind::ALLOCATE, &config);
    if (!framed) {
        return UDS_INTERFACE_UNKNOWN;
    }
    const uint64_t before = m_statuses;
    // "In progress" keeps the allocation waiting; any other status settles it.
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log, "allocate_interface", kAllocateTopic, framed.value(), lock,
        m_status_cv, deadline,
        [&] { return m_statuses != before && m_state != UDS_INTERFACE_IN_PROGRESS; });
    if (status == SyncStatus::ANSWERED) {
        return m_state;
    }
    if (status == SyncStatus::NOT_SENT) {
        return UDS_INTERFACE_UNKNOWN;
    }
    WARNING << s_log << "Udsifd for '" << m_client_name << "' did not become ready in time!";
    WARNING.do_flush();
    return UDS_INTERFACE_UNAVAILABLE;
}

bool UdsClientImpl::give_back(Kind kind, const char* call, unsigned int timeout_ms) {
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, call)) {
        return false;
    }
    const auto deadline = deadline_in(timeout_ms);
    std::unique_lock<std::mutex> lock(m_status_mutex);
    auto framed = interface_request(kind, nullptr);
    if (!framed) {
        return false;
    }
    const uint64_t before = m_statuses;
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log, call, kInterfaceTopics[static_cast<int>(kind)], framed.value(), lock,
        m_status_cv, deadline, [&] { return m_statuses != before; });
    if (status != SyncStatus::TIMED_OUT) {
        return status == SyncStatus::ANSWERED;
    }
    if (kind == Kind::RELEASE) {
        WARNING << s_log << "Udsifd for '" << m_client_name
                << "' did not become free in time, enforce it!";
        // The daemon is not asked again: locally the interface is free from now on.
        m_state = UDS_INTERFACE_FREE;
        m_config = {0, 0, 0};
    } else {
        WARNING << s_log << "Udsifd for '" << m_client_name
                << "' did not become free in time, will not enforce it";
    }
    WARNING.do_flush();
    return false;
}

bool UdsClientImpl::release_interface(unsigned int timeout_ms) {
    return give_back(Kind::RELEASE, "release_interface", timeout_ms);
}

bool UdsClientImpl::withdraw_interface(unsigned int timeout_ms) {
    return give_back(Kind::WITHDRAW, "withdraw_interface", timeout_ms);
}

Result<com::Message, int> UdsClientImpl::interface_message(
    const std::function<void(pb::UdsInterfaceRequest&)>& fill) const {
    using R = Result<com::Message, int>;
    pb::UdsIfMessage message;
    {
        std::lock_guard<std::mutex> lock(m_status_mutex);
        if (m_state == UDS_INTERFACE_FREE || m_state == UDS_INTERFACE_UNKNOWN) {
            return R::err(1);
        }
        fill_interface(*message.mutable_interface(), m_config);
    }
    message.mutable_request()->set_client_name(m_client_name);
    fill(*message.mutable_request());
    auto framed = m_adapter.serialize(message);
    if (!framed) {
        ERROR << s_log << "Unable to serialize UDS request for client " << m_client_name;
        ERROR.do_flush();
        return R::err(2);
    }
    framed.value().set_qos(1);
    return R::ok(std::move(framed.value()));
}

Result<com::Message, int> UdsClientImpl::diagnostic_request(const UdsMessage& request,
                                                            const UdsParameters& params) const {
    return interface_message([&](pb::UdsInterfaceRequest& out) {
        out.set_payload(request.data.data(), request.data.size());
        if (params.extended_address != 255) {
            out.set_extended_address(params.extended_address);
        }
        out.set_block_size(params.block_size);
        out.set_st_min(params.st_min);
        out.set_wft_max(params.wft_max);
        out.set_timeout_ms(params.timeout_ms);
        out.set_max_length(params.max_length);
        out.set_p2_ms(params.p2_ms);
        out.set_p2_ext_ms(params.p2_ext_ms);
    });
}

int UdsClientImpl::publish_request(const char* topic, const Result<com::Message, int>& framed) {
    if (!framed) {
        return framed.error();
    }
    return m_transport->publish(topic, framed.value()) == 0 ? 0 : 2;
}

int UdsClientImpl::send_request_async(const UdsMessage& request, const UdsParameters& params) {
    return publish_request(kRequestTopic, diagnostic_request(request, params));
}

int UdsClientImpl::send_request_async(const UdsMessage& request, unsigned int timeout_ms,
                                      unsigned char block_size, unsigned int extended_address) {
    return send_request_async(request, short_parameters(timeout_ms, block_size, extended_address));
}

UdsResponse UdsClientImpl::send_request(const UdsMessage& request, const UdsParameters& params) {
    if (com::_internal::refuse_on_network_thread(*m_transport, s_log, "send_request")) {
        return UdsResponse::err(UDS_ERROR_TIMEOUT);
    }
    const auto deadline = deadline_in(params.timeout_ms);
    auto framed = diagnostic_request(request, params);
    if (!framed) {
        return UdsResponse::err(framed.error() == 1 ? UDS_ERROR_REJECTED : UDS_ERROR_OTHER);
    }
    std::unique_lock<std::mutex> lock(m_response_mutex);
    const uint64_t before = m_responses;
    const auto status = com::_internal::publish_and_wait(
        *m_transport, s_log, "send_request", kRequestTopic, framed.value(), lock, m_response_cv,
        deadline, [&] { return m_responses != before; });
    if (status == SyncStatus::NOT_SENT) {
        return UdsResponse::err(UDS_ERROR_OTHER);
    }
    if (status != SyncStatus::ANSWERED) {
        WARNING << s_log << "Udsifd for '" << m_client_name
                << "' did not responsed in time, timeout!";
        WARNING.do_flush();
        return UdsResponse::err(UDS_ERROR_TIMEOUT);
    }
    if (m_response_code != 0) {
        return UdsResponse::err(m_response_code);
    }
    return UdsResponse::ok(UdsMessage{m_response.address, std::move(m_response.data)});
}

UdsResponse UdsClientImpl::send_request(const UdsMessage& request, unsigned int timeout_ms,
                                        unsigned char block_size, unsigned int extended_address) {
    return send_request(request, short_parameters(timeout_ms, block_size, extended_address));
}

int UdsClientImpl::send_flowctrl_async(unsigned char block_size, unsigned char st_min,
                                       unsigned short wft_max, FlowStatus status) {
    const auto flow_status = static_cast<int>(status);
    if (!pb::UdsInterfaceRequest_FlowStatus_IsValid(flow_status)) {
        ERROR << s_log << "Invalid flow status " << flow_status << " for client " << m_client_name;
        ERROR.do_flush();
        return 2;
    }
    return publish_request(
        kFlowCtrlTopic, interface_message([&](pb::UdsInterfaceRequest& out) {
            out.set_block_size(block_size);
            out.set_st_min(st_min);
            out.set_wft_max(wft_max);
            out.set_flow_status_res(static_cast<pb::UdsInterfaceRequest_FlowStatus>(flow_status));
        }));
}

void UdsClientImpl::message(const std::string& topic, const com::Message& message) {
    auto decoded = m_adapter.deserialize(message);
    if (!decoded) {
        ERROR << s_log << "Unable to deserialize message for topic " << topic
              << ", unable to continue!";
        ERROR.do_flush();
        return;
    }
    if (topic == m_response_topic) {
        response_received(decoded.value());
    } else if (topic == m_status_topic) {
        status_received(topic, decoded.value());
    } else {
        ERROR << s_log << "Unexpected message received, unable to handle";
        ERROR.do_flush();
    }
}

bool UdsClientImpl::is_own_instance(const pb::UdsInterface& interface, const char* what) const {
    const UdsInterfaceAllocationConfig received = config_of(interface);
    if (same(received, m_config)) {
        return true;
    }
    DEBUG << s_log << what << " desired for different instance\nReceived: " << describe(received)
          << "\nExpected: " << describe(m_config);
    DEBUG.do_flush();
    return false;
}

void UdsClientImpl::response_received(const pb::UdsIfMessage& message) {
    {
        std::lock_guard<std::mutex> lock(m_status_mutex);
        if (!is_own_instance(message.interface(), "Request response")) {
            return;
        }
    }
    DEBUG << s_log << "Request response received for " << m_client_name;
    DEBUG.do_flush();
    const auto& in = message.response();
    UdsMessage response{in.address(),
                        std::vector<uint8_t>(in.payload().begin(), in.payload().end())};
    {
        std::lock_guard<std::mutex> lock(m_response_mutex);
        m_response_code = map_response_code(in.response_code());
        m_response = response;
        ++m_responses;
    }
    // The observer hears of it before a waiting send_request returns.
    if (m_app_observer != nullptr) {
        m_app_observer->on_response(response);
    }
    m_response_cv.notify_all();
}

void UdsClientImpl::status_received(const std::string& topic, const pb::UdsIfMessage& message) {
    if (!message.has_status()) {
        ERROR << s_log << "Status is not available on message for topic: " << topic;
        ERROR.do_flush();
        return;
    }
    uint32_t reported = UDS_INTERFACE_UNKNOWN;
    {
        std::lock_guard<std::mutex> lock(m_status_mutex);
        if (!is_own_instance(message.interface(), "Status")) {
            return;
        }
        const auto state = message.status().state();
        DEBUG << s_log << "Status '" << pb::UdsInterfaceStatus_State_Name(state)
              << "' received for " << m_client_name;
        DEBUG.do_flush();
        if (state == pb::UdsInterfaceStatus::UDS_STATE_FREE) {
            m_state = UDS_INTERFACE_FREE;
            m_config = {0, 0, 0};
            reported = m_state;
        } else if (state <= pb::UdsInterfaceStatus::UDS_STATE_WITHDRAWN) {
            m_state = static_cast<uint32_t>(state);
            reported = m_state;
        } else if (state == pb::UdsInterfaceStatus::UDS_STATE_UNKNOWN) {
            m_state = UDS_INTERFACE_UNKNOWN;
        }
        // Transient transport conditions leave the allocation as it is.
        ++m_statuses;
    }
    if (m_app_observer != nullptr) {
        m_app_observer->on_status(reported);
    }
    m_status_cv.notify_all();
}

std::shared_ptr<UdsClient> create_uds_client(std::shared_ptr<com::ITransportClient>& transport,
                                             IUdsClientObserver* observer) {
    if (ecu::tavi::_internal::refuse_vehicle_client(transport != nullptr, s_log,
                                                    "Cannot create UDS client on TPA partition.")) {
        return nullptr;
    }
    return std::make_shared<UdsClientImpl>(transport, observer);
}

}  // namespace ecu::tavi::diag
