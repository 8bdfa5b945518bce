// tavictl run as a user runs it, against the simulator's broker: exit codes, remote log
// control of an application, watch decoding what was published (and surviving garbage),
// a recording replayed into a fresh broker, and the platform commands against the
// simulated unit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>

#include <google/protobuf/util/json_util.h>
#include <nlohmann/json.hpp>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/acl.pb.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "ecu/tavi/pb/sysparams.pb.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "ecu/tavi/platform/bootflags.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/testkit.h"
#include "support/capture.h"
#include "support/mqtt_peer.h"

extern char** environ;

namespace ecu::tavi::sim {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using test::wait_until;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const char* const kCcvs = "rt/vekcan/rx/ccvs";
const char* const kSpeed = "wheel_based_vehicle_speed";

std::string read_text(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// tavictl running in the background until interrupted, its output in files.
class Background {
public:
    explicit Background(const std::string& command) {
        static int count = 0;
        const std::string base = ::testing::TempDir() + "tavictl-bg" + std::to_string(::getpid()) +
                                 "-" + std::to_string(++count);
        m_out = base + ".out";
        m_err = base + ".err";
        const std::string shell = "exec " + command + " >" + m_out + " 2>" + m_err;
        const char* argv[] = {"sh", "-c", shell.c_str(), nullptr};
        ::posix_spawn(&m_pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ);
    }
    ~Background() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    std::string out() const { return read_text(m_out); }
    std::string err() const { return read_text(m_err); }
    bool wait_err(const std::string& text) const {
        return wait_until([&] { return err().find(text) != std::string::npos; });
    }
    // Ctrl-C; the exit code, or -1 when it did not end normally within the deadline.
    int interrupt() {
        ::kill(m_pid, SIGINT);
        int status = 0;
        const bool ended = wait_until([&] { return ::waitpid(m_pid, &status, WNOHANG) == m_pid; });
        m_pid = ended ? -1 : m_pid;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_pid = -1;
    std::string m_out;
    std::string m_err;
};

// Every message of the filters, in order of arrival, as (topic, payload).
std::vector<std::pair<std::string, std::string>> traffic(test::MqttPeer& peer) {
    std::vector<std::pair<std::string, std::string>> seen;
    for (const auto& received : peer.received()) {
        seen.emplace_back(received.topic, received.payload);
    }
    return seen;
}

std::string bytes(const com::Message& message) {
    return std::string(message.get_data().begin(), message.get_data().end());
}

class TavictlTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Broker::available()) {
            GTEST_SKIP() << "mosquitto is not installed";
        }
        rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
        ASSERT_TRUE(m_kit.start()) << m_kit.error();
    }

    std::string tavictl(const std::string& args, TestKit* kit = nullptr) const {
        kit = kit != nullptr ? kit : const_cast<TestKit*>(&m_kit);
        return std::string(TAVICTL) + " -H 127.0.0.1 -p " + std::to_string(kit->broker().port()) +
               " --rt-support " + MURNTAVI_RTSUPPORT_LIB + " " + args;
    }

    std::shared_ptr<com::ITransportClient> application(const std::string& name) {
        auto configuration = m_kit.client_configuration(name);
        auto app = com::create_client(configuration, com::MQTT);
        EXPECT_TRUE(app->connect());
        app->start();
        EXPECT_TRUE(app->wait_ready(10s));
        return app;
    }

    com::Message ccvs(double speed) {
        auto group = rt::SignalAdapter::instance().create_sg(kCcvs);
        EXPECT_TRUE(group->set_signal_scaled_value(kSpeed, speed));
        return rt::SignalAdapter::instance().pack(*group).value();
    }

    TestKit m_kit{{"unit.hostname = tele-test\n", MURNTAVI_RTSUPPORT_LIB}};
};

TEST_F(TavictlTest, ExitCodesTellUsageTimeOutAndUnreachableBrokerApart) {
    struct Case {
        std::string command;
        int code;
        std::string message;
    };
    const Case cases[] = {
        {tavictl("--no-such-option log show app"), 2, "tavictl: "},
        {tavictl("log set app"), 2, "tavictl: log set: give --level and/or --mode"},
        {tavictl("-t 1 log show nobody"), 3,
         "tavictl: no answer on app/nobody/log/config within 1 s"},
        {std::string(TAVICTL) + " -H 127.0.0.1 -p 1 -t 1 log show app", 4,
         "tavictl: no connection to 127.0.0.1:1 within 1 s"},
        {tavictl("log --help"), 0, "Another application's logging"},
    };
    for (const auto& c : cases) {
        const auto run = test::run_command(c.command);
        EXPECT_EQ(run.exit_code, c.code) << c.command << "\n" << run.output;
        EXPECT_THAT(run.output, StartsWith(c.message)) << c.command;
        if (c.code != 0) {
            EXPECT_EQ(lines_of(run.output).size(), 1u) << run.output;
        }
    }
}

TEST_F(TavictlTest, LogCommandsChangeAnotherApplicationsLogging) {
    auto app = application("tl-app");
    const int saved_level = logging::get_log_level();

    auto set = test::run_command(tavictl("--json log set tl-app --level info"));
    ASSERT_EQ(set.exit_code, 0) << set.output;
    const json reply = json::parse(set.output, nullptr, false);
    ASSERT_TRUE(reply.is_object()) << set.output;
    EXPECT_EQ(reply["application"], "tl-app");
    EXPECT_EQ(reply["level"], "INFO");
    EXPECT_EQ(reply["mode"], logging::get_log_mode_name());
    EXPECT_EQ(reply["modules"][0]["name"], "root");
    EXPECT_EQ(logging::get_log_level(), 6);

    auto disable = test::run_command(tavictl("log disable tl-app tavi.com --recursive"));
    ASSERT_EQ(disable.exit_code, 0) << disable.output;
    EXPECT_THAT(disable.output,
                StartsWith(std::string("level INFO\nmode ") + logging::get_log_mode_name() + "\n"));
    EXPECT_THAT(disable.output, HasSubstr("\noff tavi.com.mqttclient\n"));
    auto enable = test::run_command(tavictl("log enable tl-app tavi.com.mqttclient"));
    EXPECT_THAT(enable.output, HasSubstr("\noff tavi.com\n"));
    EXPECT_THAT(enable.output, HasSubstr("\non  tavi.com.mqttclient\n"));

    logging::set_log_level(saved_level);
    app->stop();
}

TEST_F(TavictlTest, WatchDecodesEveryKindOfFrameAndSurvivesGarbage) {
    Background watch(tavictl("--json watch '#'"));
    ASSERT_TRUE(watch.wait_err("tavictl: watching, Ctrl-C ends")) << watch.err();
    test::MqttPeer peer(m_kit.broker().host(), m_kit.broker().port());
    ASSERT_TRUE(peer.wait_connected());

    // Random bytes on topics with a known type, and on a real-time topic, come first: the
    // frames after them must still be decoded.
    std::mt19937 random(7);
    for (const char* topic : {"app/x/log/config", kCcvs, "system/bootflags", "be/status"}) {
        std::vector<uint8_t> garbage(1 + random() % 64);
        for (auto& b : garbage) {
            b = static_cast<uint8_t>(random());
        }
        peer.publish(topic, garbage);
    }

    pb::LogConfig log;
    log.set_level(pb::LogConfig::DEBUG);
    log.add_modules()->set_name("tavi.com");
    pb::UdsIfMessage uds;
    uds.mutable_interface()->set_param(0x17);
    pb::PgnRequestTokenResponse pgn;
    pgn.set_result(pb::PgnRequestTokenResponse::TOKEN_ACQUIRED);
    pb::EcuVariable variable;
    variable.set_value("WDB9634031L987654");
    pb::SystemParameterList sysparams;
    sysparams.add_entries()->set_name("telematics.gps_rate_hz");
    pb::BootFlags bootflags;
    bootflags.set_boot_counter(3);
    bootflags.set_bank_switch_cause(pb::BootFlags::CAUSE_TAVI_2);
    pb::BtDiscoveryResults bt;
    bt.add_devices()->set_address("00:1a:7d:da:71:13");
    pb::AclIfMessage acl;
    acl.mutable_response()->set_result(0);
    pb::BackendProxyStatus backend;
    backend.set_status(pb::BackendProxyStatus::PROXY_CONNECTED);
    const std::vector<std::pair<std::string, const google::protobuf::Message*>> frames = {
        {"app/x/log/config", &log},
        {"app/x/uds/response", &uds},
        {"app/x/pgn/response", &pgn},
        {"system/var/vin", &variable},
        {"system/sysparams", &sysparams},
        {"system/bootflags", &bootflags},
        {"system/bt/discovery/results", &bt},
        {"app/x/acl/response", &acl},
        {"be/status", &backend},
    };
    for (const auto& frame : frames) {
        peer.publish(frame.first,
                     bytes(com::_internal::frame(com::PROTOCOL_RAW, *frame.second).value()));
    }
    peer.publish(kCcvs, bytes(ccvs(42.5)));

    const size_t expected = 4 + frames.size() + 1;
    // Delivered in order: the group, sent last, is the second message on its topic.
    const std::string group_line = std::string("\"topic\":\"") + kCcvs + "\"";
    ASSERT_TRUE(wait_until([&] {
        const std::string out = watch.out();
        const size_t first = out.find(group_line);
        return first != std::string::npos && out.find(group_line, first + 1) != std::string::npos;
    })) << watch.out()
        << watch.err();
    EXPECT_EQ(watch.interrupt(), 0);

    std::vector<json> lines;
    for (const auto& line : lines_of(watch.out())) {
        lines.push_back(json::parse(line, nullptr, false));
        ASSERT_TRUE(lines.back().is_object()) << line;
        if (lines.back()["retain"] == true) {
            lines.pop_back();  // what the simulator keeps on the broker
        }
    }
    ASSERT_EQ(lines.size(), expected);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_FALSE(lines[i]["decoded"].contains("body")) << lines[i];
    }
    for (size_t i = 0; i < frames.size(); ++i) {
        const json& line = lines[4 + i];
        const google::protobuf::Message& sent = *frames[i].second;
        std::string body;
        ASSERT_TRUE(google::protobuf::util::MessageToJsonString(sent, &body).ok());
        EXPECT_EQ(line["topic"], frames[i].first);
        EXPECT_EQ(line["decoded"]["frame"]["protocol_type"], com::PROTOCOL_RAW);
        EXPECT_EQ(line["decoded"]["frame"]["body_length"], sent.ByteSizeLong());
        EXPECT_EQ(line["decoded"]["type"], sent.GetDescriptor()->full_name()) << line;
        // Field names as declared there, camel case here: compare the values.
        std::string declared;
        google::protobuf::util::JsonPrintOptions names;
        names.preserve_proto_field_names = true;
        ASSERT_TRUE(google::protobuf::util::MessageToJsonString(sent, &declared, names).ok());
        EXPECT_EQ(line["decoded"]["body"], json::parse(declared)) << line;
    }
    const json& group = lines.back()["decoded"];
    EXPECT_EQ(group["signals"][kSpeed]["value"], 42.5) << group;
    EXPECT_EQ(group["signals"][kSpeed]["status"], "OK") << group;
}

TEST_F(TavictlTest, WatchPrintsTextAndCsvRowsOfRealTimeGroups) {
    Background text(tavictl("watch 'app/+/log/config'"));
    Background csv(tavictl("watch --csv rt/vekcan/rx/ccvs"));
    ASSERT_TRUE(text.wait_err("tavictl: watching, Ctrl-C ends")) << text.err();
    ASSERT_TRUE(csv.wait_err("tavictl: watching, Ctrl-C ends")) << csv.err();

    auto app = application("tl-csv");
    pb::LogConfig log;
    log.set_level(pb::LogConfig::DEBUG);
    app->publish("app/tl-csv/log/config",
                 com::PbInternalMessageAdapter<pb::LogConfig>(com::PROTOCOL_LOG_CONFIG)
                     .serialize(log)
                     .value());
    for (double speed : {10.0, 87.5}) {
        app->publish(kCcvs, ccvs(speed));
    }
    ASSERT_TRUE(wait_until([&] { return lines_of(csv.out()).size() == 3; })) << csv.out();
    ASSERT_TRUE(wait_until([&] { return lines_of(text.out()).size() == 3; })) << text.out();
    EXPECT_EQ(csv.interrupt(), 0);
    EXPECT_EQ(text.interrupt(), 0);

    const auto rows = lines_of(csv.out());
    EXPECT_EQ(rows[0],
              "time_s,topic,parking_brake_switch,wheel_based_vehicle_speed,cruise_control_active,"
              "brake_switch,clutch_switch");
    EXPECT_THAT(rows[1], testing::EndsWith(",rt/vekcan/rx/ccvs,0,10,0,0,0"));
    EXPECT_THAT(rows[2], testing::EndsWith(",rt/vekcan/rx/ccvs,0,87.5,0,0,0"));
    const auto lines = lines_of(text.out());
    EXPECT_EQ(lines[0], "app/tl-csv/log/config (20 bytes)");
    EXPECT_THAT(lines[1], StartsWith("  frame: protocol 3, header 18, body 2 bytes, sent at "));
    EXPECT_EQ(lines[2], "  ecu.tavi.pb.LogConfig { level: DEBUG }");
    app->stop();
}

TEST_F(TavictlTest, RecordReplaysIntoAFreshBrokerInOrderAndRejectsATruncatedFile) {
    const std::string file = ::testing::TempDir() + "tavictl-record.jsonl";
    const std::vector<std::string> filters = {"app/#", kCcvs};
    test::MqttPeer original(m_kit.broker().host(), m_kit.broker().port());
    for (const auto& filter : filters) {
        ASSERT_TRUE(original.subscribe(filter));
    }
    Background record(tavictl("record " + file + " 'app/#' " + kCcvs));
    ASSERT_TRUE(record.wait_err("tavictl: recording, Ctrl-C ends")) << record.err();

    // An application's traffic, the simulator relaying its real-time groups; each message is
    // seen before the next goes out, so the order is the order of sending.
    auto app = application("tl-rec");
    com::PbInternalMessageAdapter<pb::LogConfig> adapter(com::PROTOCOL_LOG_CONFIG);
    size_t sent = 0;
    auto send = [&](const std::string& topic, const com::Message& message) {
        ASSERT_EQ(app->publish(topic, message), 0);
        ++sent;
        ASSERT_TRUE(wait_until([&] { return original.received().size() == sent; }));
    };
    for (int i = 0; i < 3; ++i) {
        pb::LogConfig log;
        log.set_level(static_cast<pb::LogConfig::LogLevel>(i));
        send("app/tl-rec/log/config", adapter.serialize(log).value());
        send(kCcvs, ccvs(20.0 * i));
    }
    com::Message raw(std::vector<uint8_t>{0x00, 0xff, 0x10});
    send("app/cid/7", raw);
    ASSERT_TRUE(wait_until([&] { return lines_of(read_text(file)).size() == 1 + sent; }));
    EXPECT_EQ(record.interrupt(), 0);
    EXPECT_THAT(record.err(), HasSubstr("tavictl: recorded 7 messages in " + file));
    app->stop();

    const auto recorded = lines_of(read_text(file));
    EXPECT_EQ(json::parse(recorded[0])["format"], "tavictl-record");
    const json first = json::parse(recorded[1]);
    EXPECT_EQ(first["topic"], "app/tl-rec/log/config");
    EXPECT_EQ(first["decoded"]["body"], json({{"level", "EMERG"}}));

    TestKit fresh({"unit.hostname = tele-fresh\n", MURNTAVI_RTSUPPORT_LIB});
    ASSERT_TRUE(fresh.start()) << fresh.error();
    test::MqttPeer replayed(fresh.broker().host(), fresh.broker().port());
    for (const auto& filter : filters) {
        ASSERT_TRUE(replayed.subscribe(filter));
    }
    const auto replay = test::run_command(tavictl("replay " + file, &fresh));
    EXPECT_EQ(replay.exit_code, 0) << replay.output;
    ASSERT_TRUE(wait_until([&] { return replayed.received().size() == sent; }));
    EXPECT_EQ(traffic(replayed), traffic(original));

    // Cut in the middle of the last line, as a recording killed while writing would be.
    const std::string text = read_text(file);
    std::ofstream(file, std::ios::trunc) << text.substr(0, text.size() - 20);
    const auto truncated = test::run_command(tavictl("replay " + file, &fresh));
    EXPECT_EQ(truncated.exit_code, 1);
    EXPECT_EQ(truncated.output,
              "tavictl: " + file + ": line 8: not valid JSON (a truncated line?)\n");
}

TEST_F(TavictlTest, ReplayPlaysHandWrittenScenariosAndNamesTheBadLine) {
    const std::string file = ::testing::TempDir() + "tavictl-scenario.jsonl";
    const std::string header = "{\"format\":\"tavictl-record\",\"version\":1}\n";
    test::MqttPeer peer(m_kit.broker().host(), m_kit.broker().port());
    ASSERT_TRUE(peer.subscribe(kCcvs));
    ASSERT_TRUE(peer.subscribe("system/var/ignition"));
    std::ofstream(file) << header << "{\"t\":0,\"topic\":\"rt/vekcan/rx/ccvs\",\"signals\":{\""
                        << kSpeed << "\":50}}\n"
                        << "{\"t\":0.05,\"topic\":\"system/var/ignition\",\"variable\":\"off\"}\n";
    const auto run = test::run_command(tavictl("replay " + file));
    ASSERT_EQ(run.exit_code, 0) << run.output;
    ASSERT_TRUE(peer.wait_for(kCcvs));
    ASSERT_TRUE(peer.wait_for("system/var/ignition"));
    const auto received = peer.received();
    const auto group = rt::SignalAdapter::instance().unpack(
        kCcvs, com::Message(received[0].payload.data(), received[0].payload.size()));
    ASSERT_TRUE(group.has_value());
    EXPECT_EQ(group.value().signal(kSpeed)->value_scaled().value, 50.0);
    const auto variable =
        com::PbInternalMessageAdapter<pb::EcuVariable>(com::PROTOCOL_ECU_VARIABLE)
            .deserialize(com::Message(received[1].payload.data(), received[1].payload.size()));
    ASSERT_TRUE(variable.has_value());
    EXPECT_EQ(variable.value().value(), "off");

    const std::pair<std::string, std::string> bad[] = {
        {"{\"t\":0,\"topic\":\"a\",\"payload\":\"AA==\"}\n", "line 1: not a record file"},
        {"{\"format\":\"tavictl-record\",\"version\":2}\n", "line 1: format version 2 is not"},
        {header + "\n{\"t\":0,\"topic\":\"a\",\"payload\":\"A\"}\n",
         "line 3: \"payload\" must be base64"},
        {header + "{\"t\":-1,\"topic\":\"a\",\"payload\":\"\"}\n", "line 2: \"t\" must be"},
        {header + "{\"t\":0,\"topic\":\"a/#\",\"payload\":\"\"}\n", "line 2: \"topic\" must be"},
        {header + "{\"t\":0,\"topic\":\"a\"}\n", "line 2: give exactly one of"},
        {header + "{\"t\":0,\"topic\":\"rt/vekcan/rx/ccvs\",\"signals\":{\"speed\":1}}\n",
         "line 2: rt/vekcan/rx/ccvs has no signal 'speed'"},
        {header + "[1,2]\n", "line 2: not a JSON object"},
    };
    for (const auto& c : bad) {
        std::ofstream(file, std::ios::trunc) << c.first;
        const auto rejected = test::run_command(tavictl("replay " + file));
        EXPECT_EQ(rejected.exit_code, 1) << c.first;
        EXPECT_THAT(rejected.output, StartsWith("tavictl: " + file + ": " + c.second)) << c.first;
    }
}

TEST_F(TavictlTest, PlatformCommandsReadAndChangeTheSimulatedUnit) {
    TestKit unit(
        {"unit.hostname = tele-x\nvar.vin = WDB9634031L987654\nvar.fleet_id = demo\n"
         "sysparam.101.upload_interval_s = 60\nsysparam.102.gps_rate_hz = 1\n"
         "sysparam.103.service_pin = 4711\nsysparam.locked = 103\n"
         "bootflags.current_bank = 0\nbootflags.bank0_valid = true\n"
         "bootflags.bank1_valid = true\nbootflags.boot_counter = 1\n"
         "bt.status = operational\nbt.scan_interval_ms = 100\n"
         "bt.device.00:1a:7d:da:71:13 = driver-phone, -58\n",
         MURNTAVI_RTSUPPORT_LIB});
    ASSERT_TRUE(unit.start()) << unit.error();
    using Flags = platform::BootFlagsClient;
    const std::string bank1 = Flags::to_str(Flags::BOOT_BANK_1);
    struct Case {
        std::string args;
        int code;
        std::string output;
    };
    const Case cases[] = {
        {"var get vin fleet_id", 0, "vin = WDB9634031L987654\nfleet_id = demo\n"},
        {"-t 1 var get vin nope", 3,
         "vin = WDB9634031L987654\ntavictl: no value within the time-out: nope\n"},
        {"sysparams list", 0,
         "101 upload_interval_s = 60\n102 gps_rate_hz = 1\n"
         "103 service_pin = 4711\n"},
        {"sysparams set gps_rate_hz 5", 0, "102 gps_rate_hz = 5\n"},
        {"--json sysparams get 102", 0,
         "[{\"id\":102,\"name\":\"gps_rate_hz\",\"value\":\"5\"}]\n"},
        {"sysparams set service_pin 1", 1,
         "tavictl: not written (status 3, 1 entries read back differently)\n"},
        {"bootflags valid 1 --invalid", 0, ""},
        {"bootflags switch", 1,
         std::string("tavictl: boot flags not set: ") + Flags::to_str(Flags::SET_INVALID_BANK) +
             "\n"},
        {"bootflags valid 1", 0, ""},
        {"bootflags switch --cause 7", 0, ""},
        {"bt status", 0, "available yes, operational yes\n"},
        {"bt scan -s 0.5", 0, "00:1a:7d:da:71:13  -58 dBm  driver-phone\n"},
    };
    for (const auto& c : cases) {
        const auto run = test::run_command(tavictl(c.args, &unit));
        EXPECT_EQ(run.exit_code, c.code) << c.args << "\n" << run.output;
        if (!c.output.empty()) {
            EXPECT_EQ(run.output, c.output) << c.args;
        }
    }
    const auto flags = test::run_command(tavictl("--json bootflags show", &unit));
    const json shown = json::parse(flags.output, nullptr, false);
    ASSERT_TRUE(shown.is_object()) << flags.output;
    EXPECT_EQ(shown["boot_bank"], bank1);
    EXPECT_EQ(shown["bank_switch_cause"], Flags::to_str(Flags::CAUSE_TAVI_0));
    EXPECT_EQ(lines_of(test::run_command(tavictl("bootflags show --long", &unit)).output).size(),
              7u);
}

TEST_F(TavictlTest, DiagnosticsAccessAndBackendCommandsAgainstTheSampleUnit) {
    std::ifstream file(MURNTAVI_TEST_SOURCE_DIR "/tools/sim/unit.conf");
    TestKit unit({std::string(std::istreambuf_iterator<char>(file), {}), MURNTAVI_RTSUPPORT_LIB});
    ASSERT_TRUE(unit.start()) << unit.error();
    struct Case {
        std::string args;
        int code;
        std::string output;
    };
    const Case cases[] = {
        {"uds request --ecu 17 22f190", 0, "62f190574442393633343033314c393837363534\n"},
        {"--json uds request --ecu 17 1003", 0,
         "{\"address\":\"17\",\"response\":\"5003001901f4\"}\n"},
        {"uds request --ecu 17 3e00", 0, "7f3e11\n"},
        {"uds request --ecu 17 22f1x", 2,
         "tavictl: request: expected an even number of hex digits\n"},
        {"uds request --ecu 17 22f190 --protocol 2", 1, "tavictl: interface not allocated: "},
        {"uds allocate -d 0.1", 0, "allocated\n"},
        {"pgn acquire 61444 --hold 0.1", 0, "token for 61444 granted\n"},
        {"pgn acquire 65280", 1, "tavictl: no token for 65280: Error::ECU_unknown\n"},
        {"pgn release 61444", 0, "token for 61444 released\n"},
        {"maint request --aaf 1 --cid 2", 0, "wartungsinformation = 25000\n"},
        {"acl add-user mqtt alice s3cret", 0, "mqtt user alice added\n"},
        {"acl add-acl mqtt alice --subscribe fleet/# --publish fleet/up --pgn", 0,
         "mqtt access list of alice added\n"},
        {"acl add-user websocket bob pw --port 80", 1,
         "tavictl: websocket user bob added not done: invalid request\n"},
        {"acl rm-user rest carol", 0, "rest user carol removed\n"},
        {"backend send 7 hello --priority 2 --ttl 60", 0, "queued\ndelivered\n"},
        {"--json backend send 7 hello", 0, "[\"queued\",\"delivered\"]\n"},
    };
    for (const auto& c : cases) {
        const auto run = test::run_command(tavictl(c.args, &unit));
        EXPECT_EQ(run.exit_code, c.code) << c.args << "\n" << run.output;
        EXPECT_THAT(run.output, StartsWith(c.output)) << c.args;
    }
    // Content sent to an id the backend echoes comes back to a listener.
    Background listen(tavictl("backend listen 4242 7", &unit));
    ASSERT_TRUE(listen.wait_err("listening")) << listen.err();
    EXPECT_EQ(test::run_command(tavictl("backend send 4242 hi", &unit)).exit_code, 0);
    EXPECT_TRUE(wait_until([&] { return listen.out() == "4242 6869\n"; })) << listen.out();
    EXPECT_EQ(listen.interrupt(), 0);
}

}  // namespace
}  // namespace ecu::tavi::sim
