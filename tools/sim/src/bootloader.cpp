// The boot loader's view of the two software banks: the unit's "bootflags.*" keys as a
// retained pb::BootFlags on "system/bootflags". Changes set on "system/bootflags/set" are
// applied over the unit's values and published at once, as the platform echoes them. The
// running bank never changes: that would take a reboot.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "ecu/tavi/sim/daemon.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.sim.bootflags");
}

using namespace ecu::tavi::logging;

namespace ecu::tavi::sim {

namespace {

const char* const kFlagsTopic = "system/bootflags";
const char* const kSetTopic = "system/bootflags/set";
const char* const kBankKey = "bootflags.current_bank";
const char* const kValid0Key = "bootflags.bank0_valid";
const char* const kValid1Key = "bootflags.bank1_valid";
const char* const kCounterKey = "bootflags.boot_counter";
const char* const kModeKey = "bootflags.boot_mode";

class BootLoader : public Daemon {
public:
    BootLoader() : Daemon("bootflags") {}

    std::vector<UnitKey> keys() const override {
        return {{kBankKey, "the bank running now (and selected at start): 0 or 1"},
                {kValid0Key, "whether bank 0 is valid: true or false"},
                {kValid1Key, "whether bank 1 is valid: true or false"},
                {kCounterKey, "the boot counter"},
                {kModeKey, "boot mode: normal or production_test"}};
    }

    void check(const Unit& unit, std::vector<std::string>& errors) const override {
        auto expect = [&](const char* key, std::vector<std::string> allowed) {
            const std::string value = unit.get(key);
            if (!value.empty() &&
                std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
                errors.push_back(unit.origin(key) + ": " + key + ": '" + value +
                                 "' is not one of the allowed values");
            }
        };
        expect(kBankKey, {"0", "1"});
        expect(kValid0Key, {"true", "false"});
        expect(kValid1Key, {"true", "false"});
        expect(kModeKey, {"normal", "production_test"});
        const std::string counter = unit.get(kCounterKey);
        if (counter.find_first_not_of("0123456789") != std::string::npos || counter.size() > 9) {
            errors.push_back(unit.origin(kCounterKey) + ": " + kCounterKey + ": '" + counter +
                             "' is no count");
        }
    }

    Result<void, std::string> setup() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_applied.Clear();
        }
        listen(kSetTopic,
               [this](const std::string&, const com::Message& message) { set(message); });
        return Result<void, std::string>::ok();
    }

    void publish_state() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        pb::BootFlags flags;
        const auto bank =
            unit().get(kBankKey) == "1" ? pb::BootFlags::BOOT_BANK_1 : pb::BootFlags::BOOT_BANK_0;
        flags.set_current_bank(bank);
        flags.set_boot_bank(bank);
        flags.set_bank0_valid(unit().get(kValid0Key) != "false");
        flags.set_bank1_valid(unit().get(kValid1Key) != "false");
        flags.set_boot_counter(
            static_cast<std::uint32_t>(std::stoul("0" + unit().get(kCounterKey))));
        flags.set_bank_switch_cause(pb::BootFlags::CAUSE_NEVER_SWITCHED);
        flags.set_boot_mode(unit().get(kModeKey) == "production_test"
                                ? pb::BootFlags::BOOT_MODE_PRODUCTION_TEST
                                : pb::BootFlags::BOOT_MODE_NORMAL);
        flags.MergeFrom(m_applied);
        send_framed(kFlagsTopic, flags, com::PROTOCOL_BOOT_FLAGS, true);
    }

    void teardown() override { clear_retained(kFlagsTopic); }

private:
    void set(const com::Message& message) {
        const auto flags = com::PbInternalMessageAdapter<pb::BootFlags>(com::PROTOCOL_BOOT_FLAGS)
                               .deserialize(message);
        if (!flags) {
            WARNING << s_log << "Ignoring boot flags that do not decode";
            WARNING.do_flush();
            return;
        }
        // What the boot loader lets an application change.
        pb::BootFlags change;
        const pb::BootFlags& wanted = flags.value();
        if (wanted.has_boot_bank()) {
            change.set_boot_bank(wanted.boot_bank());
        }
        if (wanted.has_bank_switch_cause()) {
            change.set_bank_switch_cause(wanted.bank_switch_cause());
        }
        if (wanted.has_bank0_valid()) {
            change.set_bank0_valid(wanted.bank0_valid());
        }
        if (wanted.has_bank1_valid()) {
            change.set_bank1_valid(wanted.bank1_valid());
        }
        NOTICE << s_log << "applying " << change.ShortDebugString();
        NOTICE.do_flush();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_applied.MergeFrom(change);
        }
        publish_state();
    }

    std::mutex m_mutex;
    pb::BootFlags m_applied;
};

const DaemonRegistration s_registration([] { return std::unique_ptr<Daemon>(new BootLoader()); });

}  // namespace

}  // namespace ecu::tavi::sim
