#include "ecu/tavi/rt/signal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST_F(SignalTest, TwoBitCodesIgnoreTheRangeAndTheUpperBits) {
    const signal_def d = def(8, 2, 1.0, 5, 5);
    EXPECT_EQ(status_of(d, {0x00}), Signal::OK);
    EXPECT_EQ(status_of(d, {0x01}), Signal::OK);
    EXPECT_EQ(status_of(d, {0x02}), Signal::ERROR_INDICATOR);
    EXPECT_EQ(status_of(d, {0x03}), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(d, {0xFD}), Signal::OK);
    EXPECT_EQ(status_of(d, {0xFE}), Signal::ERROR_INDICATOR);
}

TEST_F(SignalTest, ByteCodesThenRangeFromThreeToEightBits) {
    const signal_def d = def(8, 8, 1.0, 0, 250);
    EXPECT_EQ(status_of(d, {0xFA}), Signal::OK);
    EXPECT_EQ(status_of(d, {0xFB}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(d, {0xFE}), Signal::ERROR_INDICATOR);
    EXPECT_EQ(status_of(d, {0xFF}), Signal::NOT_AVAILABLE);
    const signal_def three = def(8, 3, 1.0, 2, 6);
    EXPECT_EQ(status_of(three, {0x01}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(three, {0x02}), Signal::OK);
    EXPECT_EQ(status_of(three, {0x07}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(three, {0xFE}), Signal::ERROR_INDICATOR);
}

TEST_F(SignalTest, SixteenBitCodesAreInTheHighByte) {
    const signal_def d = def(16, 16, 1.0, 0x0100, 0xFAFF);
    EXPECT_EQ(status_of(d, {0xFF, 0xFA}), Signal::OK);
    EXPECT_EQ(status_of(d, {0x00, 0xFB}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(d, {0xFF, 0x00}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(d, {0x00, 0xFE}), Signal::ERROR_INDICATOR);
    EXPECT_EQ(status_of(d, {0xFF, 0xFF}), Signal::NOT_AVAILABLE);
    // The low byte carries no code.
    EXPECT_EQ(status_of(d, {0xFE, 0x01}), Signal::OK);
    const signal_def nine = def(16, 9, 1.0, 0, 0x1FF);
    EXPECT_EQ(status_of(nine, {0x00, 0xFE}), Signal::ERROR_INDICATOR);
}

TEST_F(SignalTest, WideSignalsTakeTheCodeFromByteTwoUpTo24BitsAndFromByteThreeAbove) {
    const signal_def twenty = def(32, 20, 1.0, 0, 999999);
    EXPECT_EQ(status_of(twenty, {0x3F, 0x42, 0x0F, 0x00}), Signal::OK);
    EXPECT_EQ(status_of(twenty, {0x40, 0x42, 0x0F, 0x00}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(twenty, {0x00, 0x00, 0xFE, 0x00}), Signal::ERROR_INDICATOR);
    EXPECT_EQ(status_of(twenty, {0x00, 0x00, 0xFF, 0x00}), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(twenty, {0x00, 0x00, 0x00, 0xFE}), Signal::OUT_OF_RANGE);
    const signal_def twenty_four = def(32, 24);
    EXPECT_EQ(status_of(twenty_four, {0x00, 0x00, 0xFF, 0x00}), Signal::NOT_AVAILABLE);

    const signal_def twenty_eight = def(32, 28, 1.0, 0, 0x0FAFFFFF);
    EXPECT_EQ(status_of(twenty_eight, {0x00, 0x00, 0x00, 0xFE}), Signal::ERROR_INDICATOR);
    EXPECT_EQ(status_of(twenty_eight, {0x00, 0x00, 0x00, 0xFF}), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(twenty_eight, {0x00, 0x00, 0xFE, 0x0F}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(twenty_eight, {0xFF, 0xFF, 0xFF, 0x0F}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(twenty_eight, {0xFF, 0xFF, 0xAF, 0x0F}), Signal::OK);
    const signal_def twenty_five = def(32, 25);
    EXPECT_EQ(status_of(twenty_five, {0x00, 0x00, 0xFE, 0x00}), Signal::OK);

    // Beyond 32 bits the bus knows no codes.
    EXPECT_EQ(status_of(def(64, 40, 1.0, 0, 0), Signal::DATA(8, 0xFF)), Signal::OK);
}

TEST_F(SignalTest, ThreeBytePayloadIsJudgedByRawRangeAndHasNoScaledValue) {
    const signal_def d = def(24, 24, 0.1, 0, 9999999, 0, _internal::RAW_RANGE);
    Signal s("trip", &d, {0x7F, 0x96, 0x98});  // 9999999
    EXPECT_EQ(s.status(), Signal::OK);
    EXPECT_EQ(s.value_scaled().error, "No can signal");
    EXPECT_FALSE(s.value_scaled().ok);
    EXPECT_EQ(status_of(d, {0x80, 0x96, 0x98}), Signal::OUT_OF_RANGE);
    EXPECT_EQ(status_of(d, {0xFF, 0xFF, 0xFF}), Signal::NOT_AVAILABLE);

    // The not-available mask has exactly the raw bits; values above 32 bits are out of range.
    const signal_def twelve = def(16, 12, 1.0, 0, 0xFFFF, 0, _internal::RAW_RANGE);
    EXPECT_EQ(status_of(twelve, {0xFF, 0x0F}), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(twelve, {0xFF, 0xFF}), Signal::OK);
    const signal_def wide = def(64, 64, 1.0, 0, 0xFFFFFFFF, 0, _internal::RAW_RANGE);
    EXPECT_EQ(status_of(wide, Signal::DATA(8, 0xFF)), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(wide, {0, 0, 0, 0, 1, 0, 0, 0}), Signal::OUT_OF_RANGE);
}

TEST_F(SignalTest, OtherEvaluationKindsAndTheirNotes) {
    test::StdoutCapture out;
    const signal_def as_enum = def(8, 8, 1.0, 0, 0, 0, _internal::AS_ENUM);
    Signal e("mode", &as_enum, {0xFF});
    EXPECT_TRUE(e.is_enum());
    EXPECT_EQ(e.status(), Signal::OK);
    EXPECT_EQ(e.value_scaled().value, 255.0);
    const signal_def with_status = def(8, 8, 1.0, 0, 0, 0, _internal::WITH_STATUS);
    EXPECT_EQ(status_of(with_status, {0xFE}), Signal::OK);
    const signal_def all_ff = def(8, 136, 1.0, 0, 0, 0, _internal::ALL_BYTES_FF);
    EXPECT_EQ(status_of(all_ff, Signal::DATA(17, 0xFF)), Signal::NOT_AVAILABLE);
    Signal::DATA vin(17, 0xFF);
    vin[16] = 0xFE;
    EXPECT_EQ(status_of(all_ff, vin), Signal::OK);
    EXPECT_EQ(status_of(all_ff, {}), Signal::NOT_AVAILABLE);
    EXPECT_EQ(status_of(def(8, 8, 1.0, 0, 0, 0, 7), {0xFF}), Signal::OK);
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
    const signal_def d = def(20, 20);
    EXPECT_EQ(Signal("s", &d, {}).data_type_size_bytes(), 3);
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
    const Signal::ScaleResult r = s.value_scaled();
    EXPECT_TRUE(r.ok);
    EXPECT_DOUBLE_EQ(r.value, 10.0);
    EXPECT_EQ(r.error, "");
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
    EXPECT_DOUBLE_EQ(rpm.value_scaled().value, 1500.0);

    const signal_def big = def(32, 32, 1.0, 0, 0xFFFFFFFF, -8736);
    Signal oil("oil", &big, Signal::DATA(4, 0));
    EXPECT_TRUE(oil.set_scaled_value(5e9));
    EXPECT_EQ(oil.data(), Signal::DATA(4, 0xFF));
    EXPECT_TRUE(oil.set_scaled_value(-273.0));
    EXPECT_EQ(oil.data(), (Signal::DATA{0x0F, 0x21, 0, 0}));  // 8463
    EXPECT_DOUBLE_EQ(oil.value_scaled().value, -273.0);
}

TEST_F(SignalTest, SetDataWritesTheLowBytesAndNeverChangesTheLength) {
    const signal_def d = def(32, 32);
    Signal s("s", &d, {1, 2, 3, 4});
    EXPECT_TRUE(s.set_data({9, 8}));
    EXPECT_EQ(s.data(), (Signal::DATA{9, 8, 3, 4}));

    test::StdoutCapture out;
    EXPECT_FALSE(s.set_data({1, 1, 1, 1, 1}));
    EXPECT_EQ(s.data(), (Signal::DATA{9, 8, 3, 4}));
    EXPECT_THAT(out.finish(),
                HasSubstr("] Size of data to be set (5) is greater than allowed size (4).\n"));
}

TEST_F(SignalTest, EqualityComparesNameAndBytesOnly) {
    const signal_def a = def(8, 8);
    const signal_def b = def(16, 16, 2.0);
    EXPECT_EQ(Signal("x", &a, {1}), Signal("x", &b, {1}));
    EXPECT_NE(Signal("x", &a, {1}), Signal("x", &a, {2}));
    EXPECT_NE(Signal("x", &a, {1}), Signal("y", &a, {1}));
}

using SignalDeathTest = SignalTest;

TEST_F(SignalDeathTest, ProgrammingErrorsEndTheProcessWithTheirCheck) {
    EXPECT_DEATH(Signal().factor(), "Assertion `m_sig_def != nullptr' failed");
    EXPECT_DEATH(Signal().status(), "Assertion `m_sig_def != nullptr' failed");
    const signal_def zero_factor = def(8, 8, 0.0);
    EXPECT_DEATH(Signal("s", &zero_factor, {0}).set_scaled_value(1.0),
                 "Assertion `m_sig_def->factor != 0' failed");
    const signal_def no_raw = def(8, 0);
    EXPECT_DEATH(Signal("s", &no_raw, {0}).data_payload_size_bytes(),
                 "Assertion `raw_bit_size > 0' failed");
    const signal_def no_dt = def(0, 8);
    EXPECT_DEATH(Signal("s", &no_dt, {0}).data_payload_size_bytes(),
                 "Assertion `dt_bit_size > 0' failed");
    const signal_def two_bit = def(8, 2);
    EXPECT_DEATH(status_of(two_bit, {0, 0}), "Assertion `m_data.size\\(\\) == 1' failed");
    const signal_def byte = def(8, 8);
    EXPECT_DEATH(status_of(byte, {}), "Assertion `m_data.size\\(\\) >= 1' failed");
    const signal_def word = def(16, 16);
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
