#include "ecu/tavi/com/messageadapter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/pb/kovheader.pb.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "support/capture.h"

namespace ecu::tavi::com {
namespace {

using err::PbInternalDeserializationError;
using err::SerializationError;
using Bytes = std::vector<std::uint8_t>;

constexpr char kErrorPrefix[] = "[ERROR]: [tavi.com.messageadapter] ";

void put_fixed64(Bytes& out, std::uint8_t tag, std::uint64_t value) {
    out.push_back(tag);
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint64_t length_word(std::uint64_t body_length, std::uint64_t header_length,
                          std::uint64_t protocol) {
    return body_length << 32 | header_length << 16 | protocol;
}

// A framed payload written byte by byte, without the adapter or the generated classes.
Bytes framed(std::uint64_t word, std::uint64_t timestamp, const std::string& body) {
    Bytes out;
    put_fixed64(out, 0x09, word);
    put_fixed64(out, 0x11, timestamp);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes framed(const std::string& body, std::uint64_t protocol = 7) {
    return framed(length_word(body.size(), 18, protocol), 99, body);
}

pb::EcuVariable variable(const std::string& value, std::uint64_t timestamp) {
    pb::EcuVariable v;
    v.set_value(value);
    v.set_timestamp(timestamp);
    return v;
}

class MessageAdapterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        DateTime::time_since_boot_ns();  // opens the time device once, outside any capture
    }
    void SetUp() override {
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
    }
    void TearDown() override {
        logging::set_log_mode(logging::SYSLOG);
        logging::set_log_level(5);
    }

    // Deserializes data as a T and returns what was logged.
    template <typename T = pb::EcuVariable>
    std::string reject(const Bytes& data, PbInternalDeserializationError expected) {
        PbInternalMessageAdapter<T> adapter(PROTOCOL_ECU_VARIABLE);
        test::StdoutCapture out;
        auto result = adapter.deserialize(Message(data));
        std::string text = out.finish();
        EXPECT_FALSE(result.has_value());
        if (!result.has_value()) {
            EXPECT_EQ(result.error(), expected);
        }
        return text;
    }
};

TEST_F(MessageAdapterTest, FramesBodyBehindHeaderAndRoundTripsEmptyOrWithTrailingBytes) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    const auto body = variable(std::string(300, 'v'), 1234);  // a body length above one byte
    const auto before = static_cast<std::int64_t>(DateTime::time_since_boot_ns());
    auto message = adapter.serialize(body);
    ASSERT_TRUE(message.has_value());
    const std::int64_t stamp = message.value().get_timestamp();
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, static_cast<std::int64_t>(DateTime::time_since_boot_ns()));
    const std::string body_bytes = body.SerializeAsString();
    EXPECT_EQ(message.value().get_data(),
              framed(length_word(body_bytes.size(), 18, PROTOCOL_ECU_VARIABLE),
                     static_cast<std::uint64_t>(stamp), body_bytes));

    auto back = adapter.deserialize(message.value());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back.value().SerializeAsString(), body_bytes);

    // An empty body, and bytes after the body, are fine.
    EXPECT_EQ(adapter.serialize(pb::EcuVariable()).value().get_data().size(), 18u);
    auto empty = adapter.deserialize(Message(framed("")));
    ASSERT_TRUE(empty.has_value());
    EXPECT_FALSE(empty.value().has_value());
    auto trailing = adapter.deserialize(
        Message(framed(length_word(body_bytes.size(), 18, 1), 1, body_bytes + "garbage\xFF")));
    ASSERT_TRUE(trailing.has_value());
    EXPECT_EQ(trailing.value().value(), body.value());
}

// The adapter reads and writes the header bytes itself; they must stay what the generated
// class makes and accepts.
TEST_F(MessageAdapterTest, HeaderAgreesWithTheGeneratedClass) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    const std::string body = variable("x", 1).SerializeAsString();
    for (std::uint64_t stamp : {std::uint64_t{0}, std::numeric_limits<std::uint64_t>::max()}) {
        pb::KOVHeader header;
        header.set_length(length_word(body.size(), 18, 0xFFFF));
        header.set_timestamp(stamp);
        const std::string bytes = header.SerializeAsString();
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), framed(header.length(), stamp, ""));

        Message message(framed(header.length(), stamp, body));
        EXPECT_EQ(static_cast<std::uint64_t>(message.get_timestamp()), stamp);
        EXPECT_TRUE(adapter.deserialize(message).has_value()) << stamp;
    }

    // Field order is free on the wire: timestamp first is still a header.
    Bytes reversed;
    put_fixed64(reversed, 0x11, 4242);
    put_fixed64(reversed, 0x09, length_word(body.size(), 18, 3));
    reversed.insert(reversed.end(), body.begin(), body.end());
    EXPECT_EQ(Message(reversed).get_timestamp(), 4242);
    EXPECT_TRUE(adapter.deserialize(Message(reversed)).has_value());

    // Both decoders agree on what is a header (the first payload is one, rejected later
    // for its protocol type 0).
    for (const Bytes& bad : {framed(0, 0, ""), Bytes(18, 0x09), Bytes(18, 0x11)}) {
        const bool generated = pb::KOVHeader().ParseFromArray(bad.data(), 18);
        test::StdoutCapture out;
        const bool ours = adapter.deserialize(Message(bad)).error() !=
                          PbInternalDeserializationError::HEADER_INVALID;
        out.finish();
        EXPECT_EQ(ours, generated);
    }
}

// Each check in the order they run, with its error value and exact log line.
TEST_F(MessageAdapterTest, MalformedFramesAreRejectedInOrderWithTheirText) {
    using E = PbInternalDeserializationError;
    const std::string body = variable("abc", 5).SerializeAsString();
    const auto frame = [&](std::uint64_t body_length, std::uint64_t header_length,
                           std::uint64_t protocol) {
        return framed(length_word(body_length, header_length, protocol), 1, body);
    };
    Bytes seventeen = framed("");
    seventeen.pop_back();
    Bytes varint_tag = framed("");
    varint_tag[9] = 0x10;  // both fields present but one not fixed64
    const std::string error = kErrorPrefix;
    const std::string no_header = error + "Unable to decode the header.\n";
    const std::string not_used = error + "ProtocolType is set to not used!\n";
    const std::string header_length = error + "Specified hdr-len does not comply.\n";
    const std::string no_body =
        "[EMERG]: [tavi.com.messageadapter] Unable to deserialize protobuf\n";
    const struct {
        Bytes data;
        E error;
        std::string log;
    } cases[] = {
        {{}, E::TOO_SHORT, ""},  // an empty payload is not worth a line
        {seventeen, E::TOO_SHORT, error + "Total length is smaller then expected header length\n"},
        {Bytes(18, 0xFF), E::HEADER_INVALID, no_header},
        {varint_tag, E::HEADER_INVALID, no_header},
        {frame(body.size(), 18, 0), E::PROTOCOL_NOT_USED, not_used},
        {frame(body.size(), 17, 0), E::PROTOCOL_NOT_USED, not_used},  // before the length
        {frame(body.size(), 17, 3), E::HEADER_LENGTH, header_length},
        {frame(body.size(), 19, 3), E::HEADER_LENGTH, header_length},
        {frame(body.size() + 1, 18, 1), E::BODY_INVALID, no_body},       // past the end
        {frame(0xFFFFFFFFu, 18, 1), E::BODY_INVALID, no_body},           // a 32-bit sum with the
        {frame(0xFFFFFFEEu, 18, 1), E::BODY_INVALID, no_body},           // header length wraps
        {frame(body.size() - 1, 18, 1), E::BODY_INVALID, no_body},       // cuts a field in half
        {framed(std::string("\x00\x01", 2)), E::BODY_INVALID, no_body},  // field number 0
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE("case " + std::to_string(i));
        EXPECT_EQ(reject(cases[i].data, cases[i].error), cases[i].log);
    }
}

TEST_F(MessageAdapterTest, ReceivedProtocolTypeReplacesTheAdaptersOwn) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    ASSERT_TRUE(adapter.deserialize(Message(framed("", 0x4321))).has_value());
    const Bytes reply = adapter.serialize(variable("v", 1)).value().get_data();
    EXPECT_EQ(reply[1], 0x21);
    EXPECT_EQ(reply[2], 0x43);

    // A rejected header leaves it alone.
    test::StdoutCapture out;
    EXPECT_FALSE(adapter.deserialize(Message(framed("", 0))).has_value());
    out.finish();
    EXPECT_EQ(adapter.protocol_type(), 0x4321u);

    // Only 16 bits travel.
    const Bytes wide = PbInternalMessageAdapter<pb::EcuVariable>(0x12345)
                           .serialize(pb::EcuVariable())
                           .value()
                           .get_data();
    EXPECT_EQ(wide[2], 0x23);
    EXPECT_EQ(wide[3], 18);
}

TEST_F(MessageAdapterTest, StringBodyMustFillThePayloadExactly) {
    PbInternalMessageAdapter<std::string> adapter(PROTOCOL_RAW);
    const std::string raw("\x00\x01\xFFraw", 6);
    auto message = adapter.serialize(raw);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message.value().get_data(),
              framed(length_word(6, 18, PROTOCOL_RAW), message.value().get_timestamp(), raw));
    EXPECT_EQ(adapter.deserialize(message.value()).value(), raw);
    EXPECT_EQ(adapter.deserialize(Message(framed(""))).value(), "");

    for (const std::string& payload : {raw + "x", raw.substr(1)}) {
        EXPECT_EQ(reject<std::string>(framed(length_word(6, 18, 1), 1, payload),
                                      PbInternalDeserializationError::BODY_INVALID),
                  std::string(kErrorPrefix) + "message length doesn't match the header\n");
    }
}

TEST_F(MessageAdapterTest, RawAdaptersCopyBytesAndRefuseProtocolZero) {
    PbVcpMessageAdapter<std::string> vcp(PROTOCOL_RAW);
    auto message = vcp.serialize("payload");
    EXPECT_EQ(message.value().get_data(), Bytes({'p', 'a', 'y', 'l', 'o', 'a', 'd'}));
    EXPECT_EQ(vcp.deserialize(message.value()).value(), "payload");
    EXPECT_EQ(PbBackendMessageAdapter<std::string>(PROTOCOL_RAW).serialize("be").value().get_data(),
              Bytes({'b', 'e'}));

    test::StdoutCapture out;
    auto vcp_error = PbVcpMessageAdapter<std::string>(PROTOCOL_NOT_USED).serialize("x");
    auto be_error = PbBackendMessageAdapter<std::string>(PROTOCOL_NOT_USED).serialize("x");
    EXPECT_EQ(out.finish(),
              "[ERROR]: [tavi.com.vcpmessageadapter] Protocol is not specified, unable to "
              "serialize!\n"
              "[ERROR]: [tavi.com.bemessageadapter] Protocol is not specified, unable to "
              "serialize!\n");
    ASSERT_FALSE(vcp_error.has_value());
    EXPECT_EQ(vcp_error.error(), SerializationError::PROTOCOL_NOT_SPECIFIED);
    EXPECT_FALSE(be_error.has_value());
}

TEST_F(MessageAdapterTest, SignalAdaptersGiveTheSignalsOwnTime) {
    pb::RtSignal signal;
    signal.set_data(std::string("\x01\x02\xFF\xFF", 4));
    signal.set_timestamp(777);

    PbInternalMessageAdapter<pb::RtSignal> framed_adapter(PROTOCOL_RT_SIGNAL);
    auto framed_back = framed_adapter.deserialize(framed_adapter.serialize(signal).value());
    ASSERT_TRUE(framed_back.has_value());
    EXPECT_EQ(framed_adapter.get_timestamp(framed_back.value()), 777u);

    PbVcpMessageAdapter<pb::RtSignal> vcp(PROTOCOL_RT_SIGNAL);
    const Message raw = vcp.serialize(signal).value();
    EXPECT_EQ(raw.get_data().size(), signal.ByteSizeLong());  // no header
    auto vcp_back = vcp.deserialize(raw);
    ASSERT_TRUE(vcp_back.has_value());
    EXPECT_EQ(vcp.get_timestamp(vcp_back.value()), 777u);

    test::StdoutCapture out;
    EXPECT_FALSE(vcp.deserialize(Message(Bytes{0x00})).has_value());
    EXPECT_EQ(out.finish(),
              "[EMERG]: [tavi.com.vcpmessageadapter] Unable to deserialize protobuf\n");
}

TEST_F(MessageAdapterTest, TimestampIsReadFromTheHeaderOnFirstUse) {
    Message message(framed(length_word(0, 18, 1), 123456789, ""));
    EXPECT_EQ(message.get_timestamp(), 123456789);
    // Kept once known, even if the payload changes.
    message.get_data()[10] = 0;
    EXPECT_EQ(message.get_timestamp(), 123456789);

    EXPECT_EQ(Message(Bytes(17, 0x09)).get_timestamp(), 0);
    EXPECT_EQ(Message(Bytes(18, 0xFF)).get_timestamp(), 0);
    Message known(framed(""));
    known.set_timestamp(5);
    EXPECT_EQ(known.get_timestamp(), 5);
}

// The header and body written by the adapter, read by protoc's own decoder.
TEST_F(MessageAdapterTest, IndependentDecoderReadsFramedBytes) {
    pb::SubscriptionMessage announcement;
    announcement.add_topics("rt/vekcan/rx/speed");
    announcement.set_client_name("app1");
    auto message = PbInternalMessageAdapter<pb::SubscriptionMessage>(PROTOCOL_SUBSCRIPTION)
                       .serialize(announcement);
    ASSERT_TRUE(message.has_value());
    const Bytes& data = message.value().get_data();

    const auto decode_raw = [](Bytes::const_iterator begin, Bytes::const_iterator end) {
        const std::string path = ::testing::TempDir() + "messageadapter_test.bin";
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(&*begin), end - begin);
        const auto run =
            test::run_command(std::string(MURNTAVI_PROTOC) + " --decode_raw < " + path);
        EXPECT_EQ(run.exit_code, 0) << run.output;
        return run.output;
    };
    char expected_header[80];
    std::snprintf(expected_header, sizeof expected_header, "1: 0x%016llx\n2: 0x%016llx\n",
                  static_cast<unsigned long long>(data.size() - 18) << 32 | 18u << 16 | 1u,
                  static_cast<unsigned long long>(message.value().get_timestamp()));
    EXPECT_EQ(decode_raw(data.begin(), data.begin() + 18), expected_header);
    EXPECT_EQ(decode_raw(data.begin() + 18, data.end()),
              "1: \"rt/vekcan/rx/speed\"\n2: \"app1\"\n");
}

TEST(ResultTest, HoldsValueOrErrorThroughCopiesAndMoves) {
    using R = Result<std::string, std::string>;
    R value = R::ok(std::string(100, 'v'));
    R copy = value;
    EXPECT_EQ(copy.value(), std::string(100, 'v'));
    copy = R::err("bad");
    ASSERT_FALSE(copy.has_value());
    EXPECT_EQ(copy.error(), "bad");
    copy = std::move(value);
    EXPECT_EQ(copy.value(), std::string(100, 'v'));
    EXPECT_TRUE((Result<void, int>::ok().has_value()));
    EXPECT_EQ((Result<void, int>::err(3).error()), 3);
}

TEST(ResultDeathTest, WrongSideAccessAborts) {
    using R = Result<int, int>;
    EXPECT_DEATH(R::err(1).value(), "value\\(\\) of an error Result");
    EXPECT_DEATH(R::ok(1).error(), "error\\(\\) of a successful Result");
}

}  // namespace
}  // namespace ecu::tavi::com
