#include "ecu/tavi/com/messageadapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/pb/kovheader.pb.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "ecu/tavi/pb/sysparams.pb.h"
#include "ecu/tavi/pb/uds.pb.h"
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

    // Deserializes data as an EcuVariable and returns what was logged.
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

TEST_F(MessageAdapterTest, FramesBodyBehindHeaderAndRoundTrips) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    const auto body = variable("vcm", 1234);
    const auto before = static_cast<std::int64_t>(DateTime::time_since_boot_ns());
    auto message = adapter.serialize(body);
    const auto after = static_cast<std::int64_t>(DateTime::time_since_boot_ns());
    ASSERT_TRUE(message.has_value());

    const Bytes& data = message.value().get_data();
    const std::string body_bytes = body.SerializeAsString();
    ASSERT_EQ(data.size(), 18 + body_bytes.size());
    const std::int64_t stamp = message.value().get_timestamp();
    EXPECT_TRUE(message.value().is_timestamp_evaluated());
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
    EXPECT_EQ(data, framed(length_word(body_bytes.size(), 18, PROTOCOL_ECU_VARIABLE),
                           static_cast<std::uint64_t>(stamp), body_bytes));
    EXPECT_EQ(message.value().get_qos(), 0);
    EXPECT_FALSE(message.value().get_retain());

    auto back = adapter.deserialize(message.value());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back.value().value(), "vcm");
    EXPECT_EQ(back.value().timestamp(), 1234u);
}

TEST_F(MessageAdapterTest, OneImplementationServesNestedAndRepeatedMessages) {
    pb::UdsIfMessage uds;
    uds.mutable_interface()->set_phyif(pb::UdsInterface_PhysicalInterface_UDS_IF_CAN2);
    uds.mutable_request()->set_payload(std::string("\x22\xf1\x90\x00", 4));
    PbInternalMessageAdapter<pb::UdsIfMessage> uds_adapter(PROTOCOL_UDS);
    auto uds_back = uds_adapter.deserialize(uds_adapter.serialize(uds).value());
    ASSERT_TRUE(uds_back.has_value());
    EXPECT_EQ(uds_back.value().SerializeAsString(), uds.SerializeAsString());

    pb::SystemParameterList list;
    for (unsigned id = 1; id <= 3; ++id) {
        auto* entry = list.add_entries();
        entry->set_id(id);
        entry->set_value(std::string(id * 100, 'x'));
    }
    PbInternalMessageAdapter<pb::SystemParameterList> list_adapter(PROTOCOL_SYSPARAMS);
    auto list_back = list_adapter.deserialize(list_adapter.serialize(list).value());
    ASSERT_TRUE(list_back.has_value());
    ASSERT_EQ(list_back.value().entries_size(), 3);
    EXPECT_EQ(list_back.value().entries(2).value().size(), 300u);
}

// The adapter reads and writes the header bytes itself; they must stay what the generated
// class makes and accepts.
TEST_F(MessageAdapterTest, HeaderAgreesWithTheGeneratedClass) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    const std::string body = variable("x", 1).SerializeAsString();
    for (std::uint64_t stamp :
         {std::uint64_t{0}, std::uint64_t{1} << 40, std::numeric_limits<std::uint64_t>::max()}) {
        pb::KOVHeader header;
        header.set_length(length_word(body.size(), 18, 0xFFFF));
        header.set_timestamp(stamp);
        const std::string bytes = header.SerializeAsString();
        ASSERT_EQ(bytes.size(), 18u) << stamp;
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), framed(header.length(), stamp, ""));

        Message message(framed(header.length(), stamp, body));
        EXPECT_EQ(static_cast<std::uint64_t>(message.get_timestamp()), stamp);
        EXPECT_TRUE(adapter.deserialize(message).has_value()) << stamp;
    }

    // Field order is free on the wire: timestamp first is still a header.
    Bytes reversed;
    put_fixed64(reversed, 0x11, 4242);
    put_fixed64(reversed, 0x09, length_word(body.size(), 18, 3));
    pb::KOVHeader parsed;
    ASSERT_TRUE(parsed.ParseFromArray(reversed.data(), 18));
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

    PbInternalMessageAdapter<pb::EcuVariable> sender(PROTOCOL_ECU_VARIABLE);
    auto serialized = sender.serialize(variable("y", 2));
    ASSERT_TRUE(serialized.has_value());
    pb::KOVHeader written;
    ASSERT_TRUE(written.ParseFromArray(serialized.value().get_data().data(), 18));
    EXPECT_EQ(written.length(), length_word(body.size(), 18, PROTOCOL_ECU_VARIABLE));
    EXPECT_EQ(static_cast<std::int64_t>(written.timestamp()), serialized.value().get_timestamp());
}

TEST_F(MessageAdapterTest, ShortPayloadsAreRejectedAndOnlyNonEmptyOnesLogged) {
    EXPECT_EQ(reject(Bytes{}, PbInternalDeserializationError::TOO_SHORT), "");
    Bytes seventeen = framed("");
    seventeen.pop_back();
    EXPECT_EQ(reject(seventeen, PbInternalDeserializationError::TOO_SHORT),
              std::string(kErrorPrefix) + "Total length is smaller then expected header length\n");
}

TEST_F(MessageAdapterTest, HeaderChecksRejectInTheirOrder) {
    EXPECT_EQ(reject(Bytes(18, 0xFF), PbInternalDeserializationError::HEADER_INVALID),
              std::string(kErrorPrefix) + "Unable to decode the header.\n");
    // Both fields present but one not fixed64: no header, although 18 bytes long.
    Bytes varint_tag = framed("");
    varint_tag[9] = 0x10;
    reject(varint_tag, PbInternalDeserializationError::HEADER_INVALID);

    const std::string body = variable("x", 1).SerializeAsString();
    EXPECT_EQ(reject(framed(length_word(body.size(), 18, 0), 1, body),
                     PbInternalDeserializationError::PROTOCOL_NOT_USED),
              std::string(kErrorPrefix) + "ProtocolType is set to not used!\n");
    // Protocol 0 is found before a wrong header length.
    reject(framed(length_word(body.size(), 17, 0), 1, body),
           PbInternalDeserializationError::PROTOCOL_NOT_USED);

    for (std::uint64_t header_length : {17u, 19u, 0u}) {
        EXPECT_EQ(reject(framed(length_word(body.size(), header_length, 3), 1, body),
                         PbInternalDeserializationError::HEADER_LENGTH),
                  std::string(kErrorPrefix) + "Specified hdr-len does not comply.\n")
            << header_length;
    }
}

TEST_F(MessageAdapterTest, BodyLengthMustStayWithinPayloadAndBodyMustParse) {
    const std::string body = variable("abc", 5).SerializeAsString();
    const std::string emerg = "[EMERG]: [tavi.com.messageadapter] Unable to deserialize protobuf\n";
    EXPECT_EQ(reject(framed(length_word(body.size() + 1, 18, 1), 1, body),
                     PbInternalDeserializationError::BODY_INVALID),
              emerg);
    // A body length that would wrap a 32-bit sum with the header length.
    reject(framed(length_word(0xFFFFFFFFu, 18, 1), 1, body),
           PbInternalDeserializationError::BODY_INVALID);
    reject(framed(length_word(0xFFFFFFEEu, 18, 1), 1, body),
           PbInternalDeserializationError::BODY_INVALID);
    // Bytes that are no protobuf message (a field with tag number 0).
    EXPECT_EQ(
        reject(framed(std::string("\x00\x01", 2)), PbInternalDeserializationError::BODY_INVALID),
        emerg);
    // The body is parsed from exactly body-length bytes: cutting a field in half fails.
    reject(framed(length_word(body.size() - 1, 18, 1), 1, body),
           PbInternalDeserializationError::BODY_INVALID);
}

TEST_F(MessageAdapterTest, EmptyBodyAndTrailingBytesAreAccepted) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    auto empty = adapter.deserialize(Message(framed("")));
    ASSERT_TRUE(empty.has_value());
    EXPECT_FALSE(empty.value().has_value());

    const std::string body = variable("on", 2).SerializeAsString();
    auto trailing = adapter.deserialize(
        Message(framed(length_word(body.size(), 18, 1), 1, body + "garbage\xFF")));
    ASSERT_TRUE(trailing.has_value());
    EXPECT_EQ(trailing.value().value(), "on");

    auto serialized = adapter.serialize(pb::EcuVariable());
    ASSERT_TRUE(serialized.has_value());
    EXPECT_EQ(serialized.value().get_data().size(), 18u);
}

TEST_F(MessageAdapterTest, ReceivedProtocolTypeReplacesTheAdaptersOwn) {
    PbInternalMessageAdapter<pb::EcuVariable> adapter(PROTOCOL_ECU_VARIABLE);
    ASSERT_TRUE(adapter.deserialize(Message(framed("", 0x4321))).has_value());
    EXPECT_EQ(adapter.protocol_type(), 0x4321u);
    auto reply = adapter.serialize(variable("v", 1));
    ASSERT_TRUE(reply.has_value());
    EXPECT_EQ(reply.value().get_data()[1], 0x21);
    EXPECT_EQ(reply.value().get_data()[2], 0x43);

    // A rejected header leaves it alone.
    test::StdoutCapture out;
    EXPECT_FALSE(adapter.deserialize(Message(framed("", 0))).has_value());
    out.finish();
    EXPECT_EQ(adapter.protocol_type(), 0x4321u);

    // Only 16 bits travel.
    PbInternalMessageAdapter<pb::EcuVariable> wide(0x12345);
    const Bytes wide_data = wide.serialize(pb::EcuVariable()).value().get_data();
    EXPECT_EQ(wide_data[2], 0x23);
    EXPECT_EQ(wide_data[3], 18);
}

TEST_F(MessageAdapterTest, StringBodyMustFillThePayloadExactly) {
    PbInternalMessageAdapter<std::string> adapter(PROTOCOL_RAW);
    const std::string raw("\x00\x01\xFFraw", 6);
    auto message = adapter.serialize(raw);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message.value().get_data(),
              framed(length_word(6, 18, PROTOCOL_RAW), message.value().get_timestamp(), raw));
    auto back = adapter.deserialize(message.value());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back.value(), raw);

    const std::string mismatch =
        std::string(kErrorPrefix) + "message length doesn't match the header\n";
    for (const std::string& payload : {raw + "x", raw.substr(1)}) {
        EXPECT_EQ(reject<std::string>(framed(length_word(6, 18, 1), 1, payload),
                                      PbInternalDeserializationError::BODY_INVALID),
                  mismatch);
    }
    auto empty = adapter.deserialize(Message(framed("")));
    ASSERT_TRUE(empty.has_value());
    EXPECT_EQ(empty.value(), "");
}

TEST_F(MessageAdapterTest, RawAdaptersCopyBytesAndRefuseProtocolZero) {
    PbVcpMessageAdapter<std::string> vcp(PROTOCOL_RAW);
    auto message = vcp.serialize("payload");
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message.value().get_data(), Bytes({'p', 'a', 'y', 'l', 'o', 'a', 'd'}));
    EXPECT_FALSE(message.value().is_timestamp_evaluated());
    EXPECT_EQ(vcp.deserialize(message.value()).value(), "payload");
    EXPECT_EQ(vcp.deserialize(Message()).value(), "");

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

    PbBackendMessageAdapter<std::string> backend(PROTOCOL_RAW);
    EXPECT_EQ(backend.serialize("be").value().get_data(), Bytes({'b', 'e'}));
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
    auto raw = vcp.serialize(signal);
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(raw.value().get_data().size(), signal.ByteSizeLong());
    auto vcp_back = vcp.deserialize(raw.value());
    ASSERT_TRUE(vcp_back.has_value());
    EXPECT_EQ(vcp.get_timestamp(vcp_back.value()), 777u);
    EXPECT_EQ(vcp_back.value().data(), signal.data());

    test::StdoutCapture out;
    EXPECT_FALSE(vcp.deserialize(Message(Bytes{0x00})).has_value());
    EXPECT_EQ(out.finish(),
              "[EMERG]: [tavi.com.vcpmessageadapter] Unable to deserialize protobuf\n");
}

TEST_F(MessageAdapterTest, TimestampIsReadFromTheHeaderOnFirstUse) {
    Message message(framed(length_word(0, 18, 1), 123456789, ""));
    EXPECT_FALSE(message.is_timestamp_evaluated());
    EXPECT_EQ(message.get_timestamp(), 123456789);
    EXPECT_TRUE(message.is_timestamp_evaluated());
    // Kept once known, even if the payload changes.
    message.get_data()[10] = 0;
    EXPECT_EQ(message.get_timestamp(), 123456789);

    Message short_message(Bytes(17, 0x09));
    EXPECT_EQ(short_message.get_timestamp(), 0);
    EXPECT_TRUE(short_message.is_timestamp_evaluated());
    EXPECT_EQ(short_message.get_timestamp(), 0);

    Message no_header(Bytes(18, 0xFF));
    EXPECT_EQ(no_header.get_timestamp(), 0);

    Message known(framed(""));
    known.set_timestamp(5);
    EXPECT_EQ(known.get_timestamp(), 5);
}

// The header and body written by the adapter, read by protoc's own decoder.
TEST_F(MessageAdapterTest, IndependentDecoderReadsFramedBytes) {
    pb::SubscriptionMessage announcement;
    announcement.add_topics("rt/vekcan/rx/speed");
    announcement.set_client_name("app1");
    PbInternalMessageAdapter<pb::SubscriptionMessage> adapter(PROTOCOL_SUBSCRIPTION);
    auto message = adapter.serialize(announcement);
    ASSERT_TRUE(message.has_value());
    const Bytes& data = message.value().get_data();

    auto decode_raw = [](const Bytes& bytes) {
        char path[] = "/tmp/messageadapter_test.XXXXXX";
        const int fd = mkstemp(path);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        const std::string command = std::string(MURNTAVI_PROTOC) + " --decode_raw < " + path;
        std::string output;
        if (FILE* pipe = popen(command.c_str(), "r")) {
            char buffer[256];
            size_t n = 0;
            while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) {
                output.append(buffer, n);
            }
            EXPECT_EQ(pclose(pipe), 0);
        }
        unlink(path);
        return output;
    };

    char expected_header[80];
    std::snprintf(expected_header, sizeof expected_header, "1: 0x%016llx\n2: 0x%016llx\n",
                  static_cast<unsigned long long>(data.size() - 18) << 32 | 18u << 16 | 1u,
                  static_cast<unsigned long long>(message.value().get_timestamp()));
    EXPECT_EQ(decode_raw(Bytes(data.begin(), data.begin() + 18)), expected_header);
    EXPECT_EQ(decode_raw(Bytes(data.begin() + 18, data.end())),
              "1: \"rt/vekcan/rx/speed\"\n2: \"app1\"\n");
}

TEST(ResultTest, HoldsValueOrErrorThroughCopiesAndMoves) {
    using R = Result<std::string, std::string>;
    R value = R::ok(std::string(100, 'v'));
    R error = R::err("bad");
    R copy = value;
    EXPECT_EQ(copy.value(), std::string(100, 'v'));
    copy = error;
    EXPECT_FALSE(copy.has_value());
    EXPECT_EQ(copy.error(), "bad");
    copy = std::move(value);
    ASSERT_TRUE(copy.has_value());
    EXPECT_EQ(copy.value().size(), 100u);
    R moved(std::move(error));
    EXPECT_EQ(moved.error(), "bad");
    std::string taken = R::ok("t").value();
    EXPECT_EQ(taken, "t");

    auto done = Result<void, int>::ok();
    EXPECT_TRUE(done.has_value());
    EXPECT_EQ((Result<void, int>::err(3).error()), 3);
}

TEST(ResultDeathTest, WrongSideAccessAborts) {
    using R = Result<int, int>;
    EXPECT_DEATH(R::err(1).value(), "value\\(\\) of an error Result");
    EXPECT_DEATH(R::ok(1).error(), "error\\(\\) of a successful Result");
}

}  // namespace
}  // namespace ecu::tavi::com
