#include "ecu/tavi/rt/signal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <utility>

#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"

namespace ecu::tavi::rt {
namespace {

using _internal::signal_def;
using ::testing::HasSubstr;

// dt bits, raw bits, factor, min, max, offset, status evaluation
signal_def def(int32_t dt, int32_t raw, double factor = 1.0, uint32_t min = 0,
               uint32_t max = 0xFFFFFFFF, int32_t offset = 0,
               int32_t eval = _internal::CAN_STATUS) {
    return {"sig", dt, raw, factor, min, max, offset, 0, eval};
}

Signal::Status status_of(const signal_def& d, Signal::DATA data) {
    return Signal("sig", &d, std::move(data)).status();
}

class SignalTest : public ::testing::Test {
protected:
    void SetUp() override {
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable("tavi.rt.signaladapter", false);
    }
    void TearDown() override {
        logging::disable("tavi.rt.signaladapter", false);
        logging::set_log_mode(logging::SYSLOG);
        logging::set_log_level(5);
    }
};

constexpr auto OK = Signal::OK, ERR = Signal::ERROR_INDICATOR, NA = Signal::NOT_AVAILABLE,
               OUT = Signal::OUT_OF_RANGE;

// Expects each raw value, written little-endian into one data-type element, to get its status.
void expect_status(const signal_def& d,
                   std::initializer_list<std::pair<Signal::Status, uint64_t>> cases) {
    for (const auto& [status, raw] : cases) {
        Signal::DATA data(static_cast<size_t>(d.dt_bit_size + 7) / 8);
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<uint8_t>(raw >> (8 * i));
        }
        EXPECT_EQ(status_of(d, data), status)
            << d.dt_bit_size << "/" << d.raw_bit_size << " bits, raw 0x" << std::hex << raw;
    }
}

TEST_F(SignalTest, BusStatusRulesAtTheirBoundaries) {
    // 2 bits: the lowest two bits carry the codes, and no range applies.
    expect_status(def(8, 2, 1.0, 5, 5),
                  {{OK, 0x01}, {ERR, 0x02}, {NA, 0x03}, {OK, 0xFD}, {ERR, 0xFE}});
    // 3 to 8 bits: the byte's codes first, then the range.
    expect_status(def(8, 8, 1.0, 0, 250), {{OK, 0xFA}, {OUT, 0xFB}, {ERR, 0xFE}, {NA, 0xFF}});
    expect_status(def(8, 3, 1.0, 2, 6), {{OUT, 0x01}, {OK, 0x02}, {OUT, 0x07}, {ERR, 0xFE}});
    // 9 to 16 bits: the codes are in the high byte only.
    expect_status(
        def(16, 16, 1.0, 0x0100, 0xFAFF),
        {{OK, 0xFAFF}, {OUT, 0xFB00}, {OUT, 0x00FF}, {ERR, 0xFE00}, {NA, 0xFFFF}, {OK, 0x01FE}});
    expect_status(def(16, 9, 1.0, 0, 0x1FF), {{ERR, 0xFE00}});
    // 17 to 24 bits: the codes are in byte 2; 25 to 32 bits: in byte 3; above: none.
    expect_status(
        def(32, 20, 1.0, 0, 999999),
        {{OK, 999999}, {OUT, 1000000}, {ERR, 0xFE0000}, {NA, 0xFF0000}, {OUT, 0xFE000000}});
    expect_status(def(32, 24), {{NA, 0xFF0000}});
    expect_status(def(32, 25), {{OK, 0xFE0000}});
    const signal_def twenty_eight = def(32, 28, 1.0, 0, 0x0FAFFFFF);
    expect_status(twenty_eight, {{ERR, 0xFE000000}, {NA, 0xFF000000}, {OUT, 0x0FFE0000}});
    expect_status(twenty_eight, {{OK, 0x0FAFFFFF}, {OUT, 0x0FB00000}});
    expect_status(def(64, 40, 1.0, 0, 0), {{OK, ~0ull}});
}

TEST_F(SignalTest, OtherStatusEvaluationKinds) {
    // Raw range: exactly the raw bits set is not available; above 32 bits is out of range.
    expect_status(def(24, 24, 0.1, 0, 9999999, 0, _internal::RAW_RANGE),
                  {{OK, 9999999}, {OUT, 10000000}, {NA, 0xFFFFFF}});
    expect_status(def(16, 12, 1.0, 0, 0xFFFF, 0, _internal::RAW_RANGE),
                  {{NA, 0x0FFF}, {OK, 0xFFFF}});
    expect_status(def(64, 64, 1.0, 0, 0xFFFFFFFF, 0, _internal::RAW_RANGE),
                  {{NA, ~0ull}, {OUT, 1ull << 32}});
    // Every byte 0xFF (or none at all) is not available; unknown kinds are always OK.
    const signal_def all_ff = def(8, 136, 1.0, 0, 0, 0, _internal::ALL_BYTES_FF);
    Signal::DATA vin(17, 0xFF);
    EXPECT_EQ(status_of(all_ff, vin), NA);
    EXPECT_EQ(status_of(all_ff, {}), NA);
    vin[16] = 0xFE;
    EXPECT_EQ(status_of(all_ff, vin), OK);
    expect_status(def(8, 8, 1.0, 0, 0, 0, 7), {{OK, 0xFF}});
}

TEST_F(SignalTest, EnumsAndMultiElementSignalsAreOkWithTheirNotes) {
    test::StdoutCapture out;
    const signal_def as_enum = def(8, 8, 1.0, 0, 0, 0, _internal::AS_ENUM);
    Signal e("mode", &as_enum, {0xFF});
    EXPECT_TRUE(e.is_enum());
    EXPECT_EQ(e.status(), Signal::OK);
    EXPECT_EQ(e.value_scaled().value, 255.0);
    const signal_def with_status = def(8, 8, 1.0, 0, 0, 0, _internal::WITH_STATUS);
    EXPECT_EQ(status_of(with_status, {0xFE}), Signal::OK);
    const signal_def array = def(8, 32, 4.0, 0, 250);
    Signal tyres("tire_pressure", &array, {0xFF, 0xFE, 0xFB, 0x00});
    EXPECT_EQ(tyres.status(), Signal::OK);
    EXPECT_EQ(tyres.value_scaled().error, "No can signal");
    EXPECT_FALSE(tyres.set_scaled_value(1.0));

    const std::string text = out.finish();
    EXPECT_THAT(text, HasSubstr("[DEBUG]: [tavi.rt.signaladapter] [SignalAdapter:signaladapter:"));
    EXPECT_THAT(text, HasSubstr("] Signal status evaluation is set to 'as enum', status will not "
                                "be further evalualted\n"));
    EXPECT_THAT(text, HasSubstr("[WARNING]: [tavi.rt.signaladapter] [SignalAdapter:"));
    EXPECT_THAT(text, HasSubstr("] 'with status' status evaluation is not implemented, assume "
                                "ok.\n"));
    EXPECT_THAT(text, HasSubstr("[NOTICE]: [tavi.rt.signaladapter] [SignalAdapter:"));
    EXPECT_THAT(text, HasSubstr("] Datatype/payload size is != 1 byte (4), can status rules "
                                "don't apply for signal 'tire_pressure'.\n"));
}

TEST_F(SignalTest, PayloadBytesRoundRawBitsUpToWholeElements) {
    struct Case {
        int32_t dt, raw, bytes;
    };
    for (const Case& c : {Case{8, 2, 1}, Case{8, 12, 2}, Case{32, 20, 4}, Case{24, 24, 3},
                          Case{8, 136, 17}, Case{16, 64, 8}, Case{3, 5, 1}, Case{20, 20, 3}}) {
        const signal_def d = def(c.dt, c.raw);
        EXPECT_EQ(Signal("s", &d, {}).data_payload_size_bytes(), c.bytes) << c.dt << "/" << c.raw;
    }
    // The largest bit widths do not overflow.
    const signal_def widest = def(INT32_MAX, INT32_MAX);
    EXPECT_EQ(Signal("s", &widest, {}).data_type_size_bytes(), 268435456);
    EXPECT_EQ(Signal("s", &widest, {}).data_payload_size_bytes(), 268435456);
    const signal_def longest = def(8, INT32_MAX);
    EXPECT_EQ(Signal("s", &longest, {}).data_payload_size_bytes(), 268435456);
}

TEST_F(SignalTest, ScalingAddsTheOffsetBeforeTheFactorAndSaturates) {
    const signal_def d = def(8, 8, 0.5, 0, 250, -40);
    Signal s("temp", &d, {0});
    EXPECT_TRUE(s.set_scaled_value(10.0));
    EXPECT_EQ(s.data(), Signal::DATA{60});
    EXPECT_DOUBLE_EQ(s.value_scaled().value, 10.0);
    EXPECT_TRUE(s.set_scaled_value(-30.0));
    EXPECT_EQ(s.data(), Signal::DATA{0});
    // Above the byte the raw value saturates at 0xFFFFFFFF, whose low byte means
    // "not available"; no range check is made on writing.
    EXPECT_TRUE(s.set_scaled_value(1e12));
    EXPECT_EQ(s.data(), Signal::DATA{0xFF});
    EXPECT_EQ(s.value_scaled().error, "Value not within range.");
    EXPECT_EQ(s.value_scaled().value, 0.0);

    // Truncation toward zero, little-endian bytes.
    const signal_def speed = def(16, 16, 0.125, 0, 0xFAFF);
    Signal rpm("engine_speed", &speed, {0, 0});
    EXPECT_TRUE(rpm.set_scaled_value(1500.1));
    EXPECT_EQ(rpm.data(), (Signal::DATA{0xE0, 0x2E}));  // 12000
    const Signal::ScaleResult r = rpm.value_scaled();
    EXPECT_TRUE(r.ok);
    EXPECT_DOUBLE_EQ(r.value, 1500.0);

    const signal_def big = def(32, 32, 1.0, 0, 0xFFFFFFFF, -8736);
    Signal oil("oil", &big, Signal::DATA(4, 0));
    EXPECT_TRUE(oil.set_scaled_value(5e9));
    EXPECT_EQ(oil.data(), Signal::DATA(4, 0xFF));
    EXPECT_TRUE(oil.set_scaled_value(-273.0));
    EXPECT_EQ(oil.data(), (Signal::DATA{0x0F, 0x21, 0, 0}));  // 8463
    EXPECT_DOUBLE_EQ(oil.value_scaled().value, -273.0);

    // A three-byte payload has no scaled value.
    const signal_def trip = def(24, 24, 0.1, 0, 9999999, 0, _internal::RAW_RANGE);
    const Signal::ScaleResult none = Signal("trip", &trip, {0, 0, 0}).value_scaled();
    EXPECT_FALSE(none.ok);
    EXPECT_EQ(none.error, "No can signal");
}

TEST_F(SignalTest, SetDataWritesTheLowBytesOnlyAndEqualityIgnoresTheDefinition) {
    const signal_def d = def(32, 32);
    Signal s("s", &d, {1, 2, 3, 4});
    EXPECT_TRUE(s.set_data({9, 8}));
    EXPECT_EQ(s.data(), (Signal::DATA{9, 8, 3, 4}));
    test::StdoutCapture out;
    EXPECT_FALSE(s.set_data({1, 1, 1, 1, 1}));
    EXPECT_EQ(s.data(), (Signal::DATA{9, 8, 3, 4}));
    EXPECT_THAT(out.finish(),
                HasSubstr("] Size of data to be set (5) is greater than allowed size (4).\n"));

    const signal_def other = def(16, 16, 2.0);
    EXPECT_EQ(s, Signal("s", &other, {9, 8, 3, 4}));
    EXPECT_NE(s, Signal("s", &d, {9, 8, 3, 5}));
    EXPECT_NE(s, Signal("t", &d, {9, 8, 3, 4}));
}

using SignalDeathTest = SignalTest;

TEST_F(SignalDeathTest, ProgrammingErrorsEndTheProcessWithTheirCheck) {
    EXPECT_DEATH(Signal().status(), "Assertion `m_sig_def != nullptr' failed");
    const signal_def zero_factor = def(8, 8, 0.0);
    EXPECT_DEATH(Signal("s", &zero_factor, {0}).set_scaled_value(1.0),
                 "Assertion `m_sig_def->factor != 0' failed");
    const signal_def no_raw = def(8, 0), no_dt = def(0, 8);
    EXPECT_DEATH(Signal("s", &no_raw, {0}).data_payload_size_bytes(),
                 "Assertion `raw_bit_size > 0' failed");
    EXPECT_DEATH(Signal("s", &no_dt, {0}).data_payload_size_bytes(),
                 "Assertion `dt_bit_size > 0' failed");
    // Data of the wrong length for the rule that applies.
    const signal_def two_bit = def(8, 2), byte = def(8, 8), word = def(16, 16);
    EXPECT_DEATH(status_of(two_bit, {0, 0}), "Assertion `m_data.size\\(\\) == 1' failed");
    EXPECT_DEATH(status_of(byte, {}), "Assertion `m_data.size\\(\\) >= 1' failed");
    EXPECT_DEATH(status_of(word, {0}), "Assertion `m_data.size\\(\\) >= 2' failed");
    // A 16-bit raw value in a 32-bit data type does not fit the 16-bit rule.
    const signal_def wide_word = def(32, 16);
    EXPECT_DEATH(status_of(wide_word, {0, 0, 0, 0}),
                 "Assertion `data.size\\(\\) <= sizeof\\(Out\\)' failed");
    // A 24-bit signal of three bytes fits no bus rule.
    const signal_def three = def(24, 24);
    EXPECT_DEATH(status_of(three, {0, 0, 0}), "Assertion `m_data.size\\(\\) == 4' failed");
}

}  // namespace
}  // namespace ecu::tavi::rt
