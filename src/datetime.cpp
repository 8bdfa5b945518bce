#include "ecu/tavi/datetime.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <chrono>
#include <ctime>
#include <fstream>

#include "datetime_internal.h"
#include "ecu/tavi/logging/logging.h"

namespace ecu::tavi {
namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.datetime");

const char* const kTimeDevice = "/dev/p4_time";
const char* const kBootIdPath = "/proc/sys/kernel/random/boot_id";
// _IOR('P', 0, ...) of the time device's driver: reads nanoseconds since boot.
const unsigned long kTimeDeviceRead = 0x80045000UL;

// 2018-01-01 00:00:00 UTC: no unit ships with a clock set before that, so anything at or
// before it is an unset clock.
const uint64_t kValidThresholdS = 1514764800ULL;
const uint64_t kValidThresholdMs = kValidThresholdS * 1000ULL;
const uint64_t kValidThresholdUs = kValidThresholdMs * 1000ULL;

template <typename Duration, typename Clock>
uint64_t count_since_epoch() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<Duration>(Clock::now().time_since_epoch()).count());
}

void log_valid_time(uint64_t time_ms) {
    NOTICE << s_log << "Valid system time detected: " << time_ms;
    NOTICE.do_flush();
}

}  // namespace

bool Uuid::is_null() const {
    for (auto byte : bytes) {
        if (byte != 0) {
            return false;
        }
    }
    return true;
}

std::string Uuid::to_string() const {
    char text[37];
    uuid_unparse_lower(bytes.data(), text);
    return text;
}

namespace detail {

BootClock::BootClock(const std::string& device)
    : m_fd(open(device.c_str(), O_RDONLY | O_NONBLOCK)) {
    if (m_fd < 0) {
        const int error = errno;  // before logging can change it
        ALERT << s_log << "Could not open device " << device << " errno:" << error;
        ALERT.do_flush();
    }
}

BootClock::~BootClock() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

uint64_t BootClock::now_ns() const {
    if (m_fd >= 0) {
        uint64_t ns = 0;
        if (ioctl(m_fd, kTimeDeviceRead, &ns) == 0) {
            return ns;
        }
        ERROR << s_log << "Ioctl error";
        ERROR.do_flush();
    }
    return count_since_epoch<std::chrono::nanoseconds, std::chrono::steady_clock>();
}

bool wait_for_valid_systemtime(unsigned long long seconds,
                               const std::function<uint64_t()>& systemtime_ms,
                               const std::function<void()>& sleep_one_second) {
    uint64_t now = systemtime_ms();
    if (DateTime::is_valid_time_ms(now)) {
        log_valid_time(now);
        return true;
    }
    NOTICE << s_log << "Waiting for a valid system time (" << seconds << " seconds) ...";
    NOTICE.do_flush();
    for (unsigned long long waited = 0; waited < seconds; ++waited) {
        sleep_one_second();
        now = systemtime_ms();
        if (DateTime::is_valid_time_ms(now)) {
            log_valid_time(now);
            return true;
        }
    }
    WARNING << s_log << "Wait for a valid system time timed out after " << seconds
            << " seconds! No valid system time available!";
    WARNING.do_flush();
    return false;
}

Uuid read_boot_id(const std::string& path) {
    Uuid id;
    std::ifstream file(path);
    if (!file) {
        ERROR << s_log << "Could not open boot_id device";
        ERROR.do_flush();
        return id;
    }
    std::string text;
    if (!std::getline(file, text)) {
        ERROR << s_log << "Could not read boot_id from " << path;
        ERROR.do_flush();
        return id;
    }
    DEBUG << s_log << "Parsing raw boot_id = " << text;
    DEBUG.do_flush();
    if (uuid_parse(text.c_str(), id.bytes.data()) != 0) {
        ERROR << s_log << "Could not parse boot_id from " << path;
        ERROR.do_flush();
        id = Uuid{};
        return id;
    }
    INFO << s_log << "Got boot_id = " << text;
    INFO.do_flush();
    return id;
}

}  // namespace detail

uint64_t DateTime::systemtime_s() {
    return count_since_epoch<std::chrono::seconds, std::chrono::system_clock>();
}

uint64_t DateTime::systemtime_ms() {
    return count_since_epoch<std::chrono::milliseconds, std::chrono::system_clock>();
}

uint64_t DateTime::systemtime_us() {
    return count_since_epoch<std::chrono::microseconds, std::chrono::system_clock>();
}

uint64_t DateTime::time_since_boot_ns() {
    // Opened on first use and never closed: time stamps may still be taken while other
    // static objects are destroyed at exit.
    static const detail::BootClock* const s_clock = new detail::BootClock(kTimeDevice);
    return s_clock->now_ns();
}

uint64_t DateTime::time_since_boot_ms() {
    return convert_time_ms(time_since_boot_ns());
}

uint64_t DateTime::convert_time_ms(uint64_t ns) {
    return ns / 1000000ULL;
}

uint64_t DateTime::convert_boot_to_system_ms(uint64_t boot_ms) {
    return systemtime_ms() + boot_ms - time_since_boot_ms();
}

bool DateTime::is_valid_time_s(uint64_t t) {
    return t > kValidThresholdS;
}

bool DateTime::is_valid_time_ms(uint64_t t) {
    return t > kValidThresholdMs;
}

bool DateTime::is_valid_time_us(uint64_t t) {
    return t > kValidThresholdUs;
}

bool DateTime::wait_for_valid_systemtime(unsigned long long seconds) {
    return detail::wait_for_valid_systemtime(seconds, &DateTime::systemtime_ms, [] {
        timespec one_second{1, 0};
        // An interrupted pause only makes one poll come early.
        nanosleep(&one_second, nullptr);
    });
}

Uuid DateTime::boot_id() {
    return detail::read_boot_id(kBootIdPath);
}

}  // namespace ecu::tavi
