// Framing of internal messages behind pb::KOVHeader, the unframed VCP and backend
// payloads, and the lazily read time stamp of com::Message.
#include "ecu/tavi/com/messageadapter.h"

#include <climits>
#include <cstring>
#include <new>

#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/rtsignal.pb.h"

namespace ecu::tavi::com {
namespace {

using namespace ecu::tavi::logging;
using err::PbInternalDeserializationError;
using err::SerializationError;

const auto s_log = logging::module("tavi.com.messageadapter");
const auto s_vcp_log = logging::module("tavi.com.vcpmessageadapter");
const auto s_be_log = logging::module("tavi.com.bemessageadapter");

using SerializeResult = Result<Message, SerializationError>;
using UnframeResult = Result<void, PbInternalDeserializationError>;

// The header length travels in 16 bits and is checked against this on reception.
constexpr std::uint64_t kHeaderLength = FRAME_HEADER_SIZE;

// The serialized pb::KOVHeader is read and written here directly. With both fixed64
// fields always set it can only be a one-byte tag and eight little-endian bytes per
// field, so 18 bytes that a protobuf parser accepts are exactly these two fields, in
// either order. Doing it by hand saves a protobuf pass per message; the tests compare
// the result with the generated class and with protoc.
constexpr std::uint8_t kLengthTag = 1 << 3 | 1;     // field 1, wire type fixed64
constexpr std::uint8_t kTimestampTag = 2 << 3 | 1;  // field 2, wire type fixed64
constexpr std::size_t kSecondField = 9;

struct Header {
    std::uint64_t length;
    std::uint64_t timestamp;
};

void put_fixed64(std::uint8_t* out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        out[i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

std::uint64_t get_fixed64(const std::uint8_t* in) {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value |= static_cast<std::uint64_t>(in[i]) << (8 * i);
    }
    return value;
}

void encode_header(const Header& header, std::uint8_t* out) {
    out[0] = kLengthTag;
    put_fixed64(out + 1, header.length);
    out[kSecondField] = kTimestampTag;
    put_fixed64(out + kSecondField + 1, header.timestamp);
}

// Decodes the first FRAME_HEADER_SIZE bytes of in.
bool decode_header(const std::uint8_t* in, Header& header) {
    const std::uint8_t first = in[0];
    const std::uint8_t second = in[kSecondField];
    if (first == kLengthTag && second == kTimestampTag) {
        header = {get_fixed64(in + 1), get_fixed64(in + kSecondField + 1)};
        return true;
    }
    if (first == kTimestampTag && second == kLengthTag) {
        header = {get_fixed64(in + kSecondField + 1), get_fixed64(in + 1)};
        return true;
    }
    return false;
}

void log(logging::_internal::LogStream& level, const std::shared_ptr<LogModule>& module,
         const char* text) {
    level << module << text;
    level.do_flush();
}

const std::shared_ptr<LogModule>& raw_log(_internal::RawChannel channel) {
    return channel == _internal::RawChannel::BACKEND ? s_be_log : s_vcp_log;
}

SerializeResult serialize_failed(const std::shared_ptr<LogModule>& module,
                                 SerializationError error) {
    switch (error) {
        case SerializationError::OUT_OF_MEMORY:
            log(EMERG, module, "Unable to allocate memory for serialization!");
            break;
        case SerializationError::BODY_FAILED:
            log(ERROR, module, "unable to serialize body!");
            break;
        case SerializationError::PROTOCOL_NOT_SPECIFIED:
            log(ERROR, module, "Protocol is not specified, unable to serialize!");
            break;
    }
    return SerializeResult::err(error);
}

// Serialized size of a protobuf body; false when it cannot be serialized: required fields
// missing, or too large for protobuf's int sizes.
bool body_size(const google::protobuf::MessageLite& body, std::size_t& size) {
    if (!body.IsInitialized()) {
        return false;
    }
    size = body.ByteSizeLong();
    return size <= static_cast<std::size_t>(INT_MAX);
}

// Builds header and body in one buffer. write_body gets the position after the header and
// returns the end of what it wrote.
template <typename WriteBody>
SerializeResult build_frame(std::uint32_t protocol_type, std::size_t size,
                            const WriteBody& write_body) {
    if (static_cast<std::uint64_t>(size) > UINT32_MAX) {
        return serialize_failed(s_log, SerializationError::BODY_FAILED);
    }
    const Header header = {
        static_cast<std::uint64_t>(size) << 32 | kHeaderLength << 16 | (protocol_type & 0xFFFFu),
        DateTime::time_since_boot_ns()};
    std::vector<std::uint8_t> data;
    try {
        data.resize(FRAME_HEADER_SIZE + size);
    } catch (const std::bad_alloc&) {
        return serialize_failed(s_log, SerializationError::OUT_OF_MEMORY);
    }
    encode_header(header, data.data());
    if (write_body(data.data() + FRAME_HEADER_SIZE) != data.data() + data.size()) {
        return serialize_failed(s_log, SerializationError::BODY_FAILED);
    }
    Message message(std::move(data));
    message.set_timestamp(static_cast<std::int64_t>(header.timestamp));
    return SerializeResult::ok(std::move(message));
}

// Runs the header checks in their fixed order; on success gives the body length and
// stores the received protocol type.
UnframeResult check_header(const std::vector<std::uint8_t>& data,
                           std::atomic<std::uint32_t>& protocol_type, std::uint32_t& body_length) {
    if (data.size() < FRAME_HEADER_SIZE) {
        // An empty payload is a normal event (a cleared retained topic), not worth a line.
        if (!data.empty()) {
            log(ERROR, s_log, "Total length is smaller then expected header length");
        }
        return UnframeResult::err(PbInternalDeserializationError::TOO_SHORT);
    }
    Header header;
    if (!decode_header(data.data(), header)) {
        log(ERROR, s_log, "Unable to decode the header.");
        return UnframeResult::err(PbInternalDeserializationError::HEADER_INVALID);
    }
    const std::uint64_t word = header.length;
    const auto received_protocol = static_cast<std::uint32_t>(word & 0xFFFFu);
    if (received_protocol == 0) {
        log(ERROR, s_log, "ProtocolType is set to not used!");
        return UnframeResult::err(PbInternalDeserializationError::PROTOCOL_NOT_USED);
    }
    if ((word >> 16 & 0xFFFFu) != kHeaderLength) {
        log(ERROR, s_log, "Specified hdr-len does not comply.");
        return UnframeResult::err(PbInternalDeserializationError::HEADER_LENGTH);
    }
    // Answers go out with the protocol type of the last message received.
    protocol_type.store(received_protocol, std::memory_order_relaxed);
    body_length = static_cast<std::uint32_t>(word >> 32);
    return UnframeResult::ok();
}

UnframeResult body_invalid(const std::shared_ptr<LogModule>& module) {
    log(EMERG, module, "Unable to deserialize protobuf");
    return UnframeResult::err(PbInternalDeserializationError::BODY_INVALID);
}

bool parse(const std::uint8_t* data, std::size_t size, google::protobuf::MessageLite& body) {
    return size <= static_cast<std::size_t>(INT_MAX) &&
           body.ParseFromArray(data, static_cast<int>(size));
}

}  // namespace

Message::~Message() = default;

std::int64_t Message::get_timestamp() const {
    if (m_timestamp != 0 && m_timestamp_evaluated) {
        return m_timestamp;
    }
    m_timestamp_evaluated = true;
    if (m_data.size() < FRAME_HEADER_SIZE) {
        return m_timestamp;
    }
    Header header;
    if (decode_header(m_data.data(), header)) {
        m_timestamp = static_cast<std::int64_t>(header.timestamp);
    }
    return m_timestamp;
}

namespace _internal {

SerializeResult frame(std::uint32_t protocol_type, const google::protobuf::MessageLite& body) {
    std::size_t size = 0;
    if (!body_size(body, size)) {
        return serialize_failed(s_log, SerializationError::BODY_FAILED);
    }
    return build_frame(protocol_type, size, [&body](std::uint8_t* target) {
        return body.SerializeWithCachedSizesToArray(target);
    });
}

SerializeResult frame(std::uint32_t protocol_type, const std::string& body) {
    return build_frame(protocol_type, body.size(), [&body](std::uint8_t* target) {
        // Raw bytes, not a C string: no terminator belongs in the frame.
        // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
        std::memcpy(target, body.data(), body.size());
        return target + body.size();
    });
}

UnframeResult unframe(const Message& message, std::atomic<std::uint32_t>& protocol_type,
                      google::protobuf::MessageLite& body) {
    const auto& data = message.get_data();
    std::uint32_t body_length = 0;
    auto header = check_header(data, protocol_type, body_length);
    if (!header) {
        return header;
    }
    // The header is at most the whole payload here, so the subtraction cannot wrap, and
    // comparing against the rest cannot overflow the way header + body length could.
    if (body_length > data.size() - FRAME_HEADER_SIZE ||
        !parse(data.data() + FRAME_HEADER_SIZE, body_length, body)) {
        return body_invalid(s_log);
    }
    return UnframeResult::ok();
}

UnframeResult unframe(const Message& message, std::atomic<std::uint32_t>& protocol_type,
                      std::string& body) {
    const auto& data = message.get_data();
    std::uint32_t body_length = 0;
    auto header = check_header(data, protocol_type, body_length);
    if (!header) {
        return header;
    }
    // Raw bytes have no structure of their own to tell where they end, so the header must
    // account for the whole payload.
    if (body_length != data.size() - FRAME_HEADER_SIZE) {
        log(ERROR, s_log, "message length doesn't match the header");
        return UnframeResult::err(PbInternalDeserializationError::BODY_INVALID);
    }
    body.assign(data.begin() + FRAME_HEADER_SIZE, data.end());
    return UnframeResult::ok();
}

SerializeResult serialize_raw(RawChannel channel, std::uint32_t protocol_type,
                              const google::protobuf::MessageLite& body) {
    const auto& module = raw_log(channel);
    if (protocol_type == 0) {
        return serialize_failed(module, SerializationError::PROTOCOL_NOT_SPECIFIED);
    }
    std::size_t size = 0;
    if (!body_size(body, size)) {
        return serialize_failed(module, SerializationError::BODY_FAILED);
    }
    std::vector<std::uint8_t> data;
    try {
        data.resize(size);
    } catch (const std::bad_alloc&) {
        return serialize_failed(module, SerializationError::OUT_OF_MEMORY);
    }
    if (body.SerializeWithCachedSizesToArray(data.data()) != data.data() + size) {
        return serialize_failed(module, SerializationError::BODY_FAILED);
    }
    return SerializeResult::ok(Message(std::move(data)));
}

SerializeResult serialize_raw(RawChannel channel, std::uint32_t protocol_type,
                              const std::string& body) {
    const auto& module = raw_log(channel);
    if (protocol_type == 0) {
        return serialize_failed(module, SerializationError::PROTOCOL_NOT_SPECIFIED);
    }
    try {
        return SerializeResult::ok(Message(body.data(), body.size()));
    } catch (const std::bad_alloc&) {
        return serialize_failed(module, SerializationError::OUT_OF_MEMORY);
    }
}

UnframeResult deserialize_raw(RawChannel channel, const Message& message,
                              google::protobuf::MessageLite& body) {
    const auto& data = message.get_data();
    if (!parse(data.data(), data.size(), body)) {
        return body_invalid(raw_log(channel));
    }
    return UnframeResult::ok();
}

UnframeResult deserialize_raw(RawChannel, const Message& message, std::string& body) {
    const auto& data = message.get_data();
    body.assign(data.begin(), data.end());
    return UnframeResult::ok();
}

std::uint64_t SignalTime<pb::RtSignal>::get_timestamp(const pb::RtSignal& signal) {
    return signal.timestamp();
}

}  // namespace _internal
}  // namespace ecu::tavi::com
