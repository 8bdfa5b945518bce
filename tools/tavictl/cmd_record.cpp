// record and replay: take the traffic of topic filters into a file (see recordfile.h) and
// publish it again later, into any broker, with the original spacing.
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "recordfile.h"

namespace tavictl {

using namespace ecu::tavi;

namespace {

struct RecordArgs {
    std::string file;
    std::vector<std::string> filters;
    double duration_s = 0;
    double speed = 1.0;
    bool loop = false;
};

// Writes every message as a line on the network thread; each line is flushed, so a
// recording that is killed keeps everything up to its last message.
class Recorder : public com::ISubscriptionObserver {
public:
    explicit Recorder(std::ofstream& out) : m_out(out) {}

    void message(const std::string& topic, const com::Message& message) override {
        const double t =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
        Json line = {{"t", t}};
        line.update(message_json(topic, message));
        std::lock_guard<std::mutex> lock(m_mutex);
        m_out << line.dump() << std::endl;
        ++m_count;
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }

private:
    std::ofstream& m_out;
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
    std::mutex m_mutex;
    size_t m_count = 0;
};

void record(Session& session, const RecordArgs& args) {
    set_streaming();
    session.load_rt_support();
    std::ofstream out(args.file, std::ios::trunc);
    if (!out) {
        throw Failure{EXIT_FAILED, "cannot write " + args.file};
    }
    out << record_header(args.filters).dump() << std::endl;
    auto recorder = std::make_shared<Recorder>(out);
    session.follow(args.filters, recorder, "recording", duration_option(args.duration_s));
    std::cerr << "tavictl: recorded " << recorder->count() << " messages in " << args.file
              << std::endl;
}

// Real-time data reaches "rt/" only through the IPC daemon's relay, one hop longer than
// any other topic. To keep the recorded order, the next message waits until the relayed
// copy of a real-time message is back; a broker without relay is noticed at the first
// time-out and not waited for again.
class RelayEcho : public com::ISubscriptionObserver {
public:
    void message(const std::string& topic, const com::Message&) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_seen[topic];
        }
        m_cv.notify_all();
    }
    void sent(const std::string& topic) {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_sent[topic];
        m_pending = topic;
    }
    void wait(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_pending.empty() || m_no_relay) {
            return;
        }
        const std::string topic = m_pending;
        m_pending.clear();
        if (!m_cv.wait_for(lock, timeout, [&] { return m_seen[topic] >= m_sent[topic]; })) {
            m_no_relay = true;
            std::cerr << "tavictl: no relayed copy of " << topic
                      << " came back; real-time data may now overtake" << std::endl;
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::map<std::string, size_t> m_seen;
    std::map<std::string, size_t> m_sent;
    std::string m_pending;
    bool m_no_relay = false;
};

void replay(Session& session, const RecordArgs& args) {
    set_streaming();
    std::ifstream in(args.file);
    if (!in) {
        throw Failure{EXIT_FAILED, "cannot read " + args.file};
    }
    std::ostringstream text;
    text << in.rdbuf();
    session.load_rt_support();
    const auto entries = read_record(text.str());
    if (!entries) {
        throw Failure{EXIT_FAILED, args.file + ": " + entries.error()};
    }
    auto echo = std::make_shared<RelayEcho>();
    std::set<std::string> rt_topics;
    for (const auto& entry : entries.value()) {
        if (entry.topic.compare(0, 3, "rt/") == 0 && rt_topics.insert(entry.topic).second) {
            session.transport().subscribe(entry.topic, 0, echo);
        }
    }
    session.connect_ready();
    size_t sent = 0;
    do {
        const auto start = std::chrono::steady_clock::now();
        for (const auto& entry : entries.value()) {
            const auto due =
                start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(entry.t / args.speed));
            echo->wait(session.timeout());
            if (wait_interrupted(due - std::chrono::steady_clock::now())) {
                std::cerr << "tavictl: replayed " << sent << " messages" << std::endl;
                return;
            }
            if (rt_topics.count(entry.topic) > 0) {
                echo->sent(entry.topic);
            }
            if (session.transport().publish(entry.topic, entry.message) != 0) {
                throw Failure{EXIT_FAILED, "cannot publish on " + entry.topic};
            }
            ++sent;
        }
    } while (args.loop);
    echo->wait(session.timeout());
    std::cerr << "tavictl: replayed " << sent << " messages" << std::endl;
}

}  // namespace

void add_record_commands(CLI::App& app, Session& session) {
    static RecordArgs args;
    auto* rec = app.add_subcommand(
        "record", "Write every message on the topic filters to FILE (JSON Lines) until Ctrl-C");
    rec->add_option("file", args.file, "Record file to write")->required();
    rec->add_option("filters", args.filters, "MQTT topic filters (+ and # allowed)")->required();
    rec->add_option("-d,--duration", args.duration_s, "Stop after this many seconds")
        ->check(CLI::PositiveNumber);
    rec->callback([&session] { record(session, args); });

    auto* rep = app.add_subcommand(
        "replay",
        "Publish the messages of a record file again with their original spacing.\n"
        "Topics under rt/ go through the IPC daemon's relay, as for every application");
    rep->add_option("file", args.file, "Record file to read")->required()->check(CLI::ExistingFile);
    rep->add_option("-s,--speed", args.speed, "Play this many times faster")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    rep->add_flag("-l,--loop", args.loop, "Start again at the end, until Ctrl-C");
    rep->callback([&session] { replay(session, args); });
}

}  // namespace tavictl
