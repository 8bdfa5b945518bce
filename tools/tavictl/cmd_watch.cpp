// watch: every message on the given topic filters, decoded, until Ctrl-C.
#include <iomanip>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "decoder.h"
#include "recordfile.h"

namespace tavictl {

using namespace ecu::tavi;

namespace {

struct WatchArgs {
    std::vector<std::string> filters;
    bool csv = false;
};

// Prints on the network thread, one message at a time.
class Printer : public com::ISubscriptionObserver {
public:
    enum Form { TEXT, JSON, CSV };
    explicit Printer(Form form) : m_form(form) {}

    void message(const std::string& topic, const com::Message& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_form == JSON) {
            std::cout << message_json(topic, message).dump() << std::endl;
            return;
        }
        const Decoded decoded = decode(topic, message.get_data());
        if (m_form == TEXT) {
            std::cout << to_text(topic, message.get_data(), decoded) << std::flush;
        } else if (!decoded.group.empty()) {
            print_csv(topic, decoded);
        }
    }

private:
    // A header row whenever the group changes, then one row per message: the sender's time,
    // the topic and the scaled value of every signal (empty when the signal is not valid).
    void print_csv(const std::string& topic, const Decoded& decoded) {
        std::ostringstream row;
        if (topic != m_csv_topic) {
            m_csv_topic = topic;
            row << "time_s,topic";
            for (const auto& signal : decoded.signals) {
                row << "," << signal.name;
            }
            row << "\n";
        }
        const double time_s =
            decoded.header ? static_cast<double>(decoded.header->timestamp_ns) / 1e9 : 0.0;
        row << std::fixed << std::setprecision(6) << time_s << "," << topic << std::defaultfloat
            << std::setprecision(10);
        for (const auto& signal : decoded.signals) {
            row << ",";
            if (signal.value) {
                row << *signal.value;
            }
        }
        std::cout << row.str() << std::endl;
    }

    Form m_form;
    std::mutex m_mutex;
    std::string m_csv_topic;
};

}  // namespace

void add_watch_command(CLI::App& app, Session& session) {
    static WatchArgs args;
    auto* watch = app.add_subcommand(
        "watch",
        "Print every message on the topic filters, decoded, until Ctrl-C.\n"
        "Frame header, protobuf body by topic, real-time groups signal by signal, hex otherwise");
    watch->add_option("filters", args.filters, "MQTT topic filters (+ and # allowed)")->required();
    watch->add_flag("--csv", args.csv,
                    "Only real-time groups, one CSV row of scaled signal values per message");
    watch->callback([&session] {
        set_streaming();
        session.load_rt_support();
        const auto form = args.csv                 ? Printer::CSV
                          : session.options().json ? Printer::JSON
                                                   : Printer::TEXT;
        session.follow(args.filters, std::make_shared<Printer>(form), "watching");
    });
}

}  // namespace tavictl
