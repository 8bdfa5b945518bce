// sysparams: the unit's system parameter table, through the system parameters client.
// Parameters are named by id or by name.
#include <sstream>
#include <string>

#include "commands.h"
#include "ecu/tavi/var/sysparams.h"

namespace tavictl {

using namespace ecu::tavi;
using var::SysParamsClient;

namespace {

struct ParamArgs {
    std::string param;
    std::string value;
};

struct Table {
    std::shared_ptr<SysParamsClient> client;
    SysParamsClient::Table entries;
};

Table fetch(Session& session) {
    session.connect();
    Table table{var::create_sysparams_client(session.shared_transport()), {}};
    table.client->set_receive_timeout(static_cast<int>(session.timeout().count()));
    table.entries = table.client->get_all(true);
    if (table.entries.empty()) {
        throw Failure{EXIT_TIMED_OUT, "no system parameter table within the time-out"};
    }
    return table;
}

const pb::SystemParameterEntry& find(const Table& table, const std::string& param) {
    for (const auto& entry : table.entries) {
        if (entry.second.name() == param || std::to_string(entry.first) == param) {
            return entry.second;
        }
    }
    throw Failure{EXIT_FAILED, "no system parameter " + param};
}

void print(Session& session, const std::vector<pb::SystemParameterEntry>& entries) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    std::ostringstream text;
    for (const auto& entry : entries) {
        json.push_back({{"id", entry.id()}, {"name", entry.name()}, {"value", entry.value()}});
        text << entry.id() << " " << entry.name() << " = " << entry.value() << "\n";
    }
    session.print(json, text.str());
}

}  // namespace

void add_sysparams_commands(CLI::App& app, Session& session) {
    static ParamArgs args;
    auto* params = app.add_subcommand("sysparams", "System parameters: list, get, set");
    params->require_subcommand(1);

    params->add_subcommand("list", "List every parameter")->callback([&session] {
        std::vector<pb::SystemParameterEntry> entries;
        for (const auto& entry : fetch(session).entries) {
            entries.push_back(entry.second);
        }
        print(session, entries);
    });

    auto* get = params->add_subcommand("get", "Show one parameter");
    get->add_option("param", args.param, "Id or name")->required();
    get->callback([&session] { print(session, {find(fetch(session), args.param)}); });

    auto* set =
        params->add_subcommand("set", "Write one parameter and show whether the service took it");
    set->add_option("param", args.param, "Id or name")->required();
    set->add_option("value", args.value, "New value")->required();
    set->callback([&session] {
        Table table = fetch(session);
        pb::SystemParameterEntry entry = find(table, args.param);
        entry.set_value(args.value);
        table.client->merge({{entry.id(), entry}});
        const auto result = table.client->write();
        if (!result.success) {
            throw Failure{
                result.status == SysParamsClient::NOT_RECEIVED ? EXIT_TIMED_OUT : EXIT_FAILED,
                "not written (status " + std::to_string(result.status) + ", " +
                    std::to_string(result.unverified.size()) + " entries read back differently)"};
        }
        print(session, {entry});
    });
}

}  // namespace tavictl
