// The system parameter table of the variable service: "sysparam.<id>.<name> = value" of the
// unit. Answers a request on "system/vard/request/sysparams" with the whole table on
// "system/sysparams" and applies writes from "system/sysparams/write", except to the
// parameters listed in "sysparam.locked", which keep their value: a writer then sees its
// verification fail.
#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/sysparams.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.sysparam");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const std::string kSection = "sysparam.";
const std::string kLockedKey = "sysparam.locked";
const char* const kTableTopic = "system/sysparams";
const char* const kRequestTopic = "system/vard/request/sysparams";
const char* const kWriteTopic = "system/sysparams/write";

struct Parameter {
    std::string key;
    std::string name;
};

// "<digits>.<name>" behind the section, or false.
bool parse_key(const std::string& key, unsigned int& id, std::string& name) {
    const std::string rest = key.substr(kSection.size());
    const auto dot = rest.find('.');
    if (dot == 0 || dot == std::string::npos || dot + 1 == rest.size() ||
        rest.find_first_not_of("0123456789") != dot || dot > 9) {
        return false;
    }
    id = static_cast<unsigned int>(std::strtoul(rest.c_str(), nullptr, 10));
    name = rest.substr(dot + 1);
    return true;
}

class Sysparamd : public Daemon {
public:
    Sysparamd() : Daemon("sysparam") {}

    std::vector<UnitKey> keys() const override {
        return {{kLockedKey, "ids of system parameters that refuse changes, comma-separated"},
                {kSection,
                 "system parameters, sysparam.<id>.<name> = value, listed on "
                 "\"system/sysparams\""}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        unsigned int id = 0;
        std::string name;
        for (const auto& key : unit.keys()) {
            if (key.compare(0, kSection.size(), kSection) == 0 && key != kLockedKey &&
                !parse_key(key, id, name)) {
                errors.push_back(unit.origin(key) + ": '" + key +
                                 "' is no system parameter: sysparam.<id>.<name> expected");
            }
        }
        for (const auto& locked : unit.get_list(kLockedKey)) {
            if (locked.find_first_not_of("0123456789") != std::string::npos) {
                errors.push_back(unit.origin(kLockedKey) + ": " + kLockedKey + ": '" + locked +
                                 "' is no parameter id");
            }
        }
    }

    Result<void, std::string> setup() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_written.clear();
        }
        listen(kRequestTopic, [this](const std::string&, const com::Message&) { publish_state(); });
        listen(kWriteTopic,
               [this](const std::string&, const com::Message& message) { write(message); });
        return Result<void, std::string>::ok();
    }

    // The whole table, with what was written over the unit's values.
    void publish_state() override {
        pb::SystemParameterList list;
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& parameter : parameters()) {
            auto* entry = list.add_entries();
            entry->set_id(parameter.first);
            entry->set_name(parameter.second.name);
            const auto written = m_written.find(parameter.first);
            entry->set_value(written != m_written.end() ? written->second
                                                        : unit().get(parameter.second.key));
        }
        send_framed(kTableTopic, list, com::PROTOCOL_SYSPARAMS);
    }

private:
    std::map<unsigned int, Parameter> parameters() const {
        std::map<unsigned int, Parameter> found;
        unsigned int id = 0;
        std::string name;
        for (const auto& key : unit().keys()) {
            if (key.compare(0, kSection.size(), kSection) == 0 && parse_key(key, id, name)) {
                found[id] = {key, name};
            }
        }
        return found;
    }

    void write(const com::Message& message) {
        const auto list =
            com::PbInternalMessageAdapter<pb::SystemParameterList>(com::PROTOCOL_SYSPARAMS)
                .deserialize(message);
        if (!list) {
            WARNING << s_log << "Ignoring a write that does not decode";
            WARNING.do_flush();
            return;
        }
        const auto known = parameters();
        const auto locked = unit().get_list(kLockedKey);
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : list.value().entries()) {
            if (known.count(entry.id()) == 0) {
                continue;
            }
            if (std::find(locked.begin(), locked.end(), std::to_string(entry.id())) !=
                locked.end()) {
                NOTICE << s_log << "parameter " << entry.id() << " refuses changes";
                NOTICE.do_flush();
                continue;
            }
            m_written[entry.id()] = entry.value();
        }
    }

    std::mutex m_mutex;
    std::map<unsigned int, std::string> m_written;
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Sysparamd()); });

}  // namespace

}  // namespace ecu::tavi::sim
