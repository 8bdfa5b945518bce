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

class TAVI_EXPORT Signal {
public:
    using DATA = std::vector<unsigned char>;

    enum Status : int { NOT_AVAILABLE = 0, ERROR_INDICATOR = 1, OUT_OF_RANGE = 2, OK = 3 };

    struct ScaleResult {
        bool ok;
        double value;       ///< 0.0 unless ok
        std::string error;  ///< empty when ok
    };

    /// A signal without definition: only assignable; every definition accessor aborts.
    Signal() = default;
    /// data should be as long as the larger of data type bytes and payload bytes; its length
    /// never changes afterwards.
    Signal(std::string name, const _internal::signal_def* definition, DATA data);

    const std::string& name() const { return m_name; }
    const DATA& data() const { return m_data; }
    const _internal::signal_def* definition() const { return m_sig_def; }

    double factor() const;
    unsigned int min() const;
    unsigned int max() const;
    int offset() const;
    bool is_enum() const;
    int data_type_size_bits() const;
    int data_type_size_bytes() const;
    int data_payload_size_bits() const;
    int data_payload_size_bytes() const;

    Status status() const;
    /// The physical value of a valid single-element signal of 1, 2 or 4 payload bytes.
    ScaleResult value_scaled() const;
    /// Stores x / factor - offset, truncated and saturated to 0..4294967295; no range check.
    bool set_scaled_value(double x);
    /// Copies d over the first bytes; false (nothing changed) when d is longer than the data.
    bool set_data(DATA const& d);

    /// Name and bytes only: the same signal from two tables compares equal.
    bool operator==(Signal const& other) const;
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
