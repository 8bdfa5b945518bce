#include "ecu/tavi/datetime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include "datetime_internal.h"
#include "ecu/tavi/fs/fs.h"
#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"

namespace ecu::tavi {
namespace {

class DateTimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable("tavi.datetime", false);
    }
};

using test::log_of;

uint64_t steady_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

TEST_F(DateTimeTest, ValidityThresholdsAreExclusive) {
    EXPECT_FALSE(DateTime::is_valid_time_s(0));
    EXPECT_FALSE(DateTime::is_valid_time_s(1514764800ULL));
    EXPECT_TRUE(DateTime::is_valid_time_s(1514764801ULL));
    EXPECT_FALSE(DateTime::is_valid_time_ms(1514764800000ULL));
    EXPECT_TRUE(DateTime::is_valid_time_ms(1514764800001ULL));
    EXPECT_FALSE(DateTime::is_valid_time_us(1514764800000000ULL));
    EXPECT_TRUE(DateTime::is_valid_time_us(1514764800000001ULL));
    // A valid seconds count is far below the thresholds of the finer units.
    EXPECT_FALSE(DateTime::is_valid_time_ms(1514764801ULL));
    EXPECT_FALSE(DateTime::is_valid_time_us(1514764800001ULL));
}

TEST_F(DateTimeTest, MissingDeviceFallsBackToSteadyClock) {
    std::unique_ptr<detail::BootClock> made;
    const std::string log =
        log_of([&] { made = std::make_unique<detail::BootClock>("/nonexistent/p4_time"); });
    const detail::BootClock& clock = *made;

    const uint64_t before = steady_ns();
    uint64_t previous = clock.now_ns();
    for (int i = 0; i < 1000; ++i) {
        const uint64_t now = clock.now_ns();
        ASSERT_GE(now, previous);
        previous = now;
    }
    const uint64_t last = clock.now_ns();
    EXPECT_GE(last, before);
    EXPECT_LE(last, steady_ns());
    EXPECT_EQ(log, "[ALERT]: [tavi.datetime] Could not open device /nonexistent/p4_time errno:2\n");
}

TEST_F(DateTimeTest, FailingIoctlFallsBackToSteadyClock) {
    detail::BootClock clock("/dev/null");  // opens, but knows no such request
    const uint64_t before = steady_ns();
    uint64_t now = 0;
    const std::string log = log_of([&] { now = clock.now_ns(); });
    EXPECT_GE(now, before);
    EXPECT_LE(now, steady_ns());
    EXPECT_EQ(log, "[ERROR]: [tavi.datetime] Ioctl error\n");
}

TEST_F(DateTimeTest, ProcessBootClockIsMonotonic) {
    // No time device on a development machine: the process-wide clock must still run.
    uint64_t previous = DateTime::time_since_boot_ns();
    for (int i = 0; i < 1000; ++i) {
        const uint64_t now = DateTime::time_since_boot_ns();
        ASSERT_GE(now, previous);
        previous = now;
    }
    const uint64_t ms = DateTime::time_since_boot_ms();
    EXPECT_LE(ms, DateTime::time_since_boot_ns() / 1000000);
    EXPECT_EQ(DateTime::convert_time_ms(1999999), 1u);
}

TEST_F(DateTimeTest, BootStampsConvertToWallClock) {
    const uint64_t boot_ms = DateTime::time_since_boot_ms();
    const uint64_t before = DateTime::systemtime_ms();
    const uint64_t converted = DateTime::convert_boot_to_system_ms(boot_ms - 5000);
    const uint64_t after = DateTime::systemtime_ms();
    EXPECT_GE(converted + 5000, before - 1);
    EXPECT_LE(converted + 5000, after + 1);
}

TEST_F(DateTimeTest, WaitForValidSystemtimeWithValidClock) {
    bool valid = false;
    const std::string log = log_of([&] { valid = DateTime::wait_for_valid_systemtime(0); });
    EXPECT_TRUE(valid);
    EXPECT_TRUE(std::regex_match(
        log, std::regex(R"(\[NOTICE\]: \[tavi.datetime\] Valid system time detected: \d{13}\n)")))
        << log;
}

TEST_F(DateTimeTest, WaitForValidSystemtimePollsUntilValidOrTimeout) {
    int sleeps = 0;
    auto count_sleep = [&sleeps] { ++sleeps; };
    bool valid = true;
    std::string log = log_of([&] {
        valid = detail::wait_for_valid_systemtime(
            0, [] { return 1000u; }, count_sleep);
    });
    EXPECT_FALSE(valid);
    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(log,
              "[NOTICE]: [tavi.datetime] Waiting for a valid system time (0 seconds) ...\n"
              "[WARNING]: [tavi.datetime] Wait for a valid system time timed out after 0 "
              "seconds! No valid system time available!\n");

    // Exactly at the threshold is still unset.
    log = log_of([&] {
        valid = detail::wait_for_valid_systemtime(
            3, [] { return 1514764800000u; }, count_sleep);
    });
    EXPECT_FALSE(valid);
    EXPECT_EQ(sleeps, 3);
    EXPECT_NE(log.find("timed out after 3 seconds!"), std::string::npos) << log;

    sleeps = 0;
    int reads = 0;
    auto clock = [&reads]() -> uint64_t { return ++reads < 3 ? 0 : 1600000000000u; };
    log = log_of([&] { valid = detail::wait_for_valid_systemtime(10, clock, count_sleep); });
    EXPECT_TRUE(valid);
    EXPECT_EQ(sleeps, 2);
    EXPECT_EQ(log,
              "[NOTICE]: [tavi.datetime] Waiting for a valid system time (10 seconds) ...\n"
              "[NOTICE]: [tavi.datetime] Valid system time detected: 1600000000000\n");
}

TEST_F(DateTimeTest, BootIdIsTheKernels) {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string expected;
    ASSERT_TRUE(std::getline(file, expected));
    Uuid id;
    const std::string log = log_of([&] { id = DateTime::boot_id(); });
    EXPECT_FALSE(id.is_null());
    EXPECT_EQ(id.to_string(), expected);
    EXPECT_EQ(id, DateTime::boot_id());
    EXPECT_EQ(log, "[DEBUG]: [tavi.datetime] Parsing raw boot_id = " + expected +
                       "\n[INFO]: [tavi.datetime] Got boot_id = " + expected + "\n");
}

TEST_F(DateTimeTest, BootIdFailuresGiveNullIdAndTheLogShowsTheTextAsRead) {
    fs::TempDirectory dir;
    const std::string empty = dir.path() + "/empty";
    const std::string garbage = dir.path() + "/garbage";
    const std::string upper = dir.path() + "/upper";
    ASSERT_TRUE(fs::create_file_with_contents(empty, ""));
    ASSERT_TRUE(fs::create_file_with_contents(garbage, "71161033-3534-4c60-a005-b025f64f90e\n"));
    ASSERT_TRUE(fs::create_file_with_contents(upper, "71161033-3534-4C60-A005-B025F64F90EA\n"));

    Uuid missing_id, empty_id, garbage_id, upper_id;
    const std::string text = log_of([&] {
        missing_id = detail::read_boot_id(dir.path() + "/missing");
        empty_id = detail::read_boot_id(empty);
        garbage_id = detail::read_boot_id(garbage);
        upper_id = detail::read_boot_id(upper);
    });
    EXPECT_EQ(upper_id.to_string(), "71161033-3534-4c60-a005-b025f64f90ea");
    EXPECT_NE(text.find("[INFO]: [tavi.datetime] Got boot_id = "
                        "71161033-3534-4C60-A005-B025F64F90EA\n"),
              std::string::npos);
    EXPECT_TRUE(missing_id.is_null());
    EXPECT_TRUE(empty_id.is_null());
    EXPECT_TRUE(garbage_id.is_null());
    EXPECT_NE(text.find("[ERROR]: [tavi.datetime] Could not open boot_id device\n"),
              std::string::npos);
    EXPECT_NE(text.find("[ERROR]: [tavi.datetime] Could not read boot_id from " + empty + "\n"),
              std::string::npos);
    EXPECT_NE(text.find("[ERROR]: [tavi.datetime] Could not parse boot_id from " + garbage + "\n"),
              std::string::npos);
    EXPECT_EQ(Uuid{}.to_string(), "00000000-0000-0000-0000-000000000000");
}

}  // namespace
}  // namespace ecu::tavi
