#include "session.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>

#include "decoder.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/rt/signaladapter.h"

namespace tavictl {

using namespace ecu::tavi;

void add_global_options(CLI::App& app, GlobalOptions& options) {
    const char* const broker = "Broker";
    app.add_option("-c,--config", options.config_file,
                   "Configuration file in the library's format (key = value); options given "
                   "here take precedence over its keys")
        ->check(CLI::ExistingFile)
        ->group(broker);
    app.add_option("-H,--host", options.host, "Broker host (default localhost)")->group(broker);
    app.add_option("-p,--port", options.port, "Broker port (default 1883)")
        ->check(CLI::Range(1, 65535))
        ->group(broker);
    app.add_option("-n,--client-name", options.client_name,
                   "MQTT client name (default tavictl-<pid>)")
        ->group(broker);
    app.add_option("-u,--username", options.username, "Broker login user")->group(broker);
    app.add_option("-P,--password", options.password, "Broker login password")->group(broker);
    app.add_option("--cafile", options.cafile, "TLS: CA certificate file (enables TLS)")
        ->check(CLI::ExistingFile)
        ->group(broker);
    app.add_option("--certfile", options.certfile, "TLS: client certificate file")
        ->check(CLI::ExistingFile)
        ->group(broker);
    app.add_option("--keyfile", options.keyfile, "TLS: client private key file")
        ->check(CLI::ExistingFile)
        ->group(broker);
    app.add_option("--key-password", options.key_password, "TLS: pass phrase of the key")
        ->group(broker);
    app.add_option("-t,--timeout", options.timeout_s,
                   "Seconds to wait for the broker and for every answer")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_flag("-j,--json", options.json, "Machine-readable output (JSON)");
    app.add_option("--rt-support", options.rt_support,
                   "Real-time support library that describes the signal groups "
                   "(default: rt_support_library of --config, else the platform's)")
        ->check(CLI::ExistingFile);
    app.add_option("--log-level", options.log_level,
                   "Level of the library's own log lines on standard error")
        ->check(CLI::IsMember(
            {"EMERG", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"},
            CLI::ignore_case))
        ->capture_default_str();
}

// ---------------------------------------------------------------------------------------
// Ctrl-C

namespace {

std::mutex s_interrupt_mutex;
std::condition_variable s_interrupt_cv;
bool s_interrupted = false;
bool s_streaming = false;

void signal_thread(sigset_t set) {
    int signal_number = 0;
    while (sigwait(&set, &signal_number) == 0) {
        std::lock_guard<std::mutex> lock(s_interrupt_mutex);
        if (!s_streaming) {
            std::fputs("tavictl: interrupted\n", stderr);
            std::_Exit(EXIT_INTERRUPTED);
        }
        s_interrupted = true;
        s_interrupt_cv.notify_all();
    }
}

}  // namespace

void install_interrupt_handling() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread(signal_thread, set).detach();
}

void set_streaming() {
    std::lock_guard<std::mutex> lock(s_interrupt_mutex);
    s_streaming = true;
}

bool wait_interrupted(std::optional<std::chrono::steady_clock::duration> timeout) {
    std::unique_lock<std::mutex> lock(s_interrupt_mutex);
    if (!timeout) {
        s_interrupt_cv.wait(lock, [] { return s_interrupted; });
    } else {
        s_interrupt_cv.wait_for(lock, *timeout, [] { return s_interrupted; });
    }
    return s_interrupted;
}

std::optional<std::chrono::steady_clock::duration> duration_option(double seconds) {
    if (seconds <= 0) {
        return std::nullopt;
    }
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

// ---------------------------------------------------------------------------------------
// Session

namespace {

// Remembers the broker's answer to the connection attempt.
class ConnectWatch : public com::IConnectionObserver {
public:
    void on_connect(int rc) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_rc = rc;
        }
        m_cv.notify_all();
    }
    std::optional<int> wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, timeout, [this] { return m_rc.has_value(); });
        return m_rc;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::optional<int> m_rc;
};

// Keeps the first message that arrives.
class FirstMessage : public com::ISubscriptionObserver {
public:
    void message(const std::string&, const com::Message& message) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_message) {
                m_message = message;
            }
        }
        m_cv.notify_all();
    }
    std::optional<com::Message> wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, timeout, [this] { return m_message.has_value(); });
        return m_message;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::optional<com::Message> m_message;
};

std::string seconds_text(std::chrono::milliseconds timeout) {
    std::ostringstream text;
    text << static_cast<double>(timeout.count()) / 1000.0 << " s";
    return text.str();
}

}  // namespace

Session::~Session() {
    if (m_transport) {
        m_transport->stop();
    }
}

std::chrono::milliseconds Session::timeout() const {
    return std::chrono::milliseconds(static_cast<long long>(std::ceil(m_options.timeout_s * 1000)));
}

// The options go in front of the file: the first occurrence of a key wins.
std::string Session::config_text() const {
    std::ostringstream text;
    auto put = [&](const char* key, const std::string& value) {
        if (!value.empty()) {
            text << key << " = " << value << "\n";
        }
    };
    put("host", m_options.host);
    put("port", m_options.port > 0 ? std::to_string(m_options.port) : "");
    put("client_name", m_options.client_name);
    put("login_username", m_options.username);
    put("login_password", m_options.password);
    if (!m_options.cafile.empty()) {
        put("tls.enable", "true");
    }
    put("tls.cafile", m_options.cafile);
    put("tls.certfile", m_options.certfile);
    put("tls.keyfile", m_options.keyfile);
    put("tls.key.pwd", m_options.key_password);
    if (!m_options.config_file.empty()) {
        std::ifstream file(m_options.config_file);
        if (!file) {
            throw Failure{EXIT_USAGE, "cannot read " + m_options.config_file};
        }
        text << file.rdbuf() << "\n";
    }
    text << "client_name = tavictl-" << ::getpid() << "\n";
    // The tool is nobody's application: its own logging is not remotely controlled.
    text << "disable_remote_log_ctrl = true\n";
    return text.str();
}

com::ITransportClient& Session::transport() {
    return *shared_transport();
}

std::shared_ptr<com::ITransportClient> Session::shared_transport() {
    if (m_transport) {
        return m_transport;
    }
    std::istringstream input(config_text());
    auto config = config::Configuration::create_from_input(input);
    if (!config->verify()) {
        throw Failure{EXIT_USAGE, "the configuration is incomplete"};
    }
    m_config_rt_support = config->get("rt_support_library");
    m_broker = config->get("host") + ":" + config->get("port");
    m_transport = com::create_mqtt_client(config);
    if (!m_transport) {
        throw Failure{EXIT_FAILED, "the library refused to create the transport"};
    }
    return m_transport;
}

void Session::connect() {
    if (m_connected) {
        return;
    }
    auto watch = std::make_shared<ConnectWatch>();
    transport().add_connection_observer(watch);
    transport().start();
    const auto rc = watch->wait(timeout());
    if (!rc) {
        throw Failure{EXIT_UNREACHABLE,
                      "no connection to " + m_broker + " within " + seconds_text(timeout())};
    }
    if (*rc != 0) {
        throw Failure{EXIT_UNREACHABLE,
                      m_broker + " refused the connection (code " + std::to_string(*rc) + ")"};
    }
    m_connected = true;
}

bool Session::connect_ready() {
    connect();
    const auto whole_seconds = std::chrono::duration_cast<std::chrono::seconds>(
        timeout() + std::chrono::milliseconds(999));
    return transport().wait_ready(whole_seconds);
}

void Session::follow(const std::vector<std::string>& filters,
                     const std::shared_ptr<com::ISubscriptionObserver>& observer, const char* doing,
                     std::optional<std::chrono::steady_clock::duration> duration) {
    for (const auto& filter : filters) {
        transport().subscribe(filter, 2, observer);
    }
    const bool ready = connect_ready();
    std::cerr << "tavictl: " << doing << (ready ? "" : " (not every filter is confirmed yet)")
              << ", Ctrl-C ends" << std::endl;
    wait_interrupted(duration);
    for (const auto& filter : filters) {
        transport().unsubscribe(filter, observer);
    }
}

com::Message Session::request(const std::string& request_topic, const com::Message& request,
                              const std::string& reply_topic) {
    auto reply = std::make_shared<FirstMessage>();
    transport().subscribe(reply_topic, 1, reply);
    connect_ready();
    com::Message message(request);
    message.set_qos(1);
    if (transport().publish(request_topic, message) != 0) {
        throw Failure{EXIT_FAILED, "cannot publish on " + request_topic};
    }
    auto answer = reply->wait(timeout());
    transport().unsubscribe(reply_topic, reply);
    if (!answer) {
        throw Failure{EXIT_TIMED_OUT,
                      "no answer on " + reply_topic + " within " + seconds_text(timeout())};
    }
    return *answer;
}

bool Session::load_rt_support() {
    std::string path = m_options.rt_support;
    if (path.empty()) {
        shared_transport();  // reads the configuration
        path = m_config_rt_support;
    }
    if (path.empty()) {
        path = rt::SignalAdapter::c_default_rt_support_library;
        if (const char* root = std::getenv("SDKTARGETSYSROOT")) {
            path = root + path;
        }
    }
    std::string error;
    if (!use_rt_support_library(path, error)) {
        if (!m_options.rt_support.empty()) {
            throw Failure{EXIT_USAGE, error};
        }
        return false;
    }
    return true;
}

void Session::print(const nlohmann::ordered_json& json, const std::string& text) const {
    if (m_options.json) {
        std::cout << json.dump() << std::endl;
    } else {
        std::cout << text << std::flush;
    }
}

}  // namespace tavictl
