#include "ecu/tavi/rt/signaladapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/fs/fs.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "support/capture.h"

// An application may define the support library's entry point itself.
extern "C" const ecu::tavi::rt::_internal::SignalGroupsDefinition* mapping_factory() {
    static const ecu::tavi::rt::_internal::SignalGroupsDefinition table{
        {"rt/app/own", {0x42, {"own", 0, false, {}}}}};
    return &table;
}

namespace ecu::tavi::rt {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const char* const kSupportLib = MURNTAVI_RTSUPPORT_LIB;

com::Message frame(const std::string& data, uint64_t timestamp_ms = 0) {
    pb::RtSignal rt_signal;
    rt_signal.set_data(data);
    rt_signal.set_timestamp(timestamp_ms);
    return com::PbInternalMessageAdapter<pb::RtSignal>(com::PROTOCOL_RT_SIGNAL)
        .serialize(rt_signal)
        .value();
}

class SignalAdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::unsetenv("SDKTARGETSYSROOT");
        SignalAdapter::reset_instance();
        SignalAdapter::enforce_support_lib(kSupportLib);
        logging::set_log_mode(logging::STDOUT);
        logging::set_log_level(7);
        logging::enable("tavi.rt.signaladapter", false);
    }
    void TearDown() override {
        SignalAdapter::reset_instance();
        SignalAdapter::enforce_support_lib(SignalAdapter::c_default_rt_support_library);
        ::unsetenv("SDKTARGETSYSROOT");
        logging::disable("tavi.rt.signaladapter", false);
        logging::set_log_mode(logging::SYSLOG);
        logging::set_log_level(5);
    }
};

TEST_F(SignalAdapterTest, LoadsTheSupportLibraryAndMapsItsTopics) {
    test::StdoutCapture loading;
    SignalAdapter& adapter = SignalAdapter::instance();
    EXPECT_EQ(&adapter, &SignalAdapter::instance());
    EXPECT_THAT(loading.finish(), HasSubstr(std::string("] Trying to open dlib: ") + kSupportLib +
                                            " for SignalGroupsDefinition\n"));

    EXPECT_THAT(adapter.get_topics("rt/vekcan/tx/"), ElementsAre("rt/vekcan/tx/fws_fb"));
    EXPECT_TRUE(adapter.get_topics("rt/vekcan/rx/fws_27/").empty());
    EXPECT_TRUE(adapter.is_valid_topic("rt/vekcan/rx/fws_27"));
    EXPECT_FALSE(adapter.is_valid_topic("rt/vekcan/rx/fws"));
    EXPECT_EQ(adapter.map_rtid_to_topic(0xFB), "rt/vekcan/tx/fws_fb");
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/vekcan/rx/fws_27"), 0x27u);
    EXPECT_TRUE(adapter.is_topic_retained("rt/platform/kl15"));
    EXPECT_FALSE(adapter.is_topic_retained("rt/vekcan/rx/ccvs"));
}

TEST_F(SignalAdapterTest, MaintenanceGroupsCarryEveryByteAndTheFullWord) {
    SignalAdapter& adapter = SignalAdapter::instance();
    const auto request = adapter.create_sg("rt/vekcan/tx/fws_fb");
    const auto response = adapter.create_sg("rt/vekcan/rx/fws_27");
    ASSERT_NE(request, nullptr);
    ASSERT_NE(response, nullptr);
    ASSERT_EQ(request->signals().size(), 9u);
    ASSERT_EQ(response->signals().size(), 11u);
    for (int byte = 0; byte < 256; ++byte) {
        for (const Signal& s : request->signals()) {
            ASSERT_TRUE(request->set_signal_scaled_value(s.name(), byte));
        }
        ASSERT_TRUE(
            response->set_signal_scaled_value("wartungsinformation_mc2qbx", 4294967295.0 - byte));
        ASSERT_TRUE(response->set_signal_scaled_value("weiteretermine_mc2qbx", byte));
        for (const auto& group : {request, response}) {
            auto unpacked = adapter.unpack(group->topic(), adapter.pack(*group).value());
            ASSERT_TRUE(unpacked.has_value());
            EXPECT_EQ(unpacked.value(), *group);
        }
        EXPECT_EQ(request->signal("aaf_qbx2mc")->value_scaled().value, byte);  // factor 1
    }
    EXPECT_EQ(response->signal("wartungsinformation_mc2qbx")->value_scaled().value, 4294967040.0);
    EXPECT_THAT(response->set_signals(),
                ElementsAre("wartungsinformation_mc2qbx", "weiteretermine_mc2qbx"));
}

TEST_F(SignalAdapterTest, VehicleSignalsScaleAndReportTheirStatus) {
    SignalAdapter& adapter = SignalAdapter::instance();
    auto ccvs = adapter.create_sg("rt/vekcan/rx/ccvs");
    EXPECT_TRUE(ccvs->is_valid());
    EXPECT_TRUE(ccvs->set_signal_scaled_value("wheel_based_vehicle_speed", 80.5));
    EXPECT_EQ(ccvs->signal("wheel_based_vehicle_speed")->data(), (Signal::DATA{0x80, 0x50}));
    EXPECT_TRUE(ccvs->set_signal_data("brake_switch", {0x02}));
    EXPECT_EQ(ccvs->signal("brake_switch")->status(), Signal::ERROR_INDICATOR);
    EXPECT_FALSE(ccvs->is_valid());

    auto eec1 = adapter.create_sg("rt/vekcan/rx/eec1");
    EXPECT_TRUE(eec1->set_signal_scaled_value("engine_speed", 1234.5));
    EXPECT_DOUBLE_EQ(eec1->signal("engine_speed")->value_scaled().value, 1234.5);
    EXPECT_TRUE(eec1->set_signal_scaled_value("actual_engine_percent_torque", -125.0));
    EXPECT_EQ(eec1->signal("actual_engine_percent_torque")->data(), Signal::DATA{0});
    EXPECT_DOUBLE_EQ(eec1->signal("drivers_demand_percent_torque")->value_scaled().value, -125.0);

    auto odo = adapter.create_sg("rt/vekcan/rx/odo");
    EXPECT_TRUE(odo->set_signal_scaled_value("odometer", 123456.0));
    EXPECT_TRUE(odo->is_valid());
    EXPECT_TRUE(odo->set_signal_data("odometer", {0, 0, 0xFF}));
    EXPECT_EQ(odo->signal("odometer")->status(), Signal::NOT_AVAILABLE);

    auto vi = adapter.create_sg("rt/vekcan/rx/vi");
    EXPECT_TRUE(vi->is_valid());
    EXPECT_TRUE(vi->set_signal_data("vin", Signal::DATA(17, 0xFF)));
    EXPECT_FALSE(vi->is_valid());
}

TEST_F(SignalAdapterTest, GroupsFindSignalsByExactNameOnly) {
    auto kl15 = SignalAdapter::instance().create_sg("rt/platform/kl15");
    test::StdoutCapture out;
    EXPECT_TRUE(kl15->has_signal("kl15_state"));
    EXPECT_FALSE(kl15->has_signal("kl15"));
    EXPECT_EQ(kl15->signal("kl15"), nullptr);
    EXPECT_FALSE(kl15->set_signal_data("KL15_STATE", {1}));
    EXPECT_FALSE(kl15->set_signal_scaled_value("kl15", 1.0));
    EXPECT_THAT(out.finish(), HasSubstr("] Signal 'KL15_STATE' does not exists!\n"));
    // A refused write is not recorded.
    EXPECT_FALSE(kl15->set_signal_data("kl15_state", {1, 2}));
    EXPECT_TRUE(kl15->set_signal_data("wakeup_reason", {7}));
    EXPECT_TRUE(kl15->set_signal_scaled_value("kl15_state", 1.0));
    EXPECT_TRUE(kl15->set_signal_data("wakeup_reason", {8}));
    EXPECT_THAT(kl15->set_signals(), ElementsAre("wakeup_reason", "kl15_state"));

    // Bus, retain flag, time stamp and the names set do not take part in equality.
    SignalGroup other(kl15->rtid(), kl15->name(), kl15->topic(), SignalGroup::CAN_BUS_2, false, 9);
    for (const Signal& s : kl15->signals()) {
        other.add_signal(s);
    }
    EXPECT_EQ(other, *kl15);
    other.add_signal(kl15->signals().front());
    EXPECT_NE(other, *kl15);

    EXPECT_STREQ(to_str(SignalGroup::CAN_BUS_1), "1");
    EXPECT_STREQ(to_str(SignalGroup::CAN_BUS_2), "2");
    EXPECT_STREQ(to_str(SignalGroup::NO_BUS), "-");
}

TEST_F(SignalAdapterTest, PaddingFillsUpToAMultipleOfTheFirstSignal) {
    const _internal::signal_def word{"word", 16, 16, 1.0, 0, 0xFFFF, 0, 0, _internal::CAN_STATUS};
    const _internal::signal_def byte{"byte", 8, 8, 1.0, 0, 0xFF, 0, 0, _internal::CAN_STATUS};
    const SignalAdapter::Mapping table{
        {"rt/test/five", {7, {"five", 0, false, {word, byte, byte, byte}}}},
        {"rt/test/empty", {8, {"empty", 5, false, {}}}}};
    SignalAdapter::enforce_definition(&table);
    SignalAdapter& adapter = SignalAdapter::instance();
    auto sg = adapter.create_sg("rt/test/five");
    ASSERT_TRUE(sg->set_signal_data("word", {1, 2}));
    EXPECT_EQ(adapter.add_padding(*sg), std::string("\x01\x02\0\0\0\xFF", 6));
    EXPECT_EQ(adapter.add_padding(*adapter.create_sg("rt/test/empty")), "");

    const SignalGroup no_signals(1, "x", "rt/test/five", SignalGroup::NO_BUS, false, 0);
    EXPECT_EQ(adapter.add_padding(no_signals), "");
    auto packed = adapter.pack(no_signals);
    ASSERT_TRUE(packed.has_value());
    EXPECT_EQ(adapter.unpack("rt/test/five", packed.value()).error().message,
              "Unexpected size for five expect [5 or padded 6] raw_size: [0]");
    EXPECT_EQ(adapter.unpack("rt/test/empty", packed.value()).value().signals().size(), 0u);
}

TEST_F(SignalAdapterTest, EveryGroupRoundTripsAndUnpacksTheExpectedAndThePaddedSizeOnly) {
    SignalAdapter& adapter = SignalAdapter::instance();
    for (const std::string& topic : adapter.get_topics("")) {
        SCOPED_TRACE(topic);
        auto sg = adapter.create_sg(topic);
        ASSERT_NE(sg, nullptr);
        int n = 0;
        for (const Signal& s : sg->signals()) {
            EXPECT_TRUE(
                std::all_of(s.data().begin(), s.data().end(), [](auto b) { return b == 0; }));
            ASSERT_TRUE(sg->set_signal_data(
                s.name(), Signal::DATA(s.data().size(), static_cast<unsigned char>(0x11 * ++n))));
        }
        const uint64_t before = DateTime::time_since_boot_ms();
        auto unpacked = adapter.unpack(topic, adapter.pack(*sg).value());
        ASSERT_TRUE(unpacked.has_value()) << unpacked.error().message;
        EXPECT_EQ(unpacked.value(), *sg);
        EXPECT_EQ(unpacked.value().bus(), sg->bus());
        EXPECT_GE(unpacked.value().timestamp(), before);
        EXPECT_LE(unpacked.value().timestamp(), DateTime::time_since_boot_ms());

        size_t expected = 0;
        for (const Signal& s : sg->signals()) {
            expected += static_cast<size_t>(s.data_payload_size_bytes());
        }
        const size_t step = sg->signals()[0].data().size();
        // A payload that is already a multiple still accepts one more step.
        const size_t padded = step + expected - expected % step;
        for (size_t size = 0; size <= padded + step + 1; ++size) {
            auto group = adapter.unpack(topic, frame(std::string(size, '\x05'), 42));
            if (size == expected || size == padded) {
                ASSERT_TRUE(group.has_value()) << size;
                EXPECT_EQ(group.value().timestamp(), 42u);
                EXPECT_EQ(group.value().signals().back().data().back(), 0x05);
            } else {
                ASSERT_FALSE(group.has_value()) << size;
                EXPECT_EQ(group.error().code, SignalAdapterError::UNEXPECTED_SIZE);
                EXPECT_EQ(group.error().message, "Unexpected size for " + sg->name() + " expect [" +
                                                     std::to_string(expected) + " or padded " +
                                                     std::to_string(padded) + "] raw_size: [" +
                                                     std::to_string(size) + "]");
            }
        }
    }
    // The tyre group's 12 bytes are a multiple of its first 4-byte signal; 16 passes too.
    EXPECT_TRUE(adapter.unpack("rt/vekcan/rx/tire", frame(std::string(16, '\x01'))).has_value());
    EXPECT_EQ(adapter.unpack("rt/vekcan/rx/fws_27", frame(std::string(15, '\0'))).error().message,
              "Unexpected size for fws_27 expect [14 or padded 16] raw_size: [15]");
}

TEST_F(SignalAdapterTest, UnknownTopicsAndBrokenMessagesAreRefused) {
    SignalAdapter& adapter = SignalAdapter::instance();
    test::StdoutCapture lookups;
    EXPECT_EQ(adapter.map_rtid_to_topic(4711), "");
    EXPECT_EQ(adapter.map_topic_to_rtid("rt/x"), 0u);
    EXPECT_FALSE(adapter.is_topic_retained("rt/y"));
    EXPECT_EQ(adapter.create_sg("rt/z"), nullptr);
    const std::string text = lookups.finish();
    EXPECT_THAT(text, HasSubstr("] Unable to find topic rtid '4711' in mapping\n"));
    EXPECT_THAT(text, HasSubstr("] Unable to find rtid for topic 'rt/x'\n"));
    EXPECT_THAT(text, HasSubstr("] Unable to find retain_flag for topic 'rt/y'\n"));
    EXPECT_THAT(text, HasSubstr("] No valid SignalGroup for topic: 'rt/z'\n"));

    SignalGroup stray(1, "stray", "rt/vekcan/rx/stray", SignalGroup::CAN_BUS_1, false, 0);
    auto packed = adapter.pack(stray);
    ASSERT_FALSE(packed.has_value());
    EXPECT_EQ(packed.error().code, SignalAdapterError::UNKNOWN_TOPIC);
    EXPECT_EQ(packed.error().message,
              "SignalGroup::topic 'rt/vekcan/rx/stray' does not related to a SignalGroup topic "
              "unknown to the platform!");

    auto unknown = adapter.unpack("rt/vekcan/rx/stray", frame(std::string(14, '\0')));
    ASSERT_FALSE(unknown.has_value());
    EXPECT_EQ(unknown.error().code, SignalAdapterError::UNKNOWN_TOPIC);
    EXPECT_EQ(unknown.error().message,
              "'rt/vekcan/rx/stray' can not be handled via SignalAdapter.");

    test::StdoutCapture out;
    com::Message garbage(std::vector<uint8_t>(30, 0xAB));
    auto broken = adapter.unpack("rt/vekcan/rx/fws_27", garbage);
    ASSERT_FALSE(broken.has_value());
    EXPECT_EQ(broken.error().code, SignalAdapterError::DESERIALIZATION);
    EXPECT_EQ(broken.error().message, "Protobuf deserialization error of RtSignal!");
    EXPECT_THAT(out.finish(), HasSubstr("] Unable to deserialize pb::RtSignal\n"));
}

TEST_F(SignalAdapterTest, MissingTableLeavesAnEmptyMapping) {
    test::StdoutCapture out;
    SignalAdapter::enforce_definition(nullptr);
    SignalAdapter& adapter = SignalAdapter::instance();
    EXPECT_TRUE(adapter.get_topics("").empty());
    EXPECT_EQ(adapter.map_rtid_to_topic(0xFB), "");
    EXPECT_EQ(adapter.create_sg("rt/vekcan/tx/fws_fb"), nullptr);
    const std::string text = out.finish();
    EXPECT_THAT(text, HasSubstr("] No definition supplied! Failed to initialize SignalAdapter\n"));
    EXPECT_THAT(text, HasSubstr("] Mapping is empty, unable to map!\n"));
}

TEST_F(SignalAdapterTest, SysrootIsPutInFrontOfTheDefaultPathOnly) {
    fs::TempDirectory root;
    ASSERT_TRUE(root.valid());
    ASSERT_TRUE(fs::mkdir(root.path() + "/etc/orvo"));
    ASSERT_TRUE(
        fs::create_symlink(kSupportLib, root.path() + SignalAdapter::c_default_rt_support_library));
    ::setenv("SDKTARGETSYSROOT", root.path().c_str(), 1);

    SignalAdapter::enforce_support_lib(SignalAdapter::c_default_rt_support_library);
    EXPECT_TRUE(SignalAdapter::instance().is_valid_topic("rt/vekcan/rx/fws_27"));

    // An explicit path is taken as it is.
    SignalAdapter::reset_instance();
    ::setenv("SDKTARGETSYSROOT", "/nonexistent", 1);
    SignalAdapter::enforce_support_lib(kSupportLib);
    EXPECT_TRUE(SignalAdapter::instance().is_valid_topic("rt/vekcan/rx/fws_27"));
}

TEST_F(SignalAdapterTest, WithoutTheLibraryTheProcessesOwnEntryPointServes) {
    const std::string missing = "/nonexistent/libmurntavi_rtsupport.so";
    SignalAdapter::enforce_support_lib(missing);
    test::StdoutCapture out;
    EXPECT_TRUE(SignalAdapter::instance().is_valid_topic("rt/app/own"));
    const std::string text = out.finish();
    EXPECT_THAT(text, HasSubstr("] " + missing +
                                ": cannot open shared object file: No such file or directory\n"));
    EXPECT_THAT(text, Not(HasSubstr("The lib handle is not set!")));
}

using SignalAdapterDeathTest = SignalAdapterTest;

TEST_F(SignalAdapterDeathTest, LibraryWithoutTheEntryPointEndsTheProcess) {
    SignalAdapter::enforce_support_lib(MURNTAVI_KOVPROTO_LIB);
    EXPECT_DEATH(SignalAdapter::instance(),
                 "Assertion `SignalAdapter::c_instance != nullptr' failed");
}

}  // namespace
}  // namespace ecu::tavi::rt
