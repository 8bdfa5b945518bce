// tavi-sim: plays the daemons of a telematics unit over an MQTT broker, so that
// applications built on the library run off-target. A thin main around libmurntavi-sim.
#include <getopt.h>
#include <signal.h>
#include <strings.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/sim/broker.h"
#include "ecu/tavi/sim/simulator.h"
#include "ecu/tavi/sim/unit.h"

using namespace ecu::tavi;

namespace {

// Exit codes besides the simulator's own (SimulatorError::Code).
enum Exit : int { STOPPED = 0, USAGE = 2, UNIT = 3, BROKER_START = 5 };

const char* const kUsage = R"(Usage: tavi-sim --unit FILE [OPTIONS]

Plays the daemons of a vehicle telematics unit over an MQTT broker, as the unit
description FILE says, so that applications built on libmurntavi run off-target.
Runs until SIGINT or SIGTERM.

Unit:
  -u, --unit FILE          unit description ("key = value" lines, keys below)
  -r, --rt-support FILE    real-time support library whose topics the IPC daemon
                           offers; without it, it offers every topic announced
      --check              check the unit description and exit

Broker connection (in brackets the library's configuration key it sets):
  -H, --host HOST          broker host [host] (default localhost)
  -p, --port PORT          broker port [port] (default 1883)
      --username USER      [login_username]
      --password PASS      [login_password]; TAVI_SIM_PASSWORD in the environment
                           is read when this option is absent
      --mqtt-version V     3.1 or 3.1.1 [mqtt_version]
      --tls-cafile FILE    [tls.cafile]; every --tls-* option turns TLS on [tls.enable]
      --tls-capath DIR     [tls.capath]
      --tls-certfile FILE  [tls.certfile]
      --tls-keyfile FILE   [tls.keyfile]
      --tls-key-pwd PASS   [tls.key.pwd]
      --tls-version V      [tls.version]
      --tls-ciphers LIST   [tls.ciphers]
      --connect-timeout S  give up when a daemon is not connected after S seconds,
                           retrying every second meanwhile (default 10)
      --broker             first start a private mosquitto listening on HOST:PORT
                           (PORT 0 picks a free one) and stop it on exit; it has
                           mosquitto's dynamic security plugin, so that MQTT users
                           created through aclifd are real
      --dynsec-user USER   administrator of the broker's dynamic security plugin,
                           with whom aclifd creates MQTT users; the password is
                           read from TAVI_SIM_DYNSEC_PASSWORD in the environment

Output:
      --log-level LEVEL    EMERG, ALERT, CRITICAL, ERROR, WARNING, NOTICE, INFO,
                           DEBUG or 0..7 (default NOTICE)
  -h, --help               this text

Once every daemon is connected it prints "tavi-sim: ready ..." on standard output.

Exit codes:
  0  stopped by SIGINT or SIGTERM (or --check passed)
  2  bad command line
  3  unit description missing or malformed
  4  broker unreachable, or it refused the connection
  5  --broker: the port is already in use, or mosquitto did not start
  6  a daemon could not be prepared (e.g. the real-time support library)
)";

struct Arguments {
    std::string unit_file;
    sim::SimulatorOptions simulator;
    bool check_only = false;
    bool start_broker = false;
    int log_level = 5;
};

std::optional<int> parse_level(const std::string& text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '7') {
        return text[0] - '0';
    }
    for (int level = 0; level <= 7; ++level) {
        if (::strcasecmp(text.c_str(), logging::level_name(level)) == 0) {
            return level;
        }
    }
    return std::nullopt;
}

bool parse_number(const std::string& text, long max, long& value) {
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= 0 && value <= max;
}

// Fills args; returns an exit code when the program should end at once.
std::optional<int> parse_arguments(int argc, char** argv, Arguments& args) {
    enum Long : int {
        USERNAME = 256,
        PASSWORD,
        MQTT_VERSION,
        TLS_CAFILE,
        TLS_CAPATH,
        TLS_CERTFILE,
        TLS_KEYFILE,
        TLS_KEY_PWD,
        TLS_VERSION,
        TLS_CIPHERS,
        CONNECT_TIMEOUT,
        BROKER,
        DYNSEC_USER,
        CHECK,
        LOG_LEVEL,
    };
    static const option kOptions[] = {
        {"unit", required_argument, nullptr, 'u'},
        {"rt-support", required_argument, nullptr, 'r'},
        {"check", no_argument, nullptr, CHECK},
        {"host", required_argument, nullptr, 'H'},
        {"port", required_argument, nullptr, 'p'},
        {"username", required_argument, nullptr, USERNAME},
        {"password", required_argument, nullptr, PASSWORD},
        {"mqtt-version", required_argument, nullptr, MQTT_VERSION},
        {"tls-cafile", required_argument, nullptr, TLS_CAFILE},
        {"tls-capath", required_argument, nullptr, TLS_CAPATH},
        {"tls-certfile", required_argument, nullptr, TLS_CERTFILE},
        {"tls-keyfile", required_argument, nullptr, TLS_KEYFILE},
        {"tls-key-pwd", required_argument, nullptr, TLS_KEY_PWD},
        {"tls-version", required_argument, nullptr, TLS_VERSION},
        {"tls-ciphers", required_argument, nullptr, TLS_CIPHERS},
        {"connect-timeout", required_argument, nullptr, CONNECT_TIMEOUT},
        {"broker", no_argument, nullptr, BROKER},
        {"dynsec-user", required_argument, nullptr, DYNSEC_USER},
        {"log-level", required_argument, nullptr, LOG_LEVEL},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    auto& connection = args.simulator.connection;
    auto tls = [&connection](const char* key) {
        connection["tls.enable"] = "true";
        connection[key] = optarg;
    };
    int option = 0;
    while ((option = ::getopt_long(argc, argv, "u:r:H:p:h", kOptions, nullptr)) != -1) {
        long number = 0;
        switch (option) {
            case 'u':
                args.unit_file = optarg;
                break;
            case 'r':
                args.simulator.rt_support_library = optarg;
                break;
            case CHECK:
                args.check_only = true;
                break;
            case 'H':
                connection["host"] = optarg;
                break;
            case 'p':
                if (!parse_number(optarg, 65535, number)) {
                    std::cerr << "tavi-sim: --port: '" << optarg << "' is no port number\n";
                    return USAGE;
                }
                connection["port"] = std::to_string(number);
                break;
            case USERNAME:
                connection["login_username"] = optarg;
                break;
            case PASSWORD:
                connection["login_password"] = optarg;
                break;
            case MQTT_VERSION:
                connection["mqtt_version"] = optarg;
                break;
            case TLS_CAFILE:
                tls("tls.cafile");
                break;
            case TLS_CAPATH:
                tls("tls.capath");
                break;
            case TLS_CERTFILE:
                tls("tls.certfile");
                break;
            case TLS_KEYFILE:
                tls("tls.keyfile");
                break;
            case TLS_KEY_PWD:
                tls("tls.key.pwd");
                break;
            case TLS_VERSION:
                tls("tls.version");
                break;
            case TLS_CIPHERS:
                tls("tls.ciphers");
                break;
            case CONNECT_TIMEOUT:
                if (!parse_number(optarg, 3600, number) || number == 0) {
                    std::cerr << "tavi-sim: --connect-timeout: '" << optarg
                              << "' is no number of seconds from 1 to 3600\n";
                    return USAGE;
                }
                args.simulator.connect_timeout = std::chrono::seconds(number);
                break;
            case BROKER:
                args.start_broker = true;
                break;
            case DYNSEC_USER:
                args.simulator.dynsec_username = optarg;
                if (const char* password = std::getenv("TAVI_SIM_DYNSEC_PASSWORD")) {
                    args.simulator.dynsec_password = password;
                }
                break;
            case LOG_LEVEL: {
                auto level = parse_level(optarg);
                if (!level) {
                    std::cerr << "tavi-sim: --log-level: unknown level '" << optarg << "'\n";
                    return USAGE;
                }
                args.log_level = *level;
                break;
            }
            case 'h':
                return -1;
            default:
                std::cerr << "Try 'tavi-sim --help'.\n";
                return USAGE;
        }
    }
    if (optind < argc) {
        std::cerr << "tavi-sim: unexpected argument '" << argv[optind]
                  << "'\nTry 'tavi-sim --help'.\n";
        return USAGE;
    }
    if (args.unit_file.empty()) {
        std::cerr << "tavi-sim: no unit description given (--unit FILE)\n"
                  << "Try 'tavi-sim --help'.\n";
        return USAGE;
    }
    if (connection.count("login_password") == 0 && std::getenv("TAVI_SIM_PASSWORD") != nullptr) {
        connection["login_password"] = std::getenv("TAVI_SIM_PASSWORD");
    }
    return std::nullopt;
}

void print_help(const sim::Simulator& simulator) {
    std::cout << kUsage << "\nUnit description keys (a key ending in \".\" names a family):\n";
    for (const auto& key : simulator.unit_keys()) {
        std::cout << "  " << key.key << "\n      " << key.description << "\n";
    }
}

std::string value_or(const sim::SimulatorOptions& options, const char* key, const char* fallback) {
    auto it = options.connection.find(key);
    return it == options.connection.end() ? fallback : it->second;
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before any thread starts, so every thread inherits the mask and the signals
    // wait for sigwait below instead of interrupting a daemon.
    sigset_t stop_signals;
    ::sigemptyset(&stop_signals);
    ::sigaddset(&stop_signals, SIGINT);
    ::sigaddset(&stop_signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    Arguments args;
    if (auto done = parse_arguments(argc, argv, args)) {
        if (*done == -1) {
            print_help(sim::Simulator({}, std::make_shared<sim::Unit>()));
            return STOPPED;
        }
        return *done;
    }

    logging::set_log_mode(logging::STDOUT);
    logging::set_log_level(args.log_level);
    logging::enable("tavi.sim", true);

    auto unit = sim::Unit::load(args.unit_file);
    if (!unit) {
        std::cerr << "tavi-sim: " << unit.error() << "\n";
        return UNIT;
    }
    // Checked before anything starts; the simulator proper is made once the broker's
    // address is final.
    sim::Simulator checker(args.simulator, unit.value());
    auto faults = checker.check(*unit.value());
    if (!faults.empty()) {
        for (const auto& fault : faults) {
            std::cerr << "tavi-sim: " << fault << "\n";
        }
        return UNIT;
    }
    if (args.check_only) {
        std::cout << "tavi-sim: " << args.unit_file << " is a valid unit description\n";
        return STOPPED;
    }

    std::unique_ptr<sim::Broker> broker;
    if (args.start_broker) {
        sim::BrokerOptions broker_options;
        broker_options.host = value_or(args.simulator, "host", "127.0.0.1");
        broker_options.port =
            static_cast<uint16_t>(std::stoi(value_or(args.simulator, "port", "1883")));
        broker_options.dynamic_security = true;
        broker = std::make_unique<sim::Broker>(broker_options);
        if (!broker->start()) {
            std::cerr << "tavi-sim: cannot start the broker: " << broker->error() << "\n";
            return BROKER_START;
        }
        args.simulator.connection["host"] = broker->host();
        args.simulator.connection["port"] = std::to_string(broker->port());
        args.simulator.dynsec_username = sim::Broker::dynsec_admin();
        args.simulator.dynsec_password = sim::Broker::dynsec_secret();
    }

    sim::Simulator simulator(args.simulator, unit.value());
    auto started = simulator.start();
    if (!started) {
        std::cerr << "tavi-sim: " << started.error().message << "\n";
        return started.error().code;
    }
    std::cout << "tavi-sim: ready on " << value_or(args.simulator, "host", "localhost") << ":"
              << value_or(args.simulator, "port", "1883") << ", daemons:";
    for (const auto& name : simulator.daemon_names()) {
        std::cout << " " << name;
    }
    const std::string hostname = unit.value()->get("unit.hostname");
    if (!hostname.empty()) {
        std::cout << ", unit " << hostname;
    }
    std::cout << std::endl;

    int signal = 0;
    ::sigwait(&stop_signals, &signal);
    std::cout << "tavi-sim: stopping on " << (signal == SIGINT ? "SIGINT" : "SIGTERM") << std::endl;
    simulator.stop();
    if (broker) {
        broker->stop();
    }
    return STOPPED;
}
