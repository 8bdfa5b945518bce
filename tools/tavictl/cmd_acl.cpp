// acl: users of the unit's MQTT broker, REST and websocket interfaces and their access
// lists, through the access-control client (vcm units only).
#include <string>
#include <vector>

#include "commands.h"
#include "ecu/tavi/com/acl.h"

namespace tavictl {

using namespace ecu::tavi;
using com::AclClient;
using com::AclResult;

namespace {

struct AclArgs {
    std::string protocol;
    std::string user;
    std::string password;
    unsigned int port = 0;
    std::vector<std::string> subscribe;
    std::vector<std::string> publish;
    com::TaviFeatures features;
};

std::shared_ptr<AclClient> client(Session& session) {
    session.connect_ready();
    auto transport = session.shared_transport();
    auto acl = com::create_acl_client(transport);
    if (!acl.first || !acl.second) {
        throw Failure{EXIT_FAILED, "access control is offered on vcm units only"};
    }
    return acl.second;
}

// Ends the command with the error, or says what was done.
void report(Session& session, const AclResult& result, const std::string& done) {
    if (!result) {
        static const char* const errors[] = {"",       "invalid request", "serialization",
                                             "failed", "refused",         "daemon error"};
        const int error = static_cast<int>(result.error());
        throw Failure{EXIT_FAILED, done + " not done: " +
                                       (error >= 1 && error <= 5 ? errors[error] : "daemon error")};
    }
    session.print({{"done", done}}, done + "\n");
}

CLI::Option* add_protocol(CLI::App& command, AclArgs& args,
                          const std::vector<std::string>& protocols) {
    return command.add_option("protocol", args.protocol, "Interface")
        ->required()
        ->check(CLI::IsMember(protocols));
}

}  // namespace

void add_acl_commands(CLI::App& app, Session& session) {
    static AclArgs args;
    auto* acl = app.add_subcommand(
        "acl", "Users and access lists of the MQTT, REST and websocket interfaces");
    acl->require_subcommand(1);

    auto* add_user = acl->add_subcommand("add-user", "Create a user");
    add_protocol(*add_user, args, {"mqtt", "rest", "websocket"});
    add_user->add_option("user", args.user, "User name")->required();
    add_user->add_option("password", args.password, "Password")->required();
    add_user->add_option("--port", args.port, "websocket: the user's port (1024..65535)");
    add_user->callback([&session] {
        auto acl = client(session);
        const AclResult result = args.protocol == "mqtt"
                                     ? acl->add_mqtt_user(args.user, args.password)
                                 : args.protocol == "rest"
                                     ? acl->add_rest_user(args.user, args.password)
                                     : acl->add_websocket_user(args.user, args.password, args.port);
        report(session, result, args.protocol + " user " + args.user + " added");
    });

    auto* rm_user = acl->add_subcommand("rm-user", "Remove a user");
    add_protocol(*rm_user, args, {"mqtt", "rest", "websocket"});
    rm_user->add_option("user", args.user, "User name")->required();
    rm_user->callback([&session] {
        auto acl = client(session);
        const AclResult result = args.protocol == "mqtt"   ? acl->rm_mqtt_user(args.user)
                                 : args.protocol == "rest" ? acl->rm_rest_user(args.user)
                                                           : acl->rm_websocket_user(args.user);
        report(session, result, args.protocol + " user " + args.user + " removed");
    });

    auto* add_acl = acl->add_subcommand(
        "add-acl", "Grant a user topics to subscribe and publish (MQTT: and platform features)");
    add_protocol(*add_acl, args, {"mqtt", "rest"});
    add_acl->add_option("user", args.user, "User name")->required();
    add_acl->add_option("--subscribe", args.subscribe, "Topic it may subscribe (repeatable)");
    add_acl->add_option("--publish", args.publish, "Topic it may publish on (repeatable)");
    const char* const features = "Features (mqtt)";
    add_acl->add_flag("--uds", args.features.uds, "UDS diagnostics")->group(features);
    add_acl->add_flag("--variables", args.features.variables, "Platform variables")
        ->group(features);
    add_acl->add_flag("--variables-ext", args.features.variables_ext, "Extended variables")
        ->group(features);
    add_acl->add_flag("--pgn", args.features.pgn, "PGN request tokens")->group(features);
    add_acl->add_flag("--sysparams", args.features.sysparams, "System parameters")->group(features);
    add_acl->add_flag("--backend", args.features.backend, "Backend proxy")->group(features);
    add_acl->callback([&session] {
        auto acl = client(session);
        const AclResult result =
            args.protocol == "mqtt"
                ? acl->add_mqtt_acl(args.user, args.subscribe, args.publish, args.features)
                : acl->add_rest_acl(args.user, args.subscribe, args.publish);
        report(session, result, args.protocol + " access list of " + args.user + " added");
    });
}

}  // namespace tavictl
