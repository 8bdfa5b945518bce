// The vehicle's maintenance computer: answers every maintenance request group sent on
// "rt/vekcan/tx/fws_fb" with a response group on "rt/vekcan/rx/fws_27".
//
// It takes the request where applications hand it to the IPC daemon ("rttx/..."), so that
// it needs no confirmation of a real-time topic to start; its answer reaches the
// applications through the IPC daemon's relay, as a group from the vehicle bus does.
//
// The answer repeats the request's identifying bytes (aaf, cid, einheitdaten, the two
// qualities, reihenfolge), reports the requested query type as bwi, and carries the unit's
// service information. It needs the real-time support library (--rt-support) to read and
// write the groups; without one it stays silent.
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/rt/signaladapter.h"
#include "ecu/tavi/sim/daemon.h"
#include "ecu/tavi/sim/simulator.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.maintcomputer");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kRequestTopic = "rt/vekcan/tx/fws_fb";
const char* const kRequestRelayTopic = "rttx/vekcan/tx/fws_fb";
const char* const kResponseTopic = "rt/vekcan/rx/fws_27";
const char* const kInfoKey = "maint.wartungsinformation";
const char* const kStatusKey = "maint.statusdaten";
const char* const kFurtherKey = "maint.weiteretermine";

// Response signal <- request signal whose value it repeats.
const std::vector<std::pair<const char*, const char*>> kRepeated = {
    {"aaf_mc2qbx", "aaf_qbx2mc"},
    {"cid_mc2qbx", "cid_qbx2mc"},
    {"einheitdaten_mc2qbx", "einheitdaten_qbx2mc"},
    {"qualitaetempfohlen_mc2qbx", "qualitaetempfohlen_qbx2mc"},
    {"qualitaetvorhanden_mc2qbx", "qualitaetvorhanden_qbx2mc"},
    {"reihenfolge_mc2qbx", "reihenfolge_qbx2mc"},
    {"bwi_mc2qbx", "abfragetyp_qbx2mc"},
};

bool is_number(const std::string& text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

class MaintComputer : public Daemon {
public:
    MaintComputer() : Daemon("maintcomputer") {}

    std::vector<UnitKey> keys() const override {
        return {{kInfoKey, "service information (32 bits) in every maintenance answer"},
                {kStatusKey, "status byte of every maintenance answer"},
                {kFurtherKey, "number of further service dates in every maintenance answer"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        for (const char* key : {kInfoKey, kStatusKey, kFurtherKey}) {
            if (!is_number(unit.get(key))) {
                errors.push_back(unit.origin(key) + ": " + key + ": '" + unit.get(key) +
                                 "' is no number");
            }
        }
    }

    Result<void, std::string> setup() override {
        if (options().rt_support_library.empty()) {
            NOTICE << s_log
                   << "no real-time support library: maintenance requests stay "
                      "unanswered";
            NOTICE.do_flush();
            return Result<void, std::string>::ok();
        }
        // The IPC daemon has loaded the library already, so creating the adapter from it
        // cannot fail here.
        rt::SignalAdapter::enforce_support_lib(options().rt_support_library);
        const auto& adapter = rt::SignalAdapter::instance();
        if (!adapter.is_valid_topic(kRequestTopic) || !adapter.is_valid_topic(kResponseTopic)) {
            NOTICE << s_log
                   << "the support library has no maintenance groups: requests stay "
                      "unanswered";
            NOTICE.do_flush();
            return Result<void, std::string>::ok();
        }
        listen(kRequestRelayTopic,
               [this](const std::string&, const com::Message& message) { received(message); });
        return Result<void, std::string>::ok();
    }

private:
    double unit_number(const char* key) const {
        return static_cast<double>(std::strtoul(unit().get(key).c_str(), nullptr, 10));
    }

    void received(const com::Message& message) {
        const auto& adapter = rt::SignalAdapter::instance();
        auto request = adapter.unpack(kRequestTopic, message);
        auto answer = adapter.create_sg(kResponseTopic);
        if (!request || !answer) {
            WARNING << s_log << "Ignoring a maintenance request that does not unpack";
            WARNING.do_flush();
            return;
        }
        for (const auto& [to, from] : kRepeated) {
            if (const rt::Signal* signal = request.value().signal(from)) {
                answer->set_signal_scaled_value(to, signal->value_scaled().value);
            }
        }
        answer->set_signal_scaled_value("wartungsinformation_mc2qbx", unit_number(kInfoKey));
        answer->set_signal_scaled_value("statusdaten_mc2qbx", unit_number(kStatusKey));
        answer->set_signal_scaled_value("weiteretermine_mc2qbx", unit_number(kFurtherKey));
        auto packed = adapter.pack(*answer);
        if (!packed) {
            WARNING << s_log << "Unable to pack the maintenance answer: " << packed.error().message;
            WARNING.do_flush();
            return;
        }
        DEBUG << s_log << "answering a maintenance request";
        DEBUG.do_flush();
        send(kResponseTopic, packed.value());
    }
};

const DaemonRegistration s_registration([] {
    return std::unique_ptr<Daemon>(new MaintComputer());
});

}  // namespace

}  // namespace ecu::tavi::sim
