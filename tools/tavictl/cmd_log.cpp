// log: another application's logging, through its remote log control. Every request is
// answered with the application's whole log configuration, which is what gets printed.
#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/logconfig.pb.h"

namespace tavictl {

using namespace ecu::tavi;

namespace {

using Adapter = com::PbInternalMessageAdapter<pb::LogConfig>;

struct LogArgs {
    std::string application;
    std::string level;
    std::string mode;
    std::vector<std::string> modules;
    bool recursive = false;
};

pb::LogConfig query(Session& session, const std::string& application,
                    const pb::LogConfig& request) {
    Adapter adapter(com::PROTOCOL_LOG_CONFIG);
    auto framed = adapter.serialize(request);
    if (!framed) {
        throw Failure{EXIT_FAILED, "cannot frame the log request"};
    }
    const std::string prefix = "app/" + application + "/log/";
    const com::Message reply =
        session.request(prefix + "configure", framed.value(), prefix + "config");
    auto config = adapter.deserialize(reply);
    if (!config) {
        throw Failure{EXIT_FAILED, application + " answered with an undecodable log configuration"};
    }
    return config.value();
}

void print_config(Session& session, const std::string& application, const pb::LogConfig& config) {
    const char* level = pb::LogConfig_LogLevel_Name(config.level()).c_str();
    const char* mode = pb::LogConfig_LogMode_Name(config.mode()).c_str();
    nlohmann::ordered_json json = {{"application", application}, {"level", level}, {"mode", mode}};
    json["modules"] = nlohmann::ordered_json::array();
    std::ostringstream text;
    text << "level " << level << "\nmode " << mode << "\n";
    for (const auto& module : config.modules()) {
        json["modules"].push_back({{"name", module.name()}, {"enabled", module.enabled()}});
        text << (module.enabled() ? "on  " : "off ") << module.name() << "\n";
    }
    session.print(json, text.str());
}

void run(Session& session, const LogArgs& args, const pb::LogConfig& request) {
    print_config(session, args.application, query(session, args.application, request));
}

void add_switch(CLI::App& log, Session& session, LogArgs& args, bool enable) {
    auto* cmd = log.add_subcommand(
        enable ? "enable" : "disable",
        std::string(enable ? "Enable" : "Disable") + " log modules (\"all\": every module)");
    cmd->add_option("application", args.application, "Client name of the application")->required();
    cmd->add_option("modules", args.modules, "Module names, e.g. tavi.com")->required();
    cmd->add_flag("-r,--recursive", args.recursive, "Also every module below each one");
    cmd->callback([&session, &args, enable] {
        pb::LogConfig request;
        for (const auto& name : args.modules) {
            auto* module = request.add_modules();
            module->set_name(name);
            module->set_enabled(enable);
            if (args.recursive) {
                module->set_recursive(true);
            }
        }
        run(session, args, request);
    });
}

}  // namespace

void add_log_commands(CLI::App& app, Session& session) {
    static LogArgs args;
    auto* log = app.add_subcommand("log", "Another application's logging: show and change it");
    log->require_subcommand(1);

    auto* show = log->add_subcommand("show", "Show the level, mode and modules");
    show->add_option("application", args.application, "Client name of the application")->required();
    show->callback([&session] { run(session, args, pb::LogConfig()); });

    auto* set = log->add_subcommand("set", "Set the level and/or the output mode");
    set->add_option("application", args.application, "Client name of the application")->required();
    set->add_option("-l,--level", args.level,
                    "EMERG ALERT CRITICAL ERROR WARNING NOTICE INFO DEBUG")
        ->check(CLI::IsMember(
            {"EMERG", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"},
            CLI::ignore_case));
    set->add_option("-m,--mode", args.mode, "SYSLOG STDOUT STDERR")
        ->check(CLI::IsMember({"SYSLOG", "STDOUT", "STDERR"}, CLI::ignore_case));
    set->callback([&session] {
        if (args.level.empty() && args.mode.empty()) {
            throw Failure{EXIT_USAGE, "log set: give --level and/or --mode"};
        }
        pb::LogConfig request;
        for (auto* text : {&args.level, &args.mode}) {
            for (char& c : *text) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
        if (!args.level.empty()) {
            pb::LogConfig_LogLevel level{};
            pb::LogConfig_LogLevel_Parse(args.level, &level);
            request.set_level(level);
        }
        if (!args.mode.empty()) {
            pb::LogConfig_LogMode mode{};
            pb::LogConfig_LogMode_Parse(args.mode, &mode);
            request.set_mode(mode);
        }
        run(session, args, request);
    });

    add_switch(*log, session, args, true);
    add_switch(*log, session, args, false);
}

}  // namespace tavictl
