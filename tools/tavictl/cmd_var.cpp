// var: platform variables, read through the variables client.
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "ecu/tavi/var/variables.h"

namespace tavictl {

using namespace ecu::tavi;

void add_var_commands(CLI::App& app, Session& session) {
    static std::vector<std::string> names;
    auto* var = app.add_subcommand("var", "Platform variables");
    var->require_subcommand(1);
    auto* get = var->add_subcommand("get", "Read variables (retained on system/var/<name>)");
    get->add_option("names", names, "Variable names")->required();
    get->callback([&session] {
        session.connect();
        auto client = var::create_var_client(session.shared_transport());
        nlohmann::ordered_json json = nlohmann::ordered_json::object();
        std::ostringstream text;
        std::string missing;
        for (const auto& name : names) {
            // Values are never empty: the service's empty deliveries are ignored.
            const std::string value =
                client->get(name, "", static_cast<int>(session.timeout().count()));
            if (value.empty()) {
                missing += (missing.empty() ? "" : ", ") + name;
                continue;
            }
            json[name] = value;
            text << name << " = " << value << "\n";
        }
        session.print(json, text.str());
        if (!missing.empty()) {
            throw Failure{EXIT_TIMED_OUT, "no value within the time-out: " + missing};
        }
    });
}

}  // namespace tavictl
