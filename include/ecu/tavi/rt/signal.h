/// \file
/// One real-time vehicle signal: its raw little-endian bytes, their validity by the bus
/// conventions for "error" and "not available" codes, and the scaled (physical) value.
///
/// A Signal only points to its definition, which the support library owns. Not thread safe:
/// use one Signal from one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "ecu/tavi/export.h"
#include "ecu/tavi/rt/definitions.h"

namespace ecu::tavi::rt {

/// One signal of a group: raw bytes plus a pointer to its definition in the support
/// library's table.
///
/// A value type; not thread safe. The definition is not owned: it lives as long as the
/// table, which for a loaded support library is the life of the process. Every accessor that
/// needs the definition aborts the process on a signal made without one.
class TAVI_EXPORT Signal {
public:
    /// Raw little-endian bytes.
    using DATA = std::vector<unsigned char>;

    /// Validity of the raw value (see _internal::StatusEvaluation).
    enum Status : int {
        NOT_AVAILABLE = 0,    ///< the "not available" code
        ERROR_INDICATOR = 1,  ///< the "error" code
        OUT_OF_RANGE = 2,     ///< outside min..max
        OK = 3,               ///< valid
    };

    /// A physical value, or why there is none.
    struct ScaleResult {
        bool ok;            ///< whether value holds the physical value
        double value;       ///< 0.0 unless ok
        std::string error;  ///< empty when ok
    };

    /// A signal without definition: only assignable; every definition accessor aborts.
    Signal() = default;
    /// data should be as long as the larger of data type bytes and payload bytes; its length
    /// never changes afterwards.
    Signal(std::string name, const _internal::signal_def* definition, DATA data);

    /// The signal's name in its group.
    const std::string& name() const { return m_name; }
    /// The raw bytes; the reference lives as long as the signal.
    const DATA& data() const { return m_data; }
    /// The definition in the support library's table; null for a default-made signal.
    const _internal::signal_def* definition() const { return m_sig_def; }

    /// Fields of the definition (see _internal::signal_def); each aborts without one.
    ///@{
    double factor() const;
    unsigned int min() const;
    unsigned int max() const;
    int offset() const;
    ///@}
    /// Whether every raw value counts as valid (_internal::AS_ENUM).
    bool is_enum() const;
    /// Width of one element of the data type, in bits and in whole bytes.
    ///@{
    int data_type_size_bits() const;
    int data_type_size_bytes() const;
    ///@}
    /// Meaningful raw bits, and the bytes they take in the payload.
    ///@{
    int data_payload_size_bits() const;
    int data_payload_size_bytes() const;
    ///@}

    /// The validity of the raw value by the definition's status evaluation. An array signal
    /// (more than one element) under the bus conventions is OK, with a NOTICE line.
    Status status() const;
    /// The physical value of a valid single-element signal of 1, 2 or 4 payload bytes;
    /// otherwise ok is false and error says why.
    ScaleResult value_scaled() const;
    /// Stores x / factor - offset, truncated and saturated to 0..4294967295; no range check.
    /// False for an array signal. Aborts when the definition's factor is 0.
    bool set_scaled_value(double x);
    /// Copies d over the first bytes; false (nothing changed) when d is longer than the data.
    bool set_data(DATA const& d);

    /// Name and bytes only: the same signal from two tables compares equal.
    bool operator==(Signal const& other) const;
    /// The negation of operator==.
    bool operator!=(Signal const& other) const { return !(*this == other); }

private:
    /// Payload bytes / data type bytes; 1 for a plain bus signal.
    int elements() const;
    Status can_status() const;

    std::string m_name;
    const _internal::signal_def* m_sig_def = nullptr;
    DATA m_data;
};

}  // namespace ecu::tavi::rt
