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
#include <string>
#include <vector>

#include "ecu/tavi/bt/bluetooth.h"
#include "ecu/tavi/com/client.h"
#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/config/configuration.h"
#include "ecu/tavi/logging/logging.h"
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
    std::string lines = flags.boot_flags_string(true);
    for (size_t at = 0; (at = lines.find('\n', at)) + 1 < lines.size(); at += 2) {
        lines.insert(at + 1, "        ");
    }
    std::printf("        %s", lines.c_str());
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
             {"log control: query", "log control: change", "real-time round trip", "variables",
              "system parameters", "boot flags", "boot flags: switch", "bluetooth scan"}) {
            report.skip(step, "not ready");
        }
    }
    transport->stop();
    return report.finish();
}
