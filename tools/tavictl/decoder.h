// Decodes any payload seen on the broker by its topic: the frame header, the protobuf body
// when the topic's message type is known, real-time signal groups through the signal
// adapter, raw bytes otherwise. Never fails: whatever cannot be decoded is shown as hex with
// the reason.
//
// decode() may be called from any thread once use_rt_support_library() (if at all) is done.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ecu/tavi/rt/definitions.h"

namespace tavictl {

// JSON that keeps its keys in the order written, so that output reads like the record format.
using Json = nlohmann::ordered_json;

struct FrameHeader {
    std::uint32_t protocol_type = 0;
    std::uint32_t header_length = 0;
    std::uint64_t body_length = 0;
    std::int64_t timestamp_ns = 0;
};

struct DecodedSignal {
    std::string name;
    std::optional<double> value;  // the scaled value of a valid signal
    std::string status;           // "OK", "NOT_AVAILABLE", "ERROR_INDICATOR", "OUT_OF_RANGE"
    std::string raw_hex;
};

struct Decoded {
    std::optional<FrameHeader> header;  // set when the payload begins with a valid header
    std::string type;                   // full protobuf name of the topic's type, or ""
    bool body_ok = false;               // the body parsed as type
    std::string body_text;              // one-line protobuf text of the body
    Json body_json;                     // the body as JSON (field names as declared)
    std::string group;                  // real-time group name, when it unpacked
    std::uint64_t group_time_ms = 0;
    std::vector<DecodedSignal> signals;
    std::string error;  // why the payload or body could not be decoded
};

// Loads a real-time support library and gives its table to the signal adapter; false with
// the reason when the library cannot be loaded or has no table.
bool use_rt_support_library(const std::string& path, std::string& error);
// Gives a table to the signal adapter directly; it must outlive every decode.
void use_rt_table(const ecu::tavi::rt::_internal::SignalGroupsDefinition* table);
bool rt_support_loaded();

// The protobuf type name carried on a topic ("ecu.tavi.pb.LogConfig"), or "".
std::string topic_type(const std::string& topic);
bool is_rt_topic(const std::string& topic);
// A real-time group's topic for a topic under "rt/" or "rttx/".
std::string rt_group_topic(const std::string& topic);

Decoded decode(const std::string& topic, const std::vector<std::uint8_t>& payload);

// Several lines, each ending in a newline: the topic line, then the decoded view indented.
std::string to_text(const std::string& topic, const std::vector<std::uint8_t>& payload,
                    const Decoded& decoded);
// The decoded view only (no topic, no raw payload); empty when nothing was decoded.
Json to_json(const Decoded& decoded);

std::string to_hex(const std::uint8_t* data, std::size_t size);

}  // namespace tavictl
