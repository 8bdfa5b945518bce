// Process-wide settings that only the project's own tests change: applications have no way
// to reach them, and the library reads them where it would otherwise use a constant.
//
// - The fixed waits of the platform protocols (a first service status within 5 s, an RPC
//   answer within 30 s, the system parameter table within 60 s, the transport's 5 s pause
//   before it reconnects, ...) are written at their nominal lengths and divided by one
//   factor, so that tests can see every time-out without making the suite slow.
// - The host name file that tells the partition (normally "/etc/hostname"), so that tests
//   can play the TPA partition.
//
// Set them before creating the clients under test; ScopedOverrides puts them back.
#pragma once

#include <atomic>
#include <chrono>

namespace ecu::tavi::_internal {

inline std::atomic<unsigned> g_fixed_wait_divisor{1};
inline std::atomic<const char*> g_hostname_file{"/etc/hostname"};

// A fixed wait of the protocols at the length it has in this process.
template <typename Rep, typename Period>
std::chrono::nanoseconds fixed_wait(std::chrono::duration<Rep, Period> nominal) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(nominal) /
           g_fixed_wait_divisor.load(std::memory_order_relaxed);
}

// The host name file that a client's Partition reads.
inline const char* hostname_file() {
    return g_hostname_file.load(std::memory_order_relaxed);
}

// For tests: divides the fixed waits and/or replaces the host name file while it lives. The
// file name must outlive it.
class ScopedOverrides {
public:
    explicit ScopedOverrides(unsigned divisor, const char* hostname = nullptr)
        : m_divisor(g_fixed_wait_divisor.exchange(divisor == 0 ? 1 : divisor)),
          m_hostname(hostname ? g_hostname_file.exchange(hostname) : g_hostname_file.load()) {}
    ~ScopedOverrides() {
        g_fixed_wait_divisor = m_divisor;
        g_hostname_file = m_hostname;
    }
    ScopedOverrides(const ScopedOverrides&) = delete;
    ScopedOverrides& operator=(const ScopedOverrides&) = delete;

private:
    unsigned m_divisor;
    const char* m_hostname;
};

}  // namespace ecu::tavi::_internal
