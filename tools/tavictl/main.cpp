// tavictl: see and poke a unit's services from the command line, and take their traffic
// home. Run `tavictl --help`, or `tavictl COMMAND --help`.
#include <cstdio>
#include <iostream>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "ecu/tavi/logging/logging.h"
#include "session.h"

int main(int argc, char** argv) {
    using namespace tavictl;
    install_interrupt_handling();

    GlobalOptions options;
    Session session(options);
    CLI::App app{
        "tavictl: the command-line tool for a unit's services.\n"
        "Exit codes: 0 success, 1 refused or failed, 2 usage error, 3 time-out, "
        "4 broker unreachable.",
        "tavictl"};
    app.require_subcommand(1);
    app.fallthrough();
    add_global_options(app, options);
    // The library's log lines go to standard error, below the chosen level not at all.
    app.parse_complete_callback([&options] {
        ecu::tavi::logging::set_log_mode(ecu::tavi::logging::STDERR);
        ecu::tavi::logging::set_log_level(options.log_level.c_str());
    });
    add_var_commands(app, session);
    add_sysparams_commands(app, session);
    add_bootflags_commands(app, session);
    add_bt_commands(app, session);
    add_uds_commands(app, session);
    add_pgn_commands(app, session);
    add_maint_commands(app, session);
    add_acl_commands(app, session);
    add_backend_commands(app, session);
    add_log_commands(app, session);
    add_watch_command(app, session);
    add_record_commands(app, session);

    try {
        app.parse(argc, argv);
    } catch (const Failure& failure) {
        std::cerr << "tavictl: " << failure.message << std::endl;
        return failure.code;
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "tavictl: " << e.what() << " (try --help)" << std::endl;
        return EXIT_USAGE;
    }
    // The command ran in its callback, at the end of parse().
    return EXIT_OK;
}
