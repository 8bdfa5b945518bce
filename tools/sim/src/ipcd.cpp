// The IPC daemon: relays the real-time data that applications publish on "rttx/<x>" to
// "rt/<x>", picks up the real-time topics they announce on "subscription/announcement", and
// reports the topics picked up, with every topic it offers, on "system/ipc/subscriptions".
//
// It publishes as the client "ipcd": the library's transport rewrites "rt/" into "rttx/"
// for every other client, which is what keeps the relay from feeding itself. The report is
// retained, so an application that starts waiting for readiness after its announcement
// still learns the current list.
#include <dlfcn.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "ecu/tavi/rt/definitions.h"
#include "ecu/tavi/sim/daemon.h"
#include "ecu/tavi/sim/simulator.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.ipcd");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kAnnouncementTopic = "subscription/announcement";
const char* const kStatusTopic = "system/ipc/subscriptions";
const char* const kRelayFilter = "rttx/#";
const char* const kRefusedKey = "ipcd.refused_topics";
const std::string kRelayPrefix = "rttx/";
const std::string kRtPrefix = "rt/";

using Table = rt::_internal::SignalGroupsDefinition;

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The support library stays loaded for the life of the process: its table lives in it.
Result<const Table*, std::string> load_table(const std::string& path) {
    using R = Result<const Table*, std::string>;
    void* handle = ::dlopen(path.c_str(), RTLD_NOW);
    if (handle == nullptr) {
        return R::err("cannot load the real-time support library: " + std::string(::dlerror()));
    }
    auto factory = reinterpret_cast<rt::_internal::mapping_factory_fn>(
        ::dlsym(handle, rt::_internal::c_mapping_factory_symbol));
    if (factory == nullptr) {
        return R::err(path + " is no real-time support library: it has no " +
                      rt::_internal::c_mapping_factory_symbol);
    }
    const Table* table = factory();
    if (table == nullptr) {
        return R::err(path + ": " + rt::_internal::c_mapping_factory_symbol + " gave no table");
    }
    return R::ok(table);
}

class Ipcd : public Daemon {
public:
    Ipcd() : Daemon("ipcd") {}

    std::vector<UnitKey> keys() const override {
        return {{kRefusedKey,
                 "real-time topics the IPC daemon never picks up, comma-separated: "
                 "applications waiting for them time out"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        for (const auto& topic : unit.get_list(kRefusedKey)) {
            if (!starts_with(topic, kRtPrefix)) {
                errors.push_back(unit.origin(kRefusedKey) + ": " + kRefusedKey + ": '" + topic +
                                 "' is no real-time topic (rt/...)");
            }
        }
    }

    Result<void, std::string> setup() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_picked_up.clear();
        }
        m_table = nullptr;
        if (!options().rt_support_library.empty()) {
            auto table = load_table(options().rt_support_library);
            if (!table) {
                return Result<void, std::string>::err(table.error());
            }
            m_table = table.value();
            INFO << s_log << "offering " << m_table->size() << " real-time topics of "
                 << options().rt_support_library;
            INFO.do_flush();
        }
        listen(kRelayFilter, [this](const auto& t, const auto& m) { relay(t, m); });
        listen(kAnnouncementTopic, [this](const auto& t, const auto& m) { announced(t, m); });
        return Result<void, std::string>::ok();
    }

    void publish_state() override {
        pb::SubscriptionStatus status;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& topic : m_picked_up) {
            status.add_subscribed_topics(topic);
        }
        if (m_table != nullptr) {
            for (const auto& entry : *m_table) {
                status.add_available_topics(entry.first);
            }
        } else {
            *status.mutable_available_topics() = status.subscribed_topics();
        }
        auto framed = m_status_adapter.serialize(status);
        if (!framed) {
            ERROR << s_log << "Unable to serialize the subscription status";
            ERROR.do_flush();
            return;
        }
        com::Message message = framed.value();
        message.set_qos(1);
        message.set_retain(true);
        // Sent under the lock, so reports leave in the order they were made and the
        // retained one is the latest.
        send(kStatusTopic, message);
    }

    void teardown() override {
        // An empty retained message removes the report: applications of a later run must
        // not be told that this run's daemon picked their topics up.
        com::Message clear;
        clear.set_qos(1);
        clear.set_retain(true);
        transport().publish_wait_ack(kStatusTopic, clear, std::chrono::seconds(2));
    }

private:
    void relay(const std::string& topic, const com::Message& message) {
        if (!starts_with(topic, kRelayPrefix)) {
            return;
        }
        const std::string target = kRtPrefix + topic.substr(kRelayPrefix.size());
        com::Message relayed(message);
        // The broker marks only stored messages as retained, so the table decides.
        bool retained = false;
        if (m_table != nullptr) {
            auto it = m_table->find(target);
            retained = it != m_table->end() && it->second.group.retained;
        }
        relayed.set_retain(retained);
        DEBUG << s_log << "relaying " << topic << " to " << target;
        DEBUG.do_flush();
        send(target, relayed);
    }

    void announced(const std::string& /*topic*/, const com::Message& message) {
        auto decoded = m_announcement_adapter.deserialize(message);
        if (!decoded) {
            WARNING << s_log << "Ignoring an announcement that does not decode";
            WARNING.do_flush();
            return;
        }
        const pb::SubscriptionMessage& announcement = decoded.value();
        const std::string& client = announcement.client_name();
        const auto refused = unit().get_list(kRefusedKey);
        for (const auto& topic : announcement.topics()) {
            if (!starts_with(topic, kRtPrefix)) {
                WARNING << s_log << client << " announced '" << topic
                        << "', which is no real-time topic";
                WARNING.do_flush();
            } else if (std::find(refused.begin(), refused.end(), topic) != refused.end()) {
                NOTICE << s_log << "not picking up " << topic << " for " << client << " ("
                       << kRefusedKey << ")";
                NOTICE.do_flush();
            } else if (m_table != nullptr && m_table->count(topic) == 0) {
                WARNING << s_log << client << " announced " << topic
                        << ", which the platform does not offer";
                WARNING.do_flush();
            } else {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_picked_up.insert(topic).second) {
                    INFO << s_log << "picked up " << topic << " for " << client;
                    INFO.do_flush();
                }
            }
        }
        // Answered every time: a client announcing again after a reconnect waits for it.
        publish_state();
    }

    // The table of the support library, or null: then every announced topic is offered.
    const Table* m_table = nullptr;
    std::mutex m_mutex;
    std::set<std::string> m_picked_up;
    com::PbInternalMessageAdapter<pb::SubscriptionMessage> m_announcement_adapter{
        com::PROTOCOL_SUBSCRIPTION};
    com::PbInternalMessageAdapter<pb::SubscriptionStatus> m_status_adapter{
        com::PROTOCOL_SUBSCRIPTION};
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Ipcd()); });

}  // namespace

}  // namespace ecu::tavi::sim
