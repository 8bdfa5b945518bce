/// \file
/// Message adapters: turn typed payloads into com::Message objects and back.
///
/// PbInternalMessageAdapter<T> frames a protobuf message (or raw bytes held in a
/// std::string) behind the fixed 18-byte pb::KOVHeader that carries protocol type, header
/// length, body length and the sender's time since boot. PbVcpMessageAdapter<T> and
/// PbBackendMessageAdapter<T> pass the bytes without a header. Each client keeps one
/// adapter per message type.
///
/// Adapters never throw; failures are error Results and log lines. serialize() and
/// deserialize() may be called from several threads at once.
///
/// Wire layout of a framed message:
///
///     bytes 0..17   pb::KOVHeader: fixed64 length word (bits 0..15 protocol type, 16..31
///                   header length = 18, 32..63 body length), fixed64 time stamp in ns
///     bytes 18..    the serialized body; anything after body length bytes is ignored
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include <google/protobuf/message_lite.h>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::pb {
class RtSignal;
}

namespace ecu::tavi::com {

namespace err {

/// Why a received payload was rejected, in the order the checks are made.
enum class PbInternalDeserializationError : int {
    TOO_SHORT = 1,          ///< empty or shorter than the header
    HEADER_INVALID = 2,     ///< the first 18 bytes are no header
    PROTOCOL_NOT_USED = 3,  ///< protocol type 0
    HEADER_LENGTH = 4,      ///< header length other than 18
    BODY_INVALID = 5,       ///< body length past the payload, or the body does not parse
};

/// Why a message could not be built.
enum class SerializationError : int {
    OUT_OF_MEMORY = 1,           ///< no memory for the payload
    BODY_FAILED = 2,             ///< also: body too large for the length word
    PROTOCOL_NOT_SPECIFIED = 3,  ///< raw adapters refuse protocol type 0
};

}  // namespace err

/// Size of the serialized pb::KOVHeader in front of every framed message.
constexpr std::size_t FRAME_HEADER_SIZE = 18;

/// Turns a T into a Message and back; E says why a payload was rejected.
///
/// Neither operation throws or changes anything the caller can see (PbInternalMessageAdapter
/// notes the protocol type it received); both may be called from several threads at once.
template <typename T, typename E>
class IMessageAdapter {
public:
    virtual ~IMessageAdapter() = default;
    /// The payload of body, QoS 0 and not retained; an error, with a log line, when it cannot
    /// be built.
    virtual Result<Message, err::SerializationError> serialize(const T& body) const = 0;
    /// The body a received payload carries; an error, with a log line, when the payload is
    /// rejected.
    virtual Result<T, E> deserialize(const Message& message) const = 0;
};

namespace _internal {

/// The framing itself, shared by every instantiation of the adapter templates. The
/// std::string overloads treat the bytes as the body; the protobuf overloads serialize and
/// parse it.
TAVI_EXPORT Result<Message, err::SerializationError> frame(
    std::uint32_t protocol_type, const google::protobuf::MessageLite& body);
TAVI_EXPORT Result<Message, err::SerializationError> frame(std::uint32_t protocol_type,
                                                           const std::string& body);
/// Checks the header and fills body; a valid header's protocol type is stored in
/// protocol_type.
TAVI_EXPORT Result<void, err::PbInternalDeserializationError> unframe(
    const Message& message, std::atomic<std::uint32_t>& protocol_type,
    google::protobuf::MessageLite& body);
TAVI_EXPORT Result<void, err::PbInternalDeserializationError> unframe(
    const Message& message, std::atomic<std::uint32_t>& protocol_type, std::string& body);

/// Unframed payloads of the VCP and backend adapters; the channel picks the log module.
enum class RawChannel { VCP, BACKEND };
TAVI_EXPORT Result<Message, err::SerializationError> serialize_raw(
    RawChannel channel, std::uint32_t protocol_type, const google::protobuf::MessageLite& body);
TAVI_EXPORT Result<Message, err::SerializationError> serialize_raw(RawChannel channel,
                                                                   std::uint32_t protocol_type,
                                                                   const std::string& body);
TAVI_EXPORT Result<void, err::PbInternalDeserializationError> deserialize_raw(
    RawChannel channel, const Message& message, google::protobuf::MessageLite& body);
TAVI_EXPORT Result<void, err::PbInternalDeserializationError> deserialize_raw(
    RawChannel channel, const Message& message, std::string& body);

/// Runs fill on a T built in place inside the result, so that a parsed message is never
/// moved.
template <typename T, typename Fill>
Result<T, err::PbInternalDeserializationError> parse_into(const Fill& fill) {
    auto result = Result<T, err::PbInternalDeserializationError>::ok();
    auto status = fill(result.value());
    if (!status) {
        result = Result<T, err::PbInternalDeserializationError>::err(status.error());
    }
    return result;
}

/// Adds get_timestamp() to the adapters of real-time signals; empty for other types.
template <typename T>
class SignalTime {};

template <>
class TAVI_EXPORT SignalTime<pb::RtSignal> {
public:
    /// The signal's own time: milliseconds since boot when it was packed.
    static std::uint64_t get_timestamp(const pb::RtSignal& signal);
};

}  // namespace _internal

/// Frames T behind a pb::KOVHeader. T is a protobuf message or std::string (raw bytes).
///
/// A successful deserialize() stores the received protocol type in the adapter, so a later
/// serialize() answers with the protocol type of the last message received. serialize()
/// stamps the header with DateTime::time_since_boot_ns(). A std::string body must fill the
/// payload exactly: bytes after it are rejected, while a protobuf body ignores them.
/// For T = pb::RtSignal the adapter also offers a static get_timestamp(const pb::RtSignal&):
/// the signal's own time, milliseconds since boot when it was packed.
///
/// Thread safe: one adapter may serve several threads at once.
template <typename T>
class PbInternalMessageAdapter : public IMessageAdapter<T, err::PbInternalDeserializationError>,
                                 public _internal::SignalTime<T> {
public:
    /// An adapter that frames with the given protocol type (see ProtocolType); received
    /// messages may carry any non-zero type.
    explicit PbInternalMessageAdapter(std::uint32_t protocol_type)
        : m_protocol_type(protocol_type) {}

    Result<Message, err::SerializationError> serialize(const T& body) const override {
        return _internal::frame(protocol_type(), body);
    }
    Result<T, err::PbInternalDeserializationError> deserialize(
        const Message& message) const override {
        return _internal::parse_into<T>(
            [&](T& body) { return _internal::unframe(message, m_protocol_type, body); });
    }

    /// The protocol type serialize() writes: the constructor's, or the last one received.
    std::uint32_t protocol_type() const { return m_protocol_type.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<std::uint32_t> m_protocol_type;
};

/// Passes T without a header: a std::string's bytes as they are, a protobuf message
/// serialized. Refuses to serialize with protocol type 0. Thread safe, without state.
template <typename T>
class PbVcpMessageAdapter : public IMessageAdapter<T, err::PbInternalDeserializationError>,
                            public _internal::SignalTime<T> {
public:
    /// An adapter that logs in "tavi.com.vcpmessageadapter". The protocol type is not
    /// sent; it only has to be non-zero.
    explicit PbVcpMessageAdapter(std::uint32_t protocol_type)
        : PbVcpMessageAdapter(_internal::RawChannel::VCP, protocol_type) {}

    Result<Message, err::SerializationError> serialize(const T& body) const override {
        return _internal::serialize_raw(m_channel, m_protocol_type, body);
    }
    Result<T, err::PbInternalDeserializationError> deserialize(
        const Message& message) const override {
        return _internal::parse_into<T>(
            [&](T& body) { return _internal::deserialize_raw(m_channel, message, body); });
    }

    /// The protocol type given to the constructor.
    std::uint32_t protocol_type() const { return m_protocol_type; }

protected:
    /// An adapter that logs in the module of the given channel.
    PbVcpMessageAdapter(_internal::RawChannel channel, std::uint32_t protocol_type)
        : m_channel(channel), m_protocol_type(protocol_type) {}

private:
    _internal::RawChannel m_channel;
    std::uint32_t m_protocol_type;
};

/// Content for the backend proxy: as the VCP adapter, logging as the backend adapter.
template <typename T>
class PbBackendMessageAdapter : public PbVcpMessageAdapter<T> {
public:
    /// An adapter that logs in "tavi.com.bemessageadapter".
    explicit PbBackendMessageAdapter(std::uint32_t protocol_type)
        : PbVcpMessageAdapter<T>(_internal::RawChannel::BACKEND, protocol_type) {}
};

}  // namespace ecu::tavi::com
