// Internals of the time base, apart so tests can point them at other devices, files and
// clocks than the process-wide ones.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "ecu/tavi/datetime.h"

namespace ecu::tavi::detail {

// Boot-relative clock read from a time device by ioctl; owns the device's descriptor.
class BootClock {
public:
    // Opens the device read-only and non-blocking; a missing device is logged and leaves
    // the steady clock in charge.
    explicit BootClock(const std::string& device);
    ~BootClock();
    BootClock(const BootClock&) = delete;
    BootClock& operator=(const BootClock&) = delete;

    uint64_t now_ns() const;

private:
    int m_fd;
};

// wait_for_valid_systemtime with the wall clock and the one-second pause supplied.
bool wait_for_valid_systemtime(unsigned long long seconds,
                               const std::function<uint64_t()>& systemtime_ms,
                               const std::function<void()>& sleep_one_second);

// boot_id read from any file holding a boot id line.
Uuid read_boot_id(const std::string& path);

}  // namespace ecu::tavi::detail
