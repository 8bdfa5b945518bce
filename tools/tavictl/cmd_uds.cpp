// uds: diagnostic requests through an interface borrowed from the UDS interface daemon. An
// allocation belongs to the client connection that made it, so `request` allocates, sends
// and releases in one go; `allocate` holds an interface until Ctrl-C; `release` frees one a
// client name (-n) still holds.
#include <cctype>
#include <cstdio>
#include <string>

#include "commands.h"
#include "decoder.h"
#include "ecu/tavi/diag/uds_client.h"

namespace tavictl {

using namespace ecu::tavi;
using namespace ecu::tavi::diag;

namespace {

struct UdsArgs {
    UdsInterfaceAllocationConfig config{1, 1, 0};
    std::string ecu;
    std::string request;
    double hold_s = 0;
};

const char* state_name(uint32_t state) {
    static const char* const names[] = {"free",        "allocated", "in progress",
                                        "unavailable", "withdrawn", "unknown"};
    return state < sizeof(names) / sizeof(names[0]) ? names[state] : "unknown";
}

void add_interface_options(CLI::App& command, UdsArgs& args) {
    command.add_option("--protocol", args.config.protocol, "Transport protocol: 1 ISO transport")
        ->capture_default_str();
    command.add_option("--phyif", args.config.phyif, "Physical interface: 1 CAN 1, 2 CAN 2")
        ->capture_default_str();
    command.add_option("--param", args.config.param, "Interface parameter, passed on unchanged")
        ->capture_default_str();
}

std::vector<uint8_t> parse_hex(const std::string& text, const char* what) {
    std::vector<uint8_t> bytes;
    if (text.empty() || text.size() % 2 != 0) {
        throw Failure{EXIT_USAGE, std::string(what) + ": expected an even number of hex digits"};
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            throw Failure{EXIT_USAGE, std::string(what) + ": not hex: " + text};
        }
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

uint32_t ecu_address(const std::string& text) {
    if (text.empty() || text.size() > 8 ||
        text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw Failure{EXIT_USAGE, "--ecu: expected up to 8 hex digits, found " + text};
    }
    return static_cast<uint32_t>(std::stoul(text, nullptr, 16));
}

unsigned int timeout_ms(const Session& session) {
    return static_cast<unsigned int>(session.timeout().count());
}

// A client with the interface allocated; Failure when the daemon did not lend it.
std::shared_ptr<UdsClient> allocate(Session& session, const UdsArgs& args) {
    session.connect_ready();
    auto transport = session.shared_transport();
    auto client = create_uds_client(transport, nullptr);
    if (!client) {
        throw Failure{EXIT_FAILED, "UDS is not offered on this partition"};
    }
    const uint32_t state = client->allocate_interface(args.config, timeout_ms(session));
    if (state != UDS_INTERFACE_ALLOCATED) {
        throw Failure{EXIT_FAILED, std::string("interface not allocated: ") + state_name(state)};
    }
    return client;
}

void release(Session& session, UdsClient& client) {
    if (!client.release_interface(timeout_ms(session))) {
        throw Failure{EXIT_TIMED_OUT, "the release was not answered within the time-out"};
    }
}

}  // namespace

void add_uds_commands(CLI::App& app, Session& session) {
    static UdsArgs args;
    auto* uds = app.add_subcommand("uds", "Diagnostic (UDS) requests: request, allocate, release");
    uds->require_subcommand(1);

    auto* request = uds->add_subcommand(
        "request", "Allocate an interface, send one request, print the response as hex, release");
    request->add_option("--ecu", args.ecu, "Address of the ECU, hex")->required();
    request->add_option("bytes", args.request, "The request, hex (e.g. 22f190)")->required();
    add_interface_options(*request, args);
    request->callback([&session] {
        UdsMessage message{ecu_address(args.ecu), parse_hex(args.request, "request")};
        auto client = allocate(session, args);
        const UdsResponse response = client->send_request(message, timeout_ms(session), 0xFF, 255);
        release(session, *client);
        if (!response) {
            static const char* const errors[] = {"",          "rejected",  "refused",
                                                 "timed out", "transport", "other"};
            const uint32_t error = response.error();
            throw Failure{error == UDS_ERROR_TIMEOUT ? EXIT_TIMED_OUT : EXIT_FAILED,
                          std::string("request failed: ") + (error <= 5 ? errors[error] : "other")};
        }
        const auto& data = response.value().data;
        const std::string hex = to_hex(data.data(), data.size());
        char address[16];
        std::snprintf(address, sizeof(address), "%x", response.value().address);
        session.print({{"address", address}, {"response", hex}}, hex + "\n");
    });

    auto* hold = uds->add_subcommand(
        "allocate", "Allocate an interface and hold it until Ctrl-C or --duration, then release");
    hold->add_option("-d,--duration", args.hold_s, "Seconds to hold it")
        ->check(CLI::PositiveNumber);
    add_interface_options(*hold, args);
    hold->callback([&session] {
        set_streaming();
        auto client = allocate(session, args);
        session.print({{"state", state_name(UDS_INTERFACE_ALLOCATED)}}, "allocated\n");
        wait_interrupted(duration_option(args.hold_s));
        release(session, *client);
    });

    auto* free =
        uds->add_subcommand("release", "Free the interface that the client name (-n) still holds");
    add_interface_options(*free, args);
    free->callback([&session] {
        release(session, *allocate(session, args));
        session.print({{"state", state_name(UDS_INTERFACE_FREE)}}, "released\n");
    });
}

}  // namespace tavictl
