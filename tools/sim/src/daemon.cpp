#include "ecu/tavi/sim/daemon.h"

#include <utility>

#include "ecu/tavi/logging/logging.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {
std::vector<DaemonFactory>& factories() {
    static std::vector<DaemonFactory> list;
    return list;
}
}  // namespace

DaemonRegistration::DaemonRegistration(DaemonFactory factory) {
    factories().push_back(std::move(factory));
}

const std::vector<DaemonFactory>& registered_daemons() {
    return factories();
}

Daemon::Daemon(std::string name) : m_name(std::move(name)) {}

Daemon::~Daemon() {
    detach();
}

void Daemon::set_delay(std::chrono::milliseconds delay) {
    m_delay_ms = delay.count();
}

void Daemon::set_silenced(bool silenced) {
    m_silenced = silenced;
}

void Daemon::attach(std::shared_ptr<com::ITransportClient> transport, std::shared_ptr<Unit> unit,
                    const SimulatorOptions* options) {
    m_transport = std::move(transport);
    m_unit = std::move(unit);
    m_options = options;
    std::lock_guard<std::mutex> lock(m_delay_mutex);
    m_delay_stop = false;
}

void Daemon::detach() {
    {
        std::lock_guard<std::mutex> lock(m_delay_mutex);
        m_delay_stop = true;
        m_pending.clear();
    }
    m_delay_cv.notify_all();
    if (m_delay_thread.joinable()) {
        m_delay_thread.join();
    }
}

namespace {

class HandlerObserver : public com::ISubscriptionObserver {
public:
    explicit HandlerObserver(Daemon::Handler handler) : m_handler(std::move(handler)) {}
    void message(const std::string& topic, const com::Message& message) override {
        m_handler(topic, message);
    }

private:
    Daemon::Handler m_handler;
};

}  // namespace

void Daemon::listen(const std::string& topic, Handler handler) {
    m_transport->subscribe(topic, 1, std::make_shared<HandlerObserver>(std::move(handler)));
}

void Daemon::clear_retained(const std::string& topic) {
    com::Message clear;
    clear.set_qos(1);
    clear.set_retain(true);
    m_transport->publish_wait_ack(topic, clear, std::chrono::seconds(2));
}

void Daemon::send(const std::string& topic, const com::Message& message) {
    if (m_silenced) {
        DEBUG << s_log << m_name << " is silenced: not publishing on " << topic;
        DEBUG.do_flush();
        return;
    }
    const long long delay = m_delay_ms;
    if (delay <= 0) {
        m_transport->publish(topic, message);
        return;
    }
    std::lock_guard<std::mutex> lock(m_delay_mutex);
    if (m_delay_stop) {
        return;
    }
    // Equal due times keep their order: the multimap inserts after equal keys.
    m_pending.emplace(std::chrono::steady_clock::now() + std::chrono::milliseconds(delay),
                      Pending{topic, message});
    if (!m_delay_thread.joinable()) {
        m_delay_thread = std::thread(&Daemon::run_delayed, this);
    }
    m_delay_cv.notify_all();
}

void Daemon::run_delayed() {
    std::unique_lock<std::mutex> lock(m_delay_mutex);
    while (!m_delay_stop) {
        if (m_pending.empty()) {
            m_delay_cv.wait(lock);
            continue;
        }
        auto first = m_pending.begin();
        const auto due_time = first->first;
        if (std::chrono::steady_clock::now() < due_time) {
            // Look again afterwards: something may have been added, or a stop requested.
            m_delay_cv.wait_until(lock, due_time);
            continue;
        }
        Pending due = std::move(first->second);
        m_pending.erase(first);
        // Silencing also swallows what was already held back.
        if (!m_silenced) {
            lock.unlock();
            m_transport->publish(due.topic, due.message);
            lock.lock();
        }
    }
}

}  // namespace ecu::tavi::sim
