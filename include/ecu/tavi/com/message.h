/// \file
/// One MQTT payload as published or received, with the QoS and retain flag used to send it
/// and the sender's time stamp, which is read from the framing header only when asked for.
///
/// Not thread safe: get_timestamp() caches into the object, so one Message must not be read
/// from two threads at once; copies are independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "ecu/tavi/export.h"

namespace ecu::tavi::com {

/// An MQTT payload with its QoS, retain flag and (framed messages) sender's time stamp.
///
/// A value type. Not thread safe, not even for reading: get_timestamp() caches into the
/// object. A message handed to an observer is valid only during the call; copy it to keep it.
class TAVI_EXPORT Message {
public:
    /// Empty payload, QoS 0, not retained.
    Message() = default;
    /// Takes the bytes over.
    explicit Message(std::vector<std::uint8_t> data) : m_data(std::move(data)) {}
    /// Copies size bytes from data.
    Message(const void* data, std::size_t size)
        : m_data(static_cast<const std::uint8_t*>(data),
                 static_cast<const std::uint8_t*>(data) + size) {}
    virtual ~Message();

    /// Copies and moves: a copy is independent of the original.
    ///@{
    Message(const Message&) = default;
    Message(Message&&) = default;
    Message& operator=(const Message&) = default;
    Message& operator=(Message&&) = default;
    ///@}

    /// QoS to publish with, or the QoS a received message was delivered with (the lower of
    /// the publisher's and the subscription's).
    std::uint8_t get_qos() const { return m_qos; }
    /// QoS 0, 1 or 2 for publishing.
    void set_qos(std::uint8_t qos) { m_qos = qos; }
    /// Whether to publish retained, or whether a received message came from the broker's
    /// store of retained messages.
    bool get_retain() const { return m_retain; }
    /// Publish the message retained.
    void set_retain(bool retain) { m_retain = retain; }

    /// The payload bytes; the reference lives as long as the message and its data is not
    /// replaced.
    const std::vector<std::uint8_t>& get_data() const { return m_data; }
    /// The payload bytes, for changing in place.
    std::vector<std::uint8_t>& get_data() { return m_data; }
    /// Replaces the payload.
    void set_data(std::vector<std::uint8_t> data) { m_data = std::move(data); }

    /// Sender's time since boot in nanoseconds, taken from the framing header on first use
    /// and kept; 0 when the payload carries no readable header.
    std::int64_t get_timestamp() const;
    /// Stores a known time stamp, so that the header is not read. 0 counts as unknown: the
    /// header is then still read.
    void set_timestamp(std::int64_t timestamp_ns) {
        m_timestamp = timestamp_ns;
        m_timestamp_evaluated = true;
    }
    /// Whether the time stamp has been read or set.
    bool is_timestamp_evaluated() const { return m_timestamp_evaluated; }

private:
    std::uint8_t m_qos = 0;
    mutable std::int64_t m_timestamp = 0;
    mutable bool m_timestamp_evaluated = false;
    std::vector<std::uint8_t> m_data;
    bool m_retain = false;
};

}  // namespace ecu::tavi::com
