// pgn: request tokens of parameter groups, from the PGN request daemon. A token belongs to
// the client name that holds it: `acquire` holds it for --hold seconds (Ctrl-C ends that)
// and gives it back; `release` gives back the token of a client name (-n).
#include <cmath>
#include <string>

#include "commands.h"
#include "ecu/tavi/diag/pgn_client.h"

namespace tavictl {

using namespace ecu::tavi;
using diag::PgnRequestClient;

namespace {

struct PgnArgs {
    std::string pgn;
    double hold_s = 0;
};

std::shared_ptr<PgnRequestClient> client(Session& session) {
    session.connect_ready();
    auto transport = session.shared_transport();
    auto pgn = diag::create_pgn_request_client(transport);
    if (!pgn) {
        throw Failure{EXIT_FAILED, "PGN tokens are not offered on this partition"};
    }
    return pgn;
}

}  // namespace

void add_pgn_commands(CLI::App& app, Session& session) {
    static PgnArgs args;
    auto* pgn = app.add_subcommand("pgn", "PGN request tokens: acquire, release");
    pgn->require_subcommand(1);

    auto* acquire =
        pgn->add_subcommand("acquire", "Acquire the token of a PGN, hold it a while, give it back");
    acquire->add_option("pgn", args.pgn, "The parameter group number")->required();
    acquire
        ->add_option("--hold", args.hold_s,
                     "Seconds to hold the token before giving it back (Ctrl-C ends early)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    acquire->callback([&session] {
        set_streaming();
        auto tokens = client(session);
        const auto seconds =
            std::chrono::seconds(static_cast<long long>(std::ceil(session.options().timeout_s)));
        const auto token = tokens->get_request_token(args.pgn, seconds);
        if (!token) {
            const auto error = token.error();
            throw Failure{error == PgnRequestClient::Timeout ? EXIT_TIMED_OUT : EXIT_FAILED,
                          "no token for " + args.pgn + ": " + PgnRequestClient::error_str(error)};
        }
        session.print({{"pgn", args.pgn}, {"token", "granted"}},
                      "token for " + args.pgn + " granted\n");
        if (args.hold_s > 0) {
            wait_interrupted(duration_option(args.hold_s));
        }
        tokens->release_token(args.pgn);
    });

    auto* release =
        pgn->add_subcommand("release", "Give back the token that the client name (-n) holds");
    release->add_option("pgn", args.pgn, "The parameter group number")->required();
    release->callback([&session] {
        client(session)->release_token(args.pgn);
        session.print({{"pgn", args.pgn}, {"token", "released"}},
                      "token for " + args.pgn + " released\n");
    });
}

}  // namespace tavictl
