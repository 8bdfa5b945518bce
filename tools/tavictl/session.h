// What every tavictl command shares: the global options, the connection to the broker with
// its deadlines, the exit codes with their one-line messages, and Ctrl-C.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/transport.h"

namespace CLI {
class App;
}

namespace tavictl {

enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,       // the service refused or failed, or a file is unusable
    EXIT_USAGE = 2,        // the command line is wrong
    EXIT_TIMED_OUT = 3,    // no answer within --timeout
    EXIT_UNREACHABLE = 4,  // no connection to the broker
    EXIT_INTERRUPTED = 130,
};

// Ends the command: main prints "tavictl: " + message on standard error and exits with code.
struct Failure {
    ExitCode code;
    std::string message;
};

struct GlobalOptions {
    std::string config_file;
    std::string host;
    int port = 0;
    std::string client_name;
    std::string username;
    std::string password;
    std::string cafile;
    std::string certfile;
    std::string keyfile;
    std::string key_password;
    std::string rt_support;
    double timeout_s = 5.0;
    bool json = false;
    std::string log_level = "EMERG";
};

// Adds the global options to the top-level command.
void add_global_options(CLI::App& app, GlobalOptions& options);

// Blocks SIGINT and SIGTERM in every thread and handles them on a thread of their own: a
// command that streams (watch, record, replay, scans) waits for them with wait_interrupted;
// any other command ends at once with EXIT_INTERRUPTED. Call before any thread starts.
void install_interrupt_handling();
// Marks the running command as one that ends cleanly on Ctrl-C.
void set_streaming();
// Waits until Ctrl-C or, with a time, until it has passed; true when interrupted.
bool wait_interrupted(std::optional<std::chrono::steady_clock::duration> timeout);
// A --duration option given in seconds: none (until Ctrl-C) when it is not positive.
std::optional<std::chrono::steady_clock::duration> duration_option(double seconds);

class Session {
public:
    // Reads the options when the command runs, after the command line is parsed.
    explicit Session(const GlobalOptions& options) : m_options(options) {}
    // Disconnects.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const GlobalOptions& options() const { return m_options; }
    std::chrono::milliseconds timeout() const;

    // The transport, made on first use from the options and --config; not connected yet,
    // so that subscriptions made now are sent with the first connection.
    ecu::tavi::com::ITransportClient& transport();
    std::shared_ptr<ecu::tavi::com::ITransportClient> shared_transport();
    // Starts the transport and waits for the broker's acknowledgement; Failure
    // EXIT_UNREACHABLE when there is none within the time-out.
    void connect();
    // connect(), then waits until every subscription is acknowledged; false when that did
    // not happen within the time-out (real-time filters the IPC daemon does not offer are
    // never confirmed).
    bool connect_ready();

    // Subscribes the observer to every filter (QoS 2, so that messages keep the QoS they
    // were published with), says on standard error that it is doing so, and waits for
    // Ctrl-C or the duration; then unsubscribes.
    void follow(const std::vector<std::string>& filters,
                const std::shared_ptr<ecu::tavi::com::ISubscriptionObserver>& observer,
                const char* doing,
                std::optional<std::chrono::steady_clock::duration> duration = std::nullopt);

    // Publishes request on request_topic and returns the first message on reply_topic;
    // Failure EXIT_TIMED_OUT when none arrives within the time-out.
    ecu::tavi::com::Message request(const std::string& request_topic,
                                    const ecu::tavi::com::Message& request,
                                    const std::string& reply_topic);

    // Loads the real-time support library (--rt-support, the configuration's
    // "rt_support_library", or the platform's default) for the signal adapter; false when
    // there is none, and real-time groups then stay undecoded.
    bool load_rt_support();

    // Writes a result: the JSON with --json, the text otherwise.
    void print(const nlohmann::ordered_json& json, const std::string& text) const;

private:
    std::string config_text() const;

    const GlobalOptions& m_options;
    std::string m_config_rt_support;
    std::string m_broker;  // host:port, for messages
    std::shared_ptr<ecu::tavi::com::ITransportClient> m_transport;
    bool m_connected = false;
};

}  // namespace tavictl
