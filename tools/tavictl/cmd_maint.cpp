// maint: a service-interval request to the vehicle's maintenance computer, its fields as
// options. Both groups are described by the real-time support library (--rt-support).
#include <algorithm>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "ecu/tavi/diag/maintreq_client.h"

namespace tavictl {

using namespace ecu::tavi;
using diag::MaintenanceRequestClient;

void add_maint_commands(CLI::App& app, Session& session) {
    static MaintenanceRequestClient::Request request;
    auto* maint = app.add_subcommand("maint", "Maintenance requests to the vehicle");
    maint->require_subcommand(1);
    auto* send = maint->add_subcommand(
        "request", "Send a maintenance request and show the answer (needs --rt-support)");
    const std::pair<const char*, uint8_t*> fields[] = {
        {"--aaf", &request.aaf},
        {"--cid", &request.cid},
        {"--abfragezws-fws", &request.abfragezws_fws},
        {"--abfragetyp", &request.abfragetyp},
        {"--einheitdaten", &request.einheitdaten},
        {"--qualitaetempfohlen", &request.qualitaetempfohlen},
        {"--qualitaetvorhanden", &request.qualitaetvorhanden},
        {"--reihenfolge", &request.reihenfolge},
        {"--typmeldung", &request.typmeldung},
    };
    for (const auto& field : fields) {
        send->add_option(field.first, *field.second, "Signal value (0..255)")
            ->capture_default_str();
    }
    send->callback([&session] {
        if (!session.load_rt_support()) {
            throw Failure{EXIT_USAGE, "maint needs the real-time support library (--rt-support)"};
        }
        session.connect_ready();
        auto transport = session.shared_transport();
        auto client = diag::create_main_req_client(transport);
        const auto timeout_ms =
            std::max<unsigned int>(1000, static_cast<unsigned int>(session.timeout().count()));
        const auto result = client->request(request, timeout_ms);
        if (!result) {
            const bool timed_out = result.error().find("Timeout") != std::string::npos ||
                                   result.error().find("too long") != std::string::npos;
            throw Failure{timed_out ? EXIT_TIMED_OUT : EXIT_FAILED,
                          "maintenance request failed: " + result.error()};
        }
        const auto& r = result.value();
        const std::pair<const char*, uint32_t> values[] = {
            {"wartungsinformation", r.wartungsinformation},
            {"aaf", r.aaf},
            {"bwi", r.bwi},
            {"cid", r.cid},
            {"einheitdaten", r.einheitdaten},
            {"optimierung", r.optimierung},
            {"qualitaetempfohlen", r.qualitaetempfohlen},
            {"qualitaetvorhanden", r.qualitaetvorhanden},
            {"reihenfolge", r.reihenfolge},
            {"statusdaten", r.statusdaten},
            {"weiteretermine", r.weiteretermine},
        };
        nlohmann::ordered_json json = nlohmann::ordered_json::object();
        std::ostringstream text;
        for (const auto& value : values) {
            json[value.first] = value.second;
            text << value.first << " = " << value.second << "\n";
        }
        session.print(json, text.str());
    });
}

}  // namespace tavictl
