/// \file
/// The library's time base: wall-clock time in three resolutions, a boot-relative clock
/// read from the platform's time device (the steady clock stands in without it), the
/// test whether the wall clock has been set, and the kernel's boot identifier.
///
/// All functions are static and thread safe; the time device is opened once per process.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi {

/// A 16-byte universally unique identifier; all zero when none could be read. A value type.
struct TAVI_EXPORT Uuid {
    std::array<uint8_t, 16> bytes{};  ///< The bytes in the order of the text form.

    /// All sixteen bytes are zero.
    bool is_null() const;
    /// Lower-case canonical text, "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx".
    std::string to_string() const;

    /// Byte-wise comparison.
    ///@{
    bool operator==(const Uuid& other) const { return bytes == other.bytes; }
    bool operator!=(const Uuid& other) const { return bytes != other.bytes; }
    ///@}
};

/// Clocks of the unit. Static only; every function may be called from any thread.
class TAVI_EXPORT DateTime {
public:
    DateTime() = delete;

    /// System clock since the epoch, truncated to the unit.
    ///@{
    static uint64_t systemtime_s();
    static uint64_t systemtime_ms();
    static uint64_t systemtime_us();
    ///@}

    /// Nanoseconds since boot from "/dev/p4_time", or the steady clock when the device is
    /// missing or fails. The device is opened on first use (an ALERT line when it cannot
    /// be) and stays open for the life of the process; a failed read logs an ERROR line.
    static uint64_t time_since_boot_ns();
    /// time_since_boot_ns() in milliseconds.
    static uint64_t time_since_boot_ms();

    /// Nanoseconds to milliseconds, truncated.
    static uint64_t convert_time_ms(uint64_t ns);
    /// Wall-clock milliseconds of a boot-relative time stamp in milliseconds.
    static uint64_t convert_boot_to_system_ms(uint64_t boot_ms);

    /// A wall clock at or before 2018-01-01 00:00:00 UTC has not been set yet.
    ///@{
    static bool is_valid_time_s(uint64_t t);
    static bool is_valid_time_ms(uint64_t t);
    static bool is_valid_time_us(uint64_t t);
    ///@}

    /// Polls once a second until the wall clock is valid; false after the given number of
    /// seconds without a valid time (WARNING line). Blocks the calling thread: do not call
    /// it on the transport's network thread.
    static bool wait_for_valid_systemtime(unsigned long long seconds);

    /// The kernel's boot id from "/proc/sys/kernel/random/boot_id"; all zero, with an ERROR
    /// line, on failure.
    static Uuid boot_id();
};

}  // namespace ecu::tavi
