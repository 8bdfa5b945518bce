// The soak: long runs of the library's traffic through the simulator in this process, with
// the broker restarted under it at a fixed interval.
//
//   soak [--uds=N] [--variables=N] [--groups=N] [--restart-every=N] [--warmup=N]
//
// Three phases, one million operations each by default, the broker restarted every 100,000:
//   - UDS: synchronous ReadDataByIdentifier requests on an allocated interface of udsifd;
//   - variables: first reads of a variable, each by a new client, so that every read is a
//     subscription answered by the broker with the variable service's retained value;
//   - groups: real-time signal groups packed by the signal adapter, published in batches,
//     relayed by the IPC daemon and unpacked by a second application on arrival.
// After each restart every application and daemon must be connected and ready again before
// the soak goes on; a restart falls between two batches, once every group sent has arrived.
//
// Reports per phase the count, the failures (a request without its answer, a group lost or
// unreadable), the time and the rate, and the resident memory of the process after a short
// warm-up and at the end. Exits 1 if anything failed or the resident memory grew by 1 MiB
// or more, 2 on bad arguments or when the simulator does not start.
#include <mosquittopp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/com/client.h"
#include "ecu/tavi/diag/uds_client.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/testkit.h"
#include "ecu/tavi/var/variables.h"
#include "overrides.h"

namespace {

using namespace ecu::tavi;
using Clock = std::chrono::steady_clock;

const char* const kUnit =
    "unit.hostname = tele-soak\n"
    "uds.interfaces = 1\n"
    "uds.answer.17.22f190 = 62f190574442393633343033314c393837363534\n"
    "var.hwversion = vcm\n";
const char* const kGroupTopic = "rt/vekcan/rx/engine_conditions";
constexpr unsigned kRequestTimeoutMs = 5000;
// Groups in flight at once: well under the broker's queue for a slow subscriber.
constexpr uint64_t kGroupBatch = 200;
constexpr auto kGroupsArrive = std::chrono::seconds(10);
constexpr auto kReadyAgain = std::chrono::seconds(30);
// The transport's pause before it reconnects (5 s) shrinks to 100 ms: thirty restarts
// would otherwise spend minutes waiting for nothing.
constexpr unsigned kFixedWaitDivisor = 50;
#ifdef MURNTAVI_SOAK_SANITIZED
// The sanitizers' shadow memory and history grow with the traffic: the growth is reported,
// but says nothing about the library.
constexpr bool kGrowthLimited = false;
#else
constexpr bool kGrowthLimited = true;
#endif
constexpr long kGrowthLimitKiB = 1024;

struct Options {
    uint64_t uds = 1000000;
    uint64_t variables = 1000000;
    uint64_t groups = 1000000;
    uint64_t restart_every = 100000;
    uint64_t warmup = 2000;
};

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        char* end = nullptr;
        const unsigned long long value =
            eq == std::string::npos ? 0 : std::strtoull(arg.c_str() + eq + 1, &end, 10);
        if (eq == std::string::npos || end == arg.c_str() + eq + 1 || *end != '\0') {
            return false;
        }
        if (name == "--uds") {
            options.uds = value;
        } else if (name == "--variables") {
            options.variables = value;
        } else if (name == "--groups") {
            options.groups = value;
        } else if (name == "--restart-every" && value > 0) {
            options.restart_every = value;
        } else if (name == "--warmup") {
            options.warmup = value;
        } else {
            return false;
        }
    }
    return true;
}

// VmRSS of this process in KiB, -1 when unreadable.
long resident_kib() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return -1;
}

// Round-trip times in whole microseconds; allocated once, so that recording a million of
// them does not move the resident memory being watched.
class Latencies {
public:
    Latencies() : m_buckets(kBuckets, 0) {}
    void add(Clock::duration took) {
        const auto us = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
        ++m_buckets[static_cast<size_t>(
            std::min<long long>(std::max<long long>(us, 0), kBuckets - 1))];
        ++m_count;
    }
    // The percentile in microseconds; the last bucket stands for everything above it.
    long long percentile(unsigned pct) const {
        const uint64_t rank = m_count * pct / 100;
        uint64_t seen = 0;
        for (size_t us = 0; us < m_buckets.size(); ++us) {
            seen += m_buckets[us];
            if (seen > rank) {
                return static_cast<long long>(us);
            }
        }
        return 0;
    }
    uint64_t count() const { return m_count; }
    void clear() {
        std::fill(m_buckets.begin(), m_buckets.end(), 0);
        m_count = 0;
    }

private:
    static constexpr long long kBuckets = 100000;
    std::vector<uint32_t> m_buckets;
    uint64_t m_count = 0;
};

struct Phase {
    Phase(const char* phase_name, const char* phase_unit) : name(phase_name), unit(phase_unit) {}
    const char* name;
    const char* unit;
    uint64_t done = 0;
    uint64_t failed = 0;
    Clock::duration busy{};
    Latencies latencies;
};

// Counts the connections an application's transport made.
class Connections : public com::IConnectionObserver {
public:
    void on_connect(int rc) override {
        if (rc != 0) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_count;
        }
        m_cv.notify_all();
    }
    uint64_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_count;
    }
    // Waits for a connection after the first `seen`; false at the deadline.
    bool wait_beyond(uint64_t seen, Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_until(lock, deadline, [&] { return m_count > seen; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    uint64_t m_count = 0;
};

// The receiving application: counts every group that arrives and unpacks.
class GroupInbox : public com::ISubscriptionObserver {
public:
    void message(const std::string& topic, const com::Message& message) override {
        const bool readable = rt::SignalAdapter::instance().unpack(topic, message).has_value();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++(readable ? m_received : m_unreadable);
        }
        m_cv.notify_all();
    }
    // Waits until `total` groups arrived in all; false at the deadline.
    bool wait_for(uint64_t total) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, kGroupsArrive,
                             [&] { return m_received + m_unreadable >= total; });
    }
    uint64_t received() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    uint64_t m_received = 0;
    uint64_t m_unreadable = 0;
};

class Soak {
public:
    explicit Soak(sim::TestKit& kit) : m_kit(kit) {}

    // Connects the four applications and allocates the UDS interface.
    bool start() {
        m_uds_app = application("soak-uds");
        m_var_app = application("soak-variables");
        m_sender = application("soak-groups-tx");
        m_receiver = application("soak-groups-rx");
        m_uds = diag::create_uds_client(m_uds_app, nullptr);
        m_group = rt::SignalAdapter::instance().create_sg(kGroupTopic);
        m_receiver->subscribe(kGroupTopic, 0, m_inbox);
        if (!m_uds || !m_group) {
            return false;
        }
        for (auto& app : apps()) {
            if (!app->connect()) {
                return false;
            }
            app->start();
            if (!app->wait_ready(kReadyAgain)) {
                return false;
            }
        }
        return m_uds->allocate_interface({1, 1, 0}, kRequestTimeoutMs) ==
               diag::UDS_INTERFACE_ALLOCATED;
    }

    void stop() {
        if (m_uds) {
            m_uds->release_interface(kRequestTimeoutMs);
            m_uds.reset();
        }
        for (auto& app : apps()) {
            app->stop();
        }
    }

    // Runs all three phases with these counts.
    void run(const Options& options) {
        run_phase(m_phases[0], options.uds, options.restart_every, 1,
                  [this](uint64_t) { return uds_request(); });
        run_phase(m_phases[1], options.variables, options.restart_every, 1,
                  [this](uint64_t) { return variable_read(); });
        run_phase(m_phases[2], options.groups, options.restart_every, kGroupBatch,
                  [this](uint64_t n) { return group_batch(n); });
    }

    // Forgets what the warm-up counted; from now on each restart tells how far it is.
    void reset() {
        m_progress = true;
        for (auto& phase : m_phases) {
            phase.done = phase.failed = 0;
            phase.busy = {};
            phase.latencies.clear();
        }
        m_restarts = 0;
        m_restart_failures = 0;
        m_longest_restart = {};
    }

    // Requests and groups that failed, and restarts after which something was not ready.
    uint64_t failures() const {
        uint64_t failed = m_restart_failures;
        for (const auto& phase : m_phases) {
            failed += phase.failed;
        }
        return failed;
    }

    // Prints the figures; true when nothing failed.
    bool report() const {
        bool clean = m_restart_failures == 0;
        for (const auto& phase : m_phases) {
            const double seconds = std::chrono::duration<double>(phase.busy).count();
            std::printf("soak: %-9s %9llu %s, %llu failed, %7.1f s, %8.0f %s/s", phase.name,
                        static_cast<unsigned long long>(phase.done), phase.unit,
                        static_cast<unsigned long long>(phase.failed), seconds,
                        seconds > 0 ? static_cast<double>(phase.done) / seconds : 0.0, phase.unit);
            if (phase.latencies.count() > 0) {
                std::printf(", p50 %lld us, p99 %lld us", phase.latencies.percentile(50),
                            phase.latencies.percentile(99));
            }
            std::printf("\n");
            clean = clean && phase.failed == 0;
        }
        std::printf(
            "soak: %llu broker restarts, %llu not ready again within %lld s, longest wait "
            "%.2f s\n",
            static_cast<unsigned long long>(m_restarts),
            static_cast<unsigned long long>(m_restart_failures),
            static_cast<long long>(kReadyAgain.count()),
            std::chrono::duration<double>(m_longest_restart).count());
        return clean;
    }

private:
    std::shared_ptr<com::ITransportClient> application(const std::string& name) {
        auto configuration = m_kit.client_configuration(name);
        auto app = com::create_client(configuration, com::MQTT);
        app->add_connection_observer(m_connections.emplace_back(std::make_shared<Connections>()));
        return app;
    }
    std::vector<std::shared_ptr<com::ITransportClient>> apps() const {
        return {m_uds_app, m_var_app, m_sender, m_receiver};
    }

    // count operations in batches of at most max_batch, the broker restarted at every
    // multiple of restart_every; batch(n) carries out n of them and returns the failures.
    void run_phase(Phase& phase, uint64_t count, uint64_t restart_every, uint64_t max_batch,
                   const std::function<uint64_t(uint64_t)>& batch) {
        uint64_t next_restart = restart_every;
        for (uint64_t done = 0; done < count;) {
            if (done == next_restart) {
                if (m_progress) {
                    std::printf("soak: %s: %llu of %llu, %llu failed\n", phase.name,
                                static_cast<unsigned long long>(done),
                                static_cast<unsigned long long>(count),
                                static_cast<unsigned long long>(phase.failed));
                    std::fflush(stdout);
                }
                restart_broker();
                next_restart += restart_every;
            }
            const uint64_t n = std::min({max_batch, count - done, next_restart - done});
            const auto start = Clock::now();
            const uint64_t failed = batch(n);
            const auto took = Clock::now() - start;
            phase.busy += took;
            if (max_batch == 1) {
                phase.latencies.add(took);
            }
            if (failed > 0 && phase.failed < 10) {
                std::fprintf(stderr, "soak: %s: %llu of %llu failed after %llu\n", phase.name,
                             static_cast<unsigned long long>(failed),
                             static_cast<unsigned long long>(n),
                             static_cast<unsigned long long>(done));
            }
            phase.failed += failed;
            done += n;
            phase.done += n;
        }
    }

    // Stops and starts the broker on its port, then waits until every application has
    // connected again and is ready, and every daemon is back with its subscriptions and
    // its retained state.
    void restart_broker() {
        const auto start = Clock::now();
        std::vector<uint64_t> before;
        for (const auto& connections : m_connections) {
            before.push_back(connections->count());
        }
        bool ready = m_kit.broker().restart();
        const auto deadline = start + kReadyAgain;
        for (size_t i = 0; i < m_connections.size(); ++i) {
            ready = ready && m_connections[i]->wait_beyond(before[i], deadline);
        }
        ready = ready &&
                m_kit.simulator().wait_ready(
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()));
        for (auto& app : apps()) {
            const auto left = std::chrono::duration_cast<std::chrono::seconds>(
                deadline - Clock::now() + std::chrono::milliseconds(999));
            ready = ready && app->wait_ready(std::max(left, std::chrono::seconds(1)));
        }
        ++m_restarts;
        if (!ready) {
            ++m_restart_failures;
            std::fprintf(stderr, "soak: restart %llu: not ready again within %lld s\n",
                         static_cast<unsigned long long>(m_restarts),
                         static_cast<long long>(kReadyAgain.count()));
        }
        m_longest_restart = std::max(m_longest_restart, Clock::now() - start);
    }

    uint64_t uds_request() {
        static const diag::UdsMessage vin{0x17, {0x22, 0xf1, 0x90}};
        const auto answer = m_uds->send_request(vin, kRequestTimeoutMs, 0xFF, 255);
        return answer && answer.value().data.size() == 20 && answer.value().data[0] == 0x62 ? 0 : 1;
    }

    uint64_t variable_read() {
        auto variables = var::create_var_client(m_var_app);
        return variables->get("hwversion", "", kRequestTimeoutMs) == "vcm" ? 0 : 1;
    }

    uint64_t group_batch(uint64_t n) {
        const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
        for (uint64_t i = 0; i < n; ++i) {
            m_group->set_signal_scaled_value("engine_oil_level", static_cast<double>(i % 250));
            auto packed = adapter.pack(*m_group);
            if (packed) {
                m_sender->publish(kGroupTopic, packed.value());
            }
        }
        m_groups_sent += n;
        // At the deadline what is missing counts as lost (a straggler arriving later is not
        // counted twice); an unreadable group counts as lost too.
        m_inbox->wait_for(m_groups_sent);
        const uint64_t missing = m_groups_sent - std::min(m_groups_sent, m_inbox->received());
        const uint64_t lost = missing > m_groups_missing ? missing - m_groups_missing : 0;
        m_groups_missing = missing;
        return lost;
    }

    sim::TestKit& m_kit;
    std::vector<std::shared_ptr<Connections>> m_connections;
    std::shared_ptr<com::ITransportClient> m_uds_app;
    std::shared_ptr<com::ITransportClient> m_var_app;
    std::shared_ptr<com::ITransportClient> m_sender;
    std::shared_ptr<com::ITransportClient> m_receiver;
    std::shared_ptr<diag::UdsClient> m_uds;
    std::shared_ptr<rt::SignalGroup> m_group;
    std::shared_ptr<GroupInbox> m_inbox = std::make_shared<GroupInbox>();
    uint64_t m_groups_sent = 0;
    uint64_t m_groups_missing = 0;
    Phase m_phases[3] = {{"uds", "requests"}, {"variables", "requests"}, {"groups", "groups"}};
    bool m_progress = false;
    uint64_t m_restarts = 0;
    uint64_t m_restart_failures = 0;
    Clock::duration m_longest_restart{};
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: soak [--uds=N] [--variables=N] [--groups=N] [--restart-every=N] "
                     "[--warmup=N]\n");
        return 2;
    }
    const auto begin = Clock::now();
    logging::set_log_level(3);  // errors only: every restart is an error for each connection
    mosqpp::lib_init();
    const _internal::ScopedOverrides fast(kFixedWaitDivisor);
    rt::SignalAdapter::enforce_support_lib(MURNTAVI_RTSUPPORT_LIB);
    rt::SignalAdapter::instance();
    sim::TestKit kit({kUnit, MURNTAVI_RTSUPPORT_LIB});
    if (!kit.start()) {
        std::fprintf(stderr, "soak: cannot start the simulator: %s\n", kit.error().c_str());
        return 2;
    }
    Soak soak(kit);
    if (!soak.start()) {
        std::fprintf(stderr, "soak: the applications did not get ready\n");
        soak.stop();
        return 2;
    }

    // The warm-up goes through every path once, a restart included, so that what is
    // allocated once and kept (buffers, the logging tree, the allocator's arenas) is in
    // the first figure.
    const uint64_t warmup = std::max<uint64_t>(options.warmup, 2);
    soak.run({warmup, warmup, warmup, warmup / 2, 0});
    const uint64_t warmup_failures = soak.failures();
    soak.reset();
    const long rss_start = resident_kib();

    soak.run(options);

    const long rss_end = resident_kib();
    const bool clean = soak.report();
    soak.stop();
    const long growth = rss_end - rss_start;
    std::printf(
        "soak: resident memory %ld KiB at the start, %ld KiB at the end, growth %ld KiB "
        "(%s %ld KiB)\n",
        rss_start, rss_end, growth, kGrowthLimited ? "limit" : "no limit here, elsewhere",
        kGrowthLimitKiB);
    if (warmup_failures > 0) {
        std::printf("soak: %llu failed during the warm-up\n",
                    static_cast<unsigned long long>(warmup_failures));
    }
    const bool passed = clean && warmup_failures == 0 && rss_start > 0 &&
                        (!kGrowthLimited || growth < kGrowthLimitKiB);
    std::printf("soak: %s in %.1f s\n", passed ? "PASSED" : "FAILED",
                std::chrono::duration<double>(Clock::now() - begin).count());
    return passed ? 0 : 1;
}
