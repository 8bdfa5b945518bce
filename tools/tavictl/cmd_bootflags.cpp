// bootflags: the A/B banks, read and changed through the boot flags client.
#include <string>

#include "commands.h"
#include "ecu/tavi/platform/bootflags.h"

namespace tavictl {

using namespace ecu::tavi;
using platform::BootFlagsClient;

namespace {

struct BootArgs {
    bool long_form = false;
    unsigned bank = 0;
    bool invalid = false;
    unsigned cause = BootFlagsClient::CAUSE_TAVI;
};

std::shared_ptr<BootFlagsClient> client(Session& session) {
    session.connect();
    auto flags = platform::create_boot_flags_client(session.shared_transport());
    if (!flags->current_bank().first) {
        throw Failure{EXIT_TIMED_OUT, "no boot flags on system/bootflags"};
    }
    return flags;
}

void check(BootFlagsClient::SetResult result) {
    if (result == BootFlagsClient::SET_SUCCESSFUL) {
        return;
    }
    throw Failure{result == BootFlagsClient::SET_TIMEOUT_FAILED ? EXIT_TIMED_OUT : EXIT_FAILED,
                  std::string("boot flags not set: ") + BootFlagsClient::to_str(result)};
}

void show(Session& session, BootFlagsClient& flags, bool long_form) {
    const auto bank_valid = [&](BootFlagsClient::BootBank bank) {
        return flags.boot_bank_valid(bank).second;
    };
    nlohmann::ordered_json json = {
        {"current_bank", BootFlagsClient::to_str(flags.current_bank().second)},
        {"boot_bank", BootFlagsClient::to_str(flags.selected_bank().second)},
        {"bank0_valid", bank_valid(BootFlagsClient::BOOT_BANK_0)},
        {"bank1_valid", bank_valid(BootFlagsClient::BOOT_BANK_1)},
        {"boot_counter", flags.boot_counter().second},
        {"bank_switch_cause", BootFlagsClient::to_str(flags.bank_switch_cause().second)},
        {"boot_mode", BootFlagsClient::to_str(flags.boot_mode().second)}};
    std::string text = flags.boot_flags_string(long_form);
    if (text.empty() || text.back() != '\n') {
        text += "\n";
    }
    session.print(json, text);
}

}  // namespace

void add_bootflags_commands(CLI::App& app, Session& session) {
    static BootArgs args;
    auto* boot = app.add_subcommand("bootflags", "Boot banks: show, mark valid, switch");
    boot->require_subcommand(1);

    auto* show_cmd = boot->add_subcommand("show", "Show the boot flags");
    show_cmd->add_flag("-l,--long", args.long_form, "One flag a line");
    show_cmd->callback([&session] { show(session, *client(session), args.long_form); });

    auto* valid = boot->add_subcommand("valid", "Mark a bank valid (or invalid)");
    valid->add_option("bank", args.bank, "0 or 1")->required()->check(CLI::Range(0, 1));
    valid->add_flag("--invalid", args.invalid, "Mark it invalid instead");
    valid->callback([&session] {
        auto flags = client(session);
        check(flags->set_boot_bank_valid(static_cast<BootFlagsClient::BootBank>(args.bank),
                                         !args.invalid));
        show(session, *flags, false);
    });

    auto* switch_cmd = boot->add_subcommand("switch", "Switch to the other bank, with a cause");
    switch_cmd->add_option("-c,--cause", args.cause, "Bank switch cause, 6 (CAUSE_TAVI) to 16")
        ->check(CLI::Range(6, 16))
        ->capture_default_str();
    switch_cmd->callback([&session] {
        auto flags = client(session);
        check(flags->switch_bank(static_cast<BootFlagsClient::BankSwitchCause>(args.cause)));
        show(session, *flags, false);
    });
}

}  // namespace tavictl
