// backend: content to and from the remote backend through the unit's backend proxy.
#include <cctype>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "decoder.h"
#include "ecu/tavi/com/backend.h"
#include "ecu/tavi/pb/backend.pb.h"

namespace tavictl {

using namespace ecu::tavi;
using com::BackendClient;

namespace {

struct BackendArgs {
    unsigned int content_id = 0;
    std::string data;
    BackendClient::TxOptions options;
    std::vector<unsigned int> content_ids;
    double duration_s = 0;
};

std::shared_ptr<BackendClient> client(Session& session) {
    auto transport = session.shared_transport();
    auto backend = com::create_be_client(transport);
    if (!backend) {
        throw Failure{EXIT_FAILED, "the library refused to create the backend client"};
    }
    return backend;
}

// The statuses the proxy reports for one request, up to the final one.
class Statuses {
public:
    void add(int status) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_statuses.push_back(status);
        m_cv.notify_all();
    }
    // The statuses received when the final one arrived or the time-out passed.
    std::vector<int> wait_final(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, timeout, [this] {
            return !m_statuses.empty() && m_statuses.back() != pb::BackendProxyResponse::QUEUED;
        });
        return m_statuses;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<int> m_statuses;
};

std::string status_name(int status) {
    const std::string name = pb::BackendProxyResponse::Status_IsValid(status)
                                 ? pb::BackendProxyResponse::Status_Name(
                                       static_cast<pb::BackendProxyResponse::Status>(status))
                                 : std::to_string(status);
    std::string lower;
    for (const char c : name) {
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

}  // namespace

void add_backend_commands(CLI::App& app, Session& session) {
    static BackendArgs args;
    auto* backend = app.add_subcommand("backend", "Content to and from the backend: send, listen");
    backend->require_subcommand(1);

    auto* send = backend->add_subcommand(
        "send", "Send content and wait for the proxy's statuses, up to the final one");
    send->add_option("content-id", args.content_id, "Content id")->required();
    send->add_option("data", args.data, "The content, as text")->required();
    send->add_option("--priority", args.options.priority, "Priority")->capture_default_str();
    send->add_option("--ttl", args.options.ttl_s, "Seconds the proxy may keep trying")
        ->capture_default_str();
    send->add_flag("--kl30robust", args.options.kl30robust, "Keep it queued across power cycles");
    send->add_flag("--compress", args.options.compress, "Compress it");
    send->add_flag("--store-offline", args.options.store_offline,
                   "Queue it while the backend is unreachable");
    send->callback([&session] {
        auto backend = client(session);
        session.connect_ready();
        auto statuses = std::make_shared<Statuses>();
        BackendClient::TxOptions options = args.options;
        options.response_callback = [statuses](std::uint64_t, int status) {
            statuses->add(status);
        };
        const com::Message content(std::vector<std::uint8_t>(args.data.begin(), args.data.end()));
        if (backend->publish(content, args.content_id, options) == 0) {
            throw Failure{EXIT_FAILED, "the content was not sent"};
        }
        const std::vector<int> seen = statuses->wait_final(session.timeout());
        nlohmann::ordered_json json = nlohmann::ordered_json::array();
        std::string text;
        for (const int status : seen) {
            json.push_back(status_name(status));
            text += status_name(status) + "\n";
        }
        session.print(json, text);
        if (seen.empty() || seen.back() == pb::BackendProxyResponse::QUEUED) {
            throw Failure{EXIT_TIMED_OUT, "no final status within the time-out"};
        }
        if (seen.back() != pb::BackendProxyResponse::DELIVERED) {
            throw Failure{EXIT_FAILED, "not delivered: " + status_name(seen.back())};
        }
    });

    auto* listen = backend->add_subcommand(
        "listen", "Print the content that arrives for content ids, until Ctrl-C or --duration");
    listen->add_option("content-ids", args.content_ids, "Content ids")->required();
    listen->add_option("-d,--duration", args.duration_s, "Seconds to listen")
        ->check(CLI::PositiveNumber);
    listen->callback([&session] {
        set_streaming();
        auto backend = client(session);
        for (const unsigned int id : args.content_ids) {
            backend->add_content_callback(id, [&session](unsigned int cid, const com::Message& m) {
                const auto& data = m.get_data();
                const std::string hex = to_hex(data.data(), data.size());
                session.print({{"content_id", cid}, {"hex", hex}},
                              std::to_string(cid) + " " + hex + "\n");
            });
        }
        const bool ready = session.connect_ready();
        std::cerr << "tavictl: listening" << (ready ? "" : " (not every id is confirmed yet)")
                  << ", Ctrl-C ends" << std::endl;
        wait_interrupted(duration_option(args.duration_s));
    });
}

}  // namespace tavictl
