// The record file of `tavictl record` and `tavictl replay`: JSON Lines. The first line names
// the format and its version; every further line is one message:
//
//   {"format":"tavictl-record","version":1,"filters":["rt/#"],"started":"2026-11-22T17:00:00Z"}
//   {"t":0.0153,"topic":"rt/vekcan/rx/ccvs","qos":0,"retain":false,"payload":"<base64>",
//    "decoded":{...}}
//
// t is seconds since the recording started; "decoded" is for the reader and ignored by
// replay. A hand-written line may give, instead of "payload", a real-time group's signals by
// name ("signals":{"wheel_based_vehicle_speed":50}; the others stay zero) or a platform
// variable's value ("variable":"WDB963..."), which are packed or framed when read.
//
// Reading is strict and never throws: the first bad line ends it with its line number.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "decoder.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/result.h"

namespace tavictl {

constexpr const char* kRecordFormat = "tavictl-record";
constexpr int kRecordVersion = 1;

struct RecordEntry {
    double t = 0;  // seconds since the start
    std::string topic;
    ecu::tavi::com::Message message;  // payload, QoS and retain flag
};

// The first line of a record file.
Json record_header(const std::vector<std::string>& filters);
// A received message as a JSON object: topic, QoS, retain, base64 payload and the decoded
// view when there is one; the record adds "t" in front.
Json message_json(const std::string& topic, const ecu::tavi::com::Message& message);

// Parses a whole record file. Real-time signal lines need the signal adapter's table
// (use_rt_support_library); the error then says so.
ecu::tavi::Result<std::vector<RecordEntry>, std::string> read_record(const std::string& text);

std::string base64_encode(const std::vector<std::uint8_t>& data);
// False for anything that is not canonical base64 with padding.
bool base64_decode(const std::string& text, std::vector<std::uint8_t>& data);

}  // namespace tavictl
