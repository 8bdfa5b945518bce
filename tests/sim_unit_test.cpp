// The simulator without a broker: reading and checking unit descriptions, and the errors
// and exit codes of tavi-sim for bad input and an absent broker.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "ecu/tavi/sim/broker.h"
#include "ecu/tavi/sim/simulator.h"
#include "ecu/tavi/sim/unit.h"
#include "support/capture.h"

namespace ecu::tavi::sim {
namespace {

std::shared_ptr<Unit> parse_ok(const std::string& text) {
    std::istringstream in(text);
    auto unit = Unit::parse(in, "unit.conf");
    EXPECT_TRUE(unit.has_value()) << (unit ? "" : unit.error());
    return unit ? unit.value() : std::make_shared<Unit>();
}

std::string parse_error(const std::string& text) {
    std::istringstream in(text);
    auto unit = Unit::parse(in, "unit.conf");
    return unit ? "parsed" : unit.error();
}

TEST(SimUnit, ReadsTheConfigurationSyntax) {
    auto unit = parse_ok(
        "# comment\n"
        "; another comment\n"
        "\n"
        "  Unit.HostName =  tele-sim  # trailing comment\n"
        "ipcd.refused_topics = rt/a , ,rt/b;c,\n"
        "var.empty =\n");
    EXPECT_EQ(unit->get("unit.hostname"), "tele-sim");
    EXPECT_EQ(unit->get_list("ipcd.refused_topics"), (std::vector<std::string>{"rt/a", "rt/b;c"}));
    EXPECT_EQ(unit->get("var.empty"), "");
    EXPECT_EQ(unit->get("var.absent"), "");
    EXPECT_EQ(unit->keys(),
              (std::vector<std::string>{"ipcd.refused_topics", "unit.hostname", "var.empty"}));
    EXPECT_EQ(unit->origin("unit.hostname"), "unit.conf:4");

    unit->set("Unit.Hostname", "tpa-sim");
    EXPECT_EQ(unit->get("unit.hostname"), "tpa-sim");
    EXPECT_EQ(unit->origin("unit.hostname"), "set at run time");
}

TEST(SimUnit, MalformedLinesAndRepeatedKeysAreErrorsWithTheirLine) {
    EXPECT_EQ(parse_error("unit.hostname = a\nthis line has no equals sign\n"),
              "unit.conf:2: expected 'key = value', found 'this line has no equals sign'");
    EXPECT_EQ(parse_error("\n = value\n"), "unit.conf:2: no key in front of '='");
    // Unlike an application's configuration, a second occurrence is not silently dropped.
    EXPECT_EQ(parse_error("var.a = 1\n\nVAR.A = 2\n"),
              "unit.conf:3: key 'var.a' given twice (first on line 1)");

    auto missing = Unit::load("/nonexistent/unit.conf");
    ASSERT_FALSE(missing.has_value());
    EXPECT_EQ(missing.error(),
              "cannot read unit file '/nonexistent/unit.conf': No such file or directory");
}

TEST(SimUnit, CheckNamesUnknownKeysAndBadValuesWithTheirOrigin) {
    Simulator simulator({}, std::make_shared<Unit>());
    auto unit = parse_ok(
        "unit.hostname = tele-1\n"
        "ipcd.refused_topic = rt/a\n"  // misspelt
        "ipcd.refused_topics = rt/a, system/x\n"
        "wifi.ssid = car\n"            // no such section
        "hostname = x\n"               // no section at all
        "uds.answer.17.1003 = 5003\n"  // the UDS daemon's answer table
        "pgn.busy_answers = 2\n");
    auto errors = simulator.check(*unit);
    ASSERT_EQ(errors.size(), 4u) << ::testing::PrintToString(errors);
    EXPECT_EQ(errors[0], "unit.conf:5: unknown key 'hostname'");
    EXPECT_EQ(errors[1],
              "unit.conf:2: unknown key 'ipcd.refused_topic'; the section knows: "
              "ipcd.refused_topics");
    EXPECT_EQ(errors[2], "unit.conf:4: unknown key 'wifi.ssid'");
    EXPECT_EQ(errors[3],
              "unit.conf:3: ipcd.refused_topics: 'system/x' is no real-time topic (rt/...)");

    // The sample shipped with the simulator passes.
    auto sample = Unit::load(MURNTAVI_TEST_SOURCE_DIR "/tools/sim/unit.conf");
    ASSERT_TRUE(sample.has_value()) << sample.error();
    EXPECT_EQ(simulator.check(*sample.value()), std::vector<std::string>{});
}

TEST(SimUnit, ARunTimeChangeThatFailsTheCheckIsRefused) {
    Simulator simulator({}, std::make_shared<Unit>());
    auto refused = simulator.set_unit_value("ipcd.refused_topics", "vekcan/ccvs");
    ASSERT_FALSE(refused.has_value());
    EXPECT_EQ(refused.error(),
              "set at run time: ipcd.refused_topics: 'vekcan/ccvs' is no real-time topic "
              "(rt/...)");
    EXPECT_EQ(simulator.unit().get("ipcd.refused_topics"), "");
    EXPECT_TRUE(simulator.set_unit_value("ipcd.refused_topics", "rt/x").has_value());
    EXPECT_EQ(simulator.unit().get("ipcd.refused_topics"), "rt/x");
    EXPECT_FALSE(simulator.set_silenced("nosuchd", true));
}

// Runs tavi-sim with the arguments; standard output and error together.
test::ProcessRun tavi_sim(const std::string& arguments) {
    return test::run_command(TAVI_SIM " " + arguments);
}

std::string write_file(const std::string& name, const std::string& text) {
    const std::string path = ::testing::TempDir() + name;
    std::ofstream(path) << text;
    return path;
}

// A loopback port that nothing listens on while the socket stays bound but not listening.
struct ClosedPort {
    ClosedPort() {
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        port = ntohs(addr.sin_port);
    }
    ~ClosedPort() { ::close(m_fd); }
    void listen() { ::listen(m_fd, 1); }
    uint16_t port = 0;

private:
    int m_fd;
};

TEST(SimCommandLine, BadInputEndsWithAClearMessageAndItsExitCode) {
    auto help = tavi_sim("--help");
    EXPECT_EQ(help.exit_code, 0);
    for (const char* text :
         {"--unit FILE", "--rt-support", "--connect-timeout", "--broker", "--tls-cafile",
          "ipcd.refused_topics", "unit.hostname", "uds.", "Exit codes:"}) {
        EXPECT_NE(help.output.find(text), std::string::npos) << text;
    }

    const std::string malformed = write_file("malformed.conf", "unit.hostname = a\nbroken\n");
    const std::string unknown = write_file("unknown.conf", "ipcd.relay = on\n");
    const std::string good = write_file("good.conf", "unit.hostname = tele-1\n");
    const struct {
        std::string arguments;
        int exit_code;
        std::string text;
    } cases[] = {
        {"--port 1883", 2, "no unit description given (--unit FILE)"},
        {"--unit x --port 70000", 2, "--port: '70000' is no port number"},
        {"--unit /nonexistent/unit.conf", 3,
         "tavi-sim: cannot read unit file '/nonexistent/unit.conf'"},
        {"--unit " + malformed, 3, malformed + ":2: expected 'key = value', found 'broken'"},
        {"--unit " + unknown + " --check", 3, unknown + ":1: unknown key 'ipcd.relay'"},
        {"--unit " + good + " --check", 0, ""},
        {"--unit " + good + " --rt-support /nonexistent/librt.so", 6,
         "ipcd: cannot load the real-time support library"},
    };
    for (const auto& c : cases) {
        const auto run = tavi_sim(c.arguments);
        EXPECT_EQ(run.exit_code, c.exit_code) << c.arguments;
        EXPECT_NE(run.output.find(c.text), std::string::npos) << run.output;
    }
}

TEST(SimCommandLine, AnAbsentBrokerOrATakenPortEndsWithItsExitCode) {
    const std::string good = write_file("good.conf", "unit.hostname = tele-1\n");
    ClosedPort closed;
    auto absent = tavi_sim("--unit " + good + " --host 127.0.0.1 --port " +
                           std::to_string(closed.port) + " --connect-timeout 1");
    EXPECT_EQ(absent.exit_code, 4);
    EXPECT_NE(absent.output.find("tavi-sim: broker 127.0.0.1:" + std::to_string(closed.port) +
                                 " unreachable: no connection within 1 s"),
              std::string::npos)
        << absent.output;

    if (!Broker::available()) {
        GTEST_SKIP() << "mosquitto is not installed";
    }
    closed.listen();
    auto taken = tavi_sim("--unit " + good + " --broker --host 127.0.0.1 --port " +
                          std::to_string(closed.port));
    EXPECT_EQ(taken.exit_code, 5);
    EXPECT_NE(taken.output.find("cannot start the broker: port " + std::to_string(closed.port) +
                                " on 127.0.0.1 is already in use"),
              std::string::npos)
        << taken.output;
}

}  // namespace
}  // namespace ecu::tavi::sim
