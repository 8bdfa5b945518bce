// The variable service: every "var.<name>" of the unit as a retained pb::EcuVariable on
// "system/var/<name>", published again whenever the unit changes, so that a test can change
// a variable while applications run.
#include <string>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace ecu::tavi::sim {

namespace {

const std::string kSection = "var.";
const std::string kTopicPrefix = "system/var/";

class Vard : public Daemon {
public:
    Vard() : Daemon("var") {}

    std::vector<UnitKey> keys() const override {
        return {{kSection,
                 "platform variables, var.<name> = value, published retained on "
                 "\"system/var/<name>\" (\"hwversion\" among them)"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        for (const auto& name : names(unit)) {
            if (name.find_first_of("/+#") != std::string::npos) {
                errors.push_back(unit.origin(kSection + name) + ": '" + name +
                                 "' is no variable name: it holds '/', '+' or '#'");
            }
        }
    }

    Result<void, std::string> setup() override { return Result<void, std::string>::ok(); }

    void publish_state() override {
        for (const auto& name : names(unit())) {
            pb::EcuVariable variable;
            variable.set_value(unit().get(kSection + name));
            variable.set_timestamp(DateTime::systemtime_ms());
            send_framed(kTopicPrefix + name, variable, com::PROTOCOL_ECU_VARIABLE, true);
        }
    }

    void teardown() override {
        for (const auto& name : names(unit())) {
            clear_retained(kTopicPrefix + name);
        }
    }

private:
    static std::vector<std::string> names(const Unit& unit) {
        std::vector<std::string> found;
        for (const auto& key : unit.keys()) {
            if (key.compare(0, kSection.size(), kSection) == 0) {
                found.push_back(key.substr(kSection.size()));
            }
        }
        return found;
    }
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new Vard()); });

}  // namespace

}  // namespace ecu::tavi::sim
