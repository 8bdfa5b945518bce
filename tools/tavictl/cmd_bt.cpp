// bt: the Bluetooth service's state and device discovery.
#include <chrono>
#include <sstream>

#include "commands.h"
#include "ecu/tavi/bt/bluetooth.h"

namespace tavictl {

using namespace ecu::tavi;

void add_bt_commands(CLI::App& app, Session& session) {
    static double seconds = 5;
    auto* bt_cmd = app.add_subcommand("bt", "Bluetooth: status and device scan");
    bt_cmd->require_subcommand(1);

    bt_cmd->add_subcommand("status", "Whether the service is available and operational")
        ->callback([&session] {
            session.connect();
            auto transport = session.shared_transport();
            auto client = bt::create_bt_client(transport);
            const bool available = client->available();
            const bool operational = client->operational();
            session.print({{"available", available}, {"operational", operational}},
                          std::string("available ") + (available ? "yes" : "no") +
                              ", operational " + (operational ? "yes" : "no") + "\n");
        });

    auto* scan = bt_cmd->add_subcommand("scan", "Scan for devices, then list them (Ctrl-C ends)");
    scan->add_option("-s,--seconds", seconds, "How long to scan")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    scan->callback([&session] {
        set_streaming();
        session.connect();
        auto transport = session.shared_transport();
        auto manager = bt::create_bt_client(transport)->discovery_manager();
        if (!manager->start_scan()) {
            throw Failure{EXIT_FAILED, "the Bluetooth service refused to scan"};
        }
        wait_interrupted(duration_option(seconds));
        manager->stop_scan();
        nlohmann::ordered_json json = nlohmann::ordered_json::array();
        std::ostringstream text;
        const bt::DiscoveryResult result = manager->scan_results();
        for (const auto& device : result.devices()) {
            json.push_back(
                {{"address", device.address()}, {"name", device.name()}, {"rssi", device.rssi()}});
            text << device.address() << "  " << static_cast<int>(device.rssi()) << " dBm  "
                 << device.name() << "\n";
        }
        session.print(json, text.str());
    });
}

}  // namespace tavictl
