// The demo application: a walk through the library as an application uses it, against a
// unit or the platform simulator (tavi-sim). It reads and verifies its configuration,
// configures logging, creates the transport, connects, starts, waits until it is ready,
// then runs one step per feature and prints a line for each: outcome, time, what it saw.
//
//   tavi-demo <configuration file>
//
// Exit code 0 when every step is OK, 1 when a step failed, 2 when the configuration is
// unusable.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/bt/bluetooth.h"
#include "ecu/tavi/com/acl.h"
#include "ecu/tavi/com/backend.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/diag/maintreq_client.h"
#include "ecu/tavi/diag/pgn_client.h"
#include "ecu/tavi/diag/uds_client.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "ecu/tavi/platform/bootflags.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/var/sysparams.h"
#include "ecu/tavi/var/variables.h"

using namespace ecu::tavi;
using namespace std::chrono_literals;

namespace {

// A real-time group every support library of a truck carries: cruise control and speed.
const char* const kRtTopic = "rt/vekcan/rx/ccvs";
const auto kAnswerTimeout = 5s;

// Keeps the latest message of each topic for a step that waits for it. message() runs on
// the transport's network thread, wait() on the demo's own.
class Inbox : public com::ISubscriptionObserver {
public:
    void message(const std::string& topic, const com::Message& message) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_messages[topic] = message;
        }
        m_cv.notify_all();
    }

    // Takes the message that arrived on topic, waiting for it until the time-out.
    std::optional<com::Message> wait(const std::string& topic, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, timeout, [&] { return m_messages.count(topic) > 0; })) {
            return std::nullopt;
        }
        com::Message message = m_messages[topic];
        m_messages.erase(topic);
        return message;
    }

    void clear(const std::string& topic) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.erase(topic);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::map<std::string, com::Message> m_messages;
};

struct Outcome {
    bool ok;
    std::string detail;
};

// Runs the steps and prints one line each.
class Report {
public:
    bool run(const std::string& name, const std::function<Outcome()>& step) {
        const auto begin = std::chrono::steady_clock::now();
        const Outcome outcome = step();
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - begin;
        std::printf("  %-4s  %-22s %8.1f ms  %s\n", outcome.ok ? "OK" : "FAIL", name.c_str(),
                    took.count(), outcome.detail.c_str());
        std::fflush(stdout);
        ++m_steps;
        m_failed += outcome.ok ? 0 : 1;
        return outcome.ok;
    }

    void skip(const std::string& name, const std::string& why) {
        std::printf("  %-4s  %-22s %11s  %s\n", "SKIP", name.c_str(), "", why.c_str());
        ++m_steps;
        ++m_failed;
    }

    int finish() const {
        std::printf("demo: %d of %d steps OK\n", m_steps - m_failed, m_steps);
        return m_failed == 0 ? 0 : 1;
    }

private:
    int m_steps = 0;
    int m_failed = 0;
};

// Asks the application's own remote log control over the broker, as a tool would, and
// returns its answer: the complete log configuration.
std::optional<pb::LogConfig> ask_log_control(com::ITransportClient& transport, Inbox& inbox,
                                             const std::string& client,
                                             const pb::LogConfig& request) {
    const std::string reply_topic = "app/" + client + "/log/config";
    com::PbInternalMessageAdapter<pb::LogConfig> adapter(com::PROTOCOL_LOG_CONFIG);
    auto framed = adapter.serialize(request);
    if (!framed) {
        return std::nullopt;
    }
    com::Message message = framed.value();
    message.set_qos(1);
    inbox.clear(reply_topic);
    if (transport.publish("app/" + client + "/log/configure", message) != 0) {
        return std::nullopt;
    }
    auto reply = inbox.wait(reply_topic, kAnswerTimeout);
    if (!reply) {
        return std::nullopt;
    }
    auto config = adapter.deserialize(*reply);
    if (!config) {
        return std::nullopt;
    }
    return config.value();
}

Outcome query_log_config(com::ITransportClient& transport, Inbox& inbox,
                         const std::string& client) {
    auto reply = ask_log_control(transport, inbox, client, pb::LogConfig());
    if (!reply) {
        return {false, "no answer on app/" + client + "/log/config"};
    }
    return {true, std::string("level ") + logging::level_name(reply->level()) + ", mode " +
                      pb::LogConfig::LogMode_Name(reply->mode()) + ", " +
                      std::to_string(reply->modules_size()) + " modules"};
}

Outcome change_log_level(com::ITransportClient& transport, Inbox& inbox,
                         const std::string& client) {
    const int before = logging::get_log_level();
    const int wanted = before == 6 ? 7 : 6;  // INFO, or DEBUG when it is INFO already
    pb::LogConfig request;
    request.set_level(static_cast<pb::LogConfig::LogLevel>(wanted));
    auto reply = ask_log_control(transport, inbox, client, request);
    const int now = logging::get_log_level();
    logging::set_log_level(before);
    if (!reply) {
        return {false, "no answer on app/" + client + "/log/config"};
    }
    if (reply->level() != wanted || now != wanted) {
        return {false, std::string("asked for ") + logging::level_name(wanted) +
                           ", the reply says " + logging::level_name(reply->level())};
    }
    return {true, std::string("level ") + logging::level_name(before) + " -> " +
                      logging::level_name(wanted) + " (reply agrees), restored"};
}

Outcome rt_round_trip(com::ITransportClient& transport, Inbox& inbox,
                      const std::string& support_library) {
    if (::access(support_library.c_str(), R_OK) != 0) {
        return {false, "cannot read the real-time support library '" + support_library + "'"};
    }
    rt::SignalAdapter::enforce_support_lib(support_library);
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    auto sent = adapter.create_sg(kRtTopic);
    if (!sent) {
        return {false, std::string("the support library has no group ") + kRtTopic};
    }
    sent->set_signal_scaled_value("wheel_based_vehicle_speed", 87.5);
    sent->set_signal_scaled_value("cruise_control_active", 1);
    sent->set_signal_scaled_value("brake_switch", 0);
    sent->set_signal_scaled_value("parking_brake_switch", 0);
    sent->set_signal_scaled_value("clutch_switch", 0);
    auto packed = adapter.pack(*sent);
    if (!packed) {
        return {false, packed.error().message};
    }
    inbox.clear(kRtTopic);
    // The transport publishes it on "rttx/..."; only the IPC daemon brings it to "rt/...".
    if (const int rc = transport.publish(kRtTopic, packed.value()); rc != 0) {
        return {false, "publish failed with code " + std::to_string(rc)};
    }
    auto received = inbox.wait(kRtTopic, kAnswerTimeout);
    if (!received) {
        return {false, std::string("nothing came back on ") + kRtTopic};
    }
    auto back = adapter.unpack(kRtTopic, *received);
    if (!back) {
        return {false, back.error().message};
    }
    if (back.value() != *sent) {
        return {false, "the group came back changed"};
    }
    const auto speed = back.value().signal("wheel_based_vehicle_speed")->value_scaled();
    char detail[128];
    std::snprintf(detail, sizeof(detail), "%s: %zu signals back unchanged, speed %.1f km/h",
                  back.value().name().c_str(), back.value().signals().size(), speed.value);
    return {true, detail};
}

// Diagnostics: the interface every unit has on CAN 1, the VIN read through it, and the bus
// token and maintenance exchange of the service-interval display.
const diag::UdsInterfaceAllocationConfig kUdsCan1{1, 1, 0};
constexpr unsigned kDiagTimeoutMs = 5000;

Outcome read_vin(diag::UdsClient& uds) {
    // ReadDataByIdentifier F190 to the engine ECU; the answer repeats 62 F1 90 before the VIN.
    const auto answer = uds.send_request({0x17, {0x22, 0xf1, 0x90}}, kDiagTimeoutMs, 0xFF, 255);
    if (!answer) {
        return {false, "request failed with code " + std::to_string(answer.error())};
    }
    const auto& data = answer.value().data;
    if (data.size() < 3 || data[0] != 0x62) {
        return {false, "negative or short answer (" + std::to_string(data.size()) + " bytes)"};
    }
    return {true, "VIN " + std::string(data.begin() + 3, data.end())};
}

Outcome take_pgn_token(diag::PgnRequestClient& pgn) {
    const auto token = pgn.get_request_token("65226", std::chrono::seconds(5));
    if (!token) {
        return {false, diag::PgnRequestClient::error_str(token.error())};
    }
    pgn.release_token("65226");
    return {true, "token for PGN 65226 taken and released"};
}

Outcome maintenance_request(diag::MaintenanceRequestClient& maint,
                            const std::string& support_library) {
    if (::access(support_library.c_str(), R_OK) != 0) {
        return {false, "cannot read the real-time support library '" + support_library + "'"};
    }
    diag::MaintenanceRequestClient::Request request;
    request.cid = 1;
    request.abfragetyp = 2;
    const auto answer = maint.request(request, kDiagTimeoutMs);
    if (!answer) {
        return {false, answer.error()};
    }
    const auto& response = answer.value();
    return {true, "cid " + std::to_string(response.cid) + ", service information " +
                      std::to_string(response.wartungsinformation) + ", status " +
                      std::to_string(response.statusdaten) + ", " +
                      std::to_string(response.weiteretermine) + " further dates"};
}

// --- Platform services: variables, system parameters, boot flags, Bluetooth -------------

// The clients of the platform services, made before connecting so that their retained
// state is in by the time the steps run.
struct PlatformClients {
    std::shared_ptr<var::VariablesClient> vars;
    std::shared_ptr<var::SysParamsClient> params;
    std::shared_ptr<platform::BootFlagsClient> flags;
    std::shared_ptr<bt::BluetoothClient> bt;
};

Outcome read_variables(var::VariablesClient& vars) {
    const std::string hw = vars.get("hwversion", "", 2000);
    const std::string missing = vars.get("no_such_variable", "<default>", 200);
    if (hw.empty() || missing != "<default>") {
        return {false, "hwversion '" + hw + "', no_such_variable '" + missing + "'"};
    }
    return {true, "hwversion = " + hw + ", no_such_variable = " + missing + " (default)"};
}

Outcome change_sysparam(var::SysParamsClient& params) {
    params.set_receive_timeout(2000);
    auto table = params.get_all(true);
    if (table.empty()) {
        return {false, "no table on system/sysparams"};
    }
    auto& entry = table.begin()->second;
    const std::string before = entry.value();
    entry.set_value(before + "0");
    params.set_all(table);
    const auto written = params.write();
    entry.set_value(before);  // put the unit back as it was
    params.set_all(table);
    const auto restored = params.write();
    if (!written.success || !restored.success) {
        return {false, "write status " + std::to_string(written.status) + ", restore status " +
                           std::to_string(restored.status)};
    }
    return {true, std::to_string(table.size()) + " parameters; " + entry.name() + " " + before +
                      " -> " + before + "0 verified, restored"};
}

Outcome show_boot_flags(platform::BootFlagsClient& flags) {
    if (!flags.current_bank().first) {
        return {false, "no flags on system/bootflags"};
    }
    std::istringstream lines(flags.boot_flags_string(true));
    for (std::string line; std::getline(lines, line);) {
        std::printf("        %s\n", line.c_str());
    }
    return {true, flags.boot_flags_string(false)};
}

Outcome switch_banks(platform::BootFlagsClient& flags) {
    using Flags = platform::BootFlagsClient;
    const auto running = flags.current_bank().second;
    const auto result = flags.switch_bank(Flags::CAUSE_TAVI);
    if (result != Flags::SET_SUCCESSFUL) {
        return {false, Flags::to_str(result)};
    }
    return {true, std::string("bank ") + Flags::to_str(flags.selected_bank().second) +
                      " selected for the next boot (running " + Flags::to_str(running) + ")"};
}

// Keeps the devices of the latest scan results.
class DeviceList : public bt::IDiscoveryObserver {
public:
    void discovery_result(const bt::DiscoveryResult& result) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_devices = result.devices();
        }
        m_cv.notify_all();
    }
    std::vector<bt::Device> wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, timeout, [&] { return !m_devices.empty(); });
        return m_devices;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<bt::Device> m_devices;
};

Outcome bluetooth_scan(bt::BluetoothClient& client) {
    if (!client.available() || !client.operational()) {
        return {false, "the Bluetooth service is not operational"};
    }
    auto devices = std::make_shared<DeviceList>();
    auto discovery = client.discovery_manager();
    discovery->register_observer(devices);
    if (!discovery->start_scan()) {
        return {false, "the discovery did not start"};
    }
    const auto found = devices->wait(2s);
    const bool stopped = discovery->stop_scan();
    std::string detail = "operational; found";
    for (const auto& device : found) {
        detail += " " + device.name() + " (" + device.address() + ", " +
                  std::to_string(device.rssi()) + " dBm)";
    }
    return {!found.empty() && stopped, found.empty() ? "no device found" : detail};
}

// --- Access control: a broker user with an access list, proven by logging in as it ------

// The user logs in under its own name as client name, which "%c" stands for.
const char* const kDemoUser = "tavidemo";

struct DemoUser {
    std::string password;
    std::shared_ptr<com::AclClient> acl;
};

Outcome acl_create_user(std::shared_ptr<com::ITransportClient>& transport, DemoUser& user) {
    auto created = com::create_acl_client(transport);
    if (!created.first) {
        return {false, "no ACL client: the unit's hwversion is not vcm (see the log)"};
    }
    user.acl = created.second;
    user.password = "pw" + std::to_string(std::random_device()());
    if (!user.acl->add_mqtt_user(kDemoUser, user.password).has_value()) {
        return {false, std::string("aclifd did not create the user ") + kDemoUser};
    }
    if (!user.acl->add_mqtt_acl(kDemoUser, {"demo/%c/inbox"}, {"demo/outbox"}, {}).has_value()) {
        return {false, "aclifd did not grant the access list"};
    }
    return {true, std::string("user ") + kDemoUser +
                      ": subscribe demo/%c/inbox, publish demo/outbox (+ log control)"};
}

Outcome acl_log_in_as_user(com::ITransportClient& transport, const std::shared_ptr<Inbox>& inbox,
                           config::Configuration& configuration, const DemoUser& user) {
    const std::string own_inbox = std::string("demo/") + kDemoUser + "/inbox";
    std::istringstream text(
        "client_name = " + std::string(kDemoUser) + "\nhost = " + configuration.get("host") +
        "\nport = " + configuration.get("port") + "\nlogin_username = " + kDemoUser +
        "\nlogin_password = " + user.password + "\n");
    auto user_config = config::Configuration::create_from_input(text);
    user_config->verify();
    auto as_user = com::create_mqtt_client(user_config);
    auto user_inbox = std::make_shared<Inbox>();
    as_user->subscribe("demo/other/inbox", 0, user_inbox);  // not on its list
    as_user->subscribe(own_inbox, 0, user_inbox);
    auto connecting = std::async(std::launch::async, [&] { return as_user->connect(); });
    if (connecting.wait_for(kAnswerTimeout) != std::future_status::ready || !connecting.get()) {
        as_user->disconnect();
        connecting.wait();
        return {false, std::string("the broker did not let ") + kDemoUser + " log in"};
    }
    as_user->start();
    transport.subscribe("demo/#", 0, inbox);
    std::string failure;
    if (!as_user->wait_ready(10s) || !transport.wait_ready(10s)) {
        failure = "subscriptions not acknowledged";
    }
    const com::Message data("demo", 4);
    // Each refused message goes first: once the allowed one is through, the other would
    // have been as well.
    transport.publish("demo/other/inbox", data);
    transport.publish(own_inbox, data);
    if (failure.empty() && !user_inbox->wait(own_inbox, kAnswerTimeout)) {
        failure = "nothing arrived on " + own_inbox;
    } else if (failure.empty() && user_inbox->wait("demo/other/inbox", 0ms)) {
        failure = "the user received demo/other/inbox, which its list does not allow";
    }
    as_user->publish("demo/secret", data);
    as_user->publish("demo/outbox", data);
    if (failure.empty() && !inbox->wait("demo/outbox", kAnswerTimeout)) {
        failure = "the user's demo/outbox did not arrive";
    } else if (failure.empty() && inbox->wait("demo/secret", 0ms)) {
        failure = "the user could publish on demo/secret, which its list does not allow";
    }
    as_user->stop();
    transport.unsubscribe("demo/#", inbox);
    user.acl->rm_mqtt_user(kDemoUser);
    if (!failure.empty()) {
        return {false, failure};
    }
    return {true, "logged in as " + std::string(kDemoUser) + ": " + own_inbox +
                      " and demo/outbox pass, demo/other/inbox and demo/secret refused"};
}

// --- Backend: content out through the proxy, results and the backend's echo back -------

// A content id the sample unit's backend echoes (backend.echo_content_ids).
const unsigned int kEchoContentId = 4242;

Outcome backend_round_trip(std::shared_ptr<com::ITransportClient>& transport) {
    auto backend = com::create_be_client(transport);
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<int> statuses;
    std::string echoed;
    backend->add_content_callback(kEchoContentId, [&](unsigned int, const com::Message& m) {
        std::lock_guard<std::mutex> lock(mutex);
        echoed.assign(m.get_data().begin(), m.get_data().end());
        cv.notify_all();
    });
    if (!transport->wait_ready(10s)) {
        return {false, "content subscription not acknowledged"};
    }
    const std::string content = "hello backend";
    com::BackendClient::TxOptions options;
    options.ttl_s = 60;
    options.response_callback = [&](std::uint64_t, int status) {
        std::lock_guard<std::mutex> lock(mutex);
        statuses.push_back(status);
        cv.notify_all();
    };
    const auto id =
        backend->publish(com::Message(content.data(), content.size()), kEchoContentId, options);
    if (id == 0) {
        return {false, "publish failed"};
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!cv.wait_for(lock, kAnswerTimeout,
                     [&] { return statuses.size() >= 2 && !echoed.empty(); })) {
        return {false, "request " + std::to_string(id) + ": " + std::to_string(statuses.size()) +
                           " statuses, " + (echoed.empty() ? "no echo" : "echo") +
                           " (is beproxyd running?)"};
    }
    // Content callbacks run with the client's mutex held and take ours, so ours is let go
    // before calling into the client again.
    lock.unlock();
    const bool proxy_connected = backend->is_connected();
    lock.lock();
    auto name = [](int status) {
        return pb::BackendProxyResponse::Status_Name(
            static_cast<pb::BackendProxyResponse::Status>(status));
    };
    const bool ok = statuses[0] == pb::BackendProxyResponse::QUEUED &&
                    statuses[1] == pb::BackendProxyResponse::DELIVERED && echoed == content;
    return {ok, "request " + std::to_string(id) + ": " + name(statuses[0]) + " then " +
                    name(statuses[1]) + ", content " + std::to_string(kEchoContentId) +
                    " echoed (" + std::to_string(echoed.size()) + " bytes)" +
                    (proxy_connected ? ", proxy connected" : "")};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <configuration file>\n";
        return 2;
    }
    std::ifstream file(argv[1]);
    if (!file) {
        std::cerr << "tavi-demo: cannot open " << argv[1] << "\n";
        return 2;
    }
    auto configuration = config::Configuration::create_from_input(file);
    if (!configuration->verify()) {
        std::cerr << "tavi-demo: " << argv[1] << " lacks a required key (see the log)\n";
        return 2;
    }
    logging::configure_logging("");
    logging::set_from_config(configuration);

    const std::string client = configuration->get("client_name");
    const std::string support_library = configuration->get("rt_support_library");
    const std::string ready_timeout = configuration->get("ready_timeout_s");
    const long ready_s =
        ready_timeout.empty() ? 10 : std::strtol(ready_timeout.c_str(), nullptr, 10);
    if (ready_s <= 0) {
        std::cerr << "tavi-demo: ready_timeout_s must be a number of seconds\n";
        return 2;
    }
    const std::chrono::seconds ready_within(ready_s);
    std::printf("murntavi demo: client %s, broker %s:%s\n", client.c_str(),
                configuration->get("host").c_str(), configuration->get("port").c_str());

    auto transport = com::create_client(configuration, com::MQTT);
    if (!transport) {
        std::cerr << "tavi-demo: no transport\n";
        return 2;
    }
    // Subscriptions made before start() reach the broker with it; the real-time one also
    // has to be confirmed by the IPC daemon before the application counts as ready.
    auto inbox = std::make_shared<Inbox>();
    transport->subscribe(kRtTopic, 0, inbox);
    transport->subscribe("app/" + client + "/log/config", 1, inbox);
    // The diagnostics clients subscribe now, so that start() sends their subscriptions too.
    auto uds = diag::create_uds_client(transport, nullptr);
    auto pgn = diag::create_pgn_request_client(transport);
    auto maint = diag::create_main_req_client(transport);
    const PlatformClients platform{
        var::create_var_client(transport), var::create_sysparams_client(transport),
        platform::create_boot_flags_client(transport), bt::create_bt_client(transport)};

    Report report;
    const bool connected = report.run("connect", [&]() -> Outcome {
        // connect() retries until the broker answers; bound it as an application would.
        auto connecting = std::async(std::launch::async, [&] { return transport->connect(); });
        if (connecting.wait_for(10s) != std::future_status::ready) {
            transport->disconnect();
            connecting.wait();
            return {false, "no connection within 10 s (is the broker running?)"};
        }
        return {connecting.get(), "broker acknowledged the connection"};
    });
    const bool ready = connected && report.run("readiness with IPCd", [&]() -> Outcome {
        transport->start();
        if (!transport->wait_ready(ready_within)) {
            return {false, std::string(kRtTopic) + " not confirmed within " +
                               std::to_string(ready_within.count()) + " s (is tavi-sim running?)"};
        }
        return {true, std::string(kRtTopic) + " confirmed by ipcd"};
    });
    if (ready) {
        report.run("log control: query",
                   [&] { return query_log_config(*transport, *inbox, client); });
        report.run("log control: change",
                   [&] { return change_log_level(*transport, *inbox, client); });
        report.run("real-time round trip",
                   [&] { return rt_round_trip(*transport, *inbox, support_library); });
        // Before the variables step: a second reader of a variable the transport already
        // holds would not get the retained value again, and the ACL client reads
        // "hwversion" through a variables client of its own.
        DemoUser user;
        if (report.run("acl: create user", [&] { return acl_create_user(transport, user); })) {
            report.run("acl: log in as user",
                       [&] { return acl_log_in_as_user(*transport, inbox, *configuration, user); });
        } else {
            report.skip("acl: log in as user", "no user");
        }
        report.run("backend: send and echo", [&] { return backend_round_trip(transport); });
        report.run("variables", [&] { return read_variables(*platform.vars); });
        report.run("system parameters", [&] { return change_sysparam(*platform.params); });
        report.run("boot flags", [&] { return show_boot_flags(*platform.flags); });
        report.run("boot flags: switch", [&] { return switch_banks(*platform.flags); });
        report.run("bluetooth scan", [&] { return bluetooth_scan(*platform.bt); });
    } else {
        if (!connected) {
            report.skip("readiness with IPCd", "not connected");
        }
        for (const char* step :
             {"log control: query", "log control: change", "real-time round trip",
              "acl: create user", "acl: log in as user", "backend: send and echo", "variables",
              "system parameters", "boot flags", "boot flags: switch", "bluetooth scan"}) {
            report.skip(step, "not ready");
        }
    }
    const std::vector<std::pair<const char*, std::function<Outcome()>>> diag_steps = {
        {"UDS: allocate",
         [&]() -> Outcome {
             if (!uds) {
                 return {false, "no UDS client on this partition"};
             }
             const auto state = uds->allocate_interface(kUdsCan1, kDiagTimeoutMs);
             return {state == diag::UDS_INTERFACE_ALLOCATED,
                     "CAN 1 interface, state " + std::to_string(state)};
         }},
        {"UDS: read VIN",
         [&] {
             return uds ? read_vin(*uds) : Outcome{false, "no UDS client"};
         }},
        {"UDS: release",
         [&] {
             return Outcome{uds && uds->release_interface(kDiagTimeoutMs), "interface given back"};
         }},
        {"PGN token",
         [&] {
             return pgn ? take_pgn_token(*pgn) : Outcome{false, "no PGN client"};
         }},
        {"maintenance request", [&] { return maintenance_request(*maint, support_library); }},
    };
    for (const auto& [name, step] : diag_steps) {
        if (ready) {
            report.run(name, step);
        } else {
            report.skip(name, "not ready");
        }
    }
    transport->stop();
    return report.finish();
}
