/// \file
/// The contract between the library and a platform's real-time support library: the records
/// that describe every signal group of the vehicle, and the entry point that hands them over.
///
/// A support library is a shared object that defines `mapping_factory` (declared below) and
/// returns a table that lives as long as the process: the library keeps pointers into it and
/// never frees or changes it. Build it with the same C++ standard library as the application,
/// since the table is made of standard containers. The sample in tools/rtsupport shows a
/// complete one.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ecu/tavi/export.h"

namespace ecu::tavi::rt::_internal {

/// How a signal's raw value is judged valid.
enum StatusEvaluation : int32_t {
    CAN_STATUS = 0,    ///< bus conventions: error and not-available codes, then min/max
    RAW_RANGE = 1,     ///< all raw bits set means not available, then min/max
    AS_ENUM = 2,       ///< every value is valid
    WITH_STATUS = 3,   ///< reserved for signals carrying their own status; treated as valid
    ALL_BYTES_FF = 4,  ///< not available when every data byte is 0xFF
};

/// One signal. Raw data is little-endian; physical value = (raw + offset) * factor.
struct signal_def {
    const char* name;      ///< the signal's name in its group
    int32_t dt_bit_size;   ///< width of one element of the data type, in bits, > 0
    int32_t raw_bit_size;  ///< meaningful raw bits, > 0; more than one element makes an array
    double factor;         ///< must not be 0 for signals that are written
    uint32_t min;          ///< smallest valid raw value
    uint32_t max;          ///< largest valid raw value
    int32_t offset;        ///< added to the raw value before the factor
    /// Start bit of the signal in its bus frame. The payload here concatenates whole signals
    /// byte-aligned, so the library does not read it; the platform's relay places the bits.
    int32_t bus_start_bit;
    int32_t status_eval;  ///< a StatusEvaluation
};

/// One signal group: its signals in payload order.
struct signalgroup_def {
    const char* name;  ///< the group's name
    int32_t bus;       ///< 0 and 1 are the two vehicle buses, anything else means no bus
    bool retained;     ///< messages of the group are published retained
    std::vector<signal_def> signals;  ///< the signals in payload order
};

/// A group and its real-time identifier.
struct signalgroup_mapping {
    uint32_t rtid;          ///< the real-time identifier, unique in the table
    signalgroup_def group;  ///< the group itself
};

/// Every group of the platform by its broker topic, ordered by topic.
using SignalGroupsDefinition = std::map<std::string, signalgroup_mapping>;

/// Name and type of the support library's entry point: takes nothing, returns the table.
constexpr const char* c_mapping_factory_symbol = "mapping_factory";
/// The type of the entry point.
using mapping_factory_fn = const SignalGroupsDefinition* (*)();

}  // namespace ecu::tavi::rt::_internal

/// Declared here so a support library's definition is checked against this signature.
extern "C" TAVI_EXPORT const ecu::tavi::rt::_internal::SignalGroupsDefinition* mapping_factory();
