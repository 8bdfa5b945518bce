// The command groups of tavictl, one source file each. Every group adds its subcommands to
// the top-level command; their callbacks run the command with the shared session and end it
// by returning (success) or by throwing Failure.
#pragma once

#include <CLI/CLI.hpp>

#include "session.h"

namespace tavictl {

void add_log_commands(CLI::App& app, Session& session);
void add_watch_command(CLI::App& app, Session& session);
void add_record_commands(CLI::App& app, Session& session);
void add_var_commands(CLI::App& app, Session& session);
void add_sysparams_commands(CLI::App& app, Session& session);
void add_bootflags_commands(CLI::App& app, Session& session);
void add_bt_commands(CLI::App& app, Session& session);
void add_uds_commands(CLI::App& app, Session& session);
void add_pgn_commands(CLI::App& app, Session& session);
void add_maint_commands(CLI::App& app, Session& session);
void add_acl_commands(CLI::App& app, Session& session);
void add_backend_commands(CLI::App& app, Session& session);

}  // namespace tavictl
