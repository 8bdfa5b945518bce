#include "ecu/tavi/platform/bootflags.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <utility>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "overrides.h"
#include "sync_call.h"
#include "tpa.h"

namespace ecu::tavi::platform {

using namespace ecu::tavi::logging;

namespace {

const auto s_log = logging::module("tavi.bootflags");
const char* const kFlagsTopic = "system/bootflags";
const char* const kSetTopic = "system/bootflags/set";
using Adapter = com::PbInternalMessageAdapter<pb::BootFlags>;

// Presence bits every accepted message carries; the bank switch cause (0x20) is optional.
constexpr std::uint32_t kRequiredFields = 0x01 | 0x02 | 0x04 | 0x08 | 0x10 | 0x40;

std::uint32_t present_fields(const pb::BootFlags& flags) {
    return (flags.has_current_bank() ? 0x01u : 0u) | (flags.has_boot_bank() ? 0x02u : 0u) |
           (flags.has_bank0_valid() ? 0x04u : 0u) | (flags.has_bank1_valid() ? 0x08u : 0u) |
           (flags.has_boot_counter() ? 0x10u : 0u) | (flags.has_bank_switch_cause() ? 0x20u : 0u) |
           (flags.has_boot_mode() ? 0x40u : 0u);
}

bool application_cause(BootFlagsClient::BankSwitchCause cause) {
    return cause >= BootFlagsClient::CAUSE_TAVI && cause <= BootFlagsClient::CAUSE_TAVI_9;
}

bool real_bank(BootFlagsClient::BootBank bank) {
    return bank == BootFlagsClient::BOOT_BANK_0 || bank == BootFlagsClient::BOOT_BANK_1;
}

}  // namespace

const char* BootFlagsClient::to_str(BootBank bank) {
    switch (bank) {
        case BOOT_BANK_0:
            return "0";
        case BOOT_BANK_1:
            return "1";
        case BOOT_BANK_UNINITIALIZED:
            return "Uninitialized";
    }
    return "Not available";
}

const char* BootFlagsClient::to_str(BootMode mode) {
    switch (mode) {
        case BOOT_MODE_NORMAL:
            return "Normal";
        case BOOT_MODE_PRODUCTION_TEST:
            return "Production test";
        case BOOT_MODE_UNINITIALIZED:
            return "Uninitialized";
    }
    return "Not available";
}

const char* BootFlagsClient::to_str(BankSwitchCause cause) {
    static const char* const texts[] = {"Never switched",
                                        "U-boot unknown",
                                        "U-boot power on reset",
                                        "U-boot watch dog",
                                        "U-boot warm restart",
                                        "SW update",
                                        "TAVI",
                                        "TAVI 0",
                                        "TAVI 1",
                                        "TAVI 2",
                                        "TAVI 3",
                                        "TAVI 4",
                                        "TAVI 5",
                                        "TAVI 6",
                                        "TAVI 7",
                                        "TAVI 8",
                                        "TAVI 9",
                                        "Unknown"};
    if (cause <= CAUSE_UNKNOWN) {
        return texts[cause];
    }
    return cause == CAUSE_UNINITIALIZED ? "Uninitialized" : "Not available";
}

const char* BootFlagsClient::to_str(SetResult result) {
    static const char* const texts[] = {
        "Successful",       "Invalid bank",   "Invalid bank switch cause",
        "Serialize failed", "Publish failed", "Timeout failed",
        "Verify failed"};
    return result <= SET_VERIFY_FAILED ? texts[result] : "Not available";
}

// Keeps a plain back-pointer: the client unsubscribes it before it goes away.
class BootFlagsClient::PublishObserver : public com::ISubscriptionObserver {
public:
    explicit PublishObserver(BootFlagsClient* owner) : m_owner(owner) {}
    void message(const std::string&, const com::Message& message) override {
        m_owner->received(message);
    }

private:
    BootFlagsClient* m_owner;
};

BootFlagsClient::BootFlagsClient(std::shared_ptr<com::ITransportClient> transport, int wait_ms)
    : m_transport(std::move(transport)),
      m_observer(std::make_shared<PublishObserver>(this)),
      m_wait_ms(wait_ms),
      m_partition(tavi::_internal::client_partition()) {
    m_transport->subscribe(kFlagsTopic, 0, m_observer);
}

BootFlagsClient::~BootFlagsClient() {
    m_transport->unsubscribe(kFlagsTopic, m_observer);
}

void BootFlagsClient::received(const com::Message& message) {
    const auto parsed = Adapter(com::PROTOCOL_BOOT_FLAGS).deserialize(message);
    if (!parsed) {
        return;
    }
    const pb::BootFlags& flags = parsed.value();
    if ((present_fields(flags) & kRequiredFields) != kRequiredFields) {
        WARNING << s_log << "Received partial update of boot flags. Ignored";
        WARNING.do_flush();
        return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_timestamp = message.get_timestamp();
    m_selected_bank = static_cast<BootBank>(flags.boot_bank());
    m_current_bank = static_cast<BootBank>(flags.current_bank());
    m_bank0_valid = flags.bank0_valid();
    m_bank1_valid = flags.bank1_valid();
    m_boot_counter = flags.boot_counter();
    m_boot_mode = static_cast<BootMode>(flags.boot_mode());
    if (flags.has_bank_switch_cause()) {
        m_cause = static_cast<BankSwitchCause>(flags.bank_switch_cause());
    }
    ++m_updates;
    m_changed.notify_all();
}

bool BootFlagsClient::wait_for_message(std::unique_lock<std::mutex>& lock, const char* call) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(m_wait_ms, 0));
    if (com::_internal::wait_for_answer(*m_transport, s_log, call, lock, m_changed, deadline, [&] {
            return m_updates != 0;
        }) == com::_internal::SyncStatus::ANSWERED) {
        return true;
    }
    WARNING << s_log << "Waiting for boot flags message timed out";
    WARNING.do_flush();
    return false;
}

template <typename T>
std::pair<bool, T> BootFlagsClient::cached(const T& field, const char* call) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool received = m_updates != 0 || wait_for_message(lock, call);
    return {received, field};
}

std::pair<bool, BootFlagsClient::BootBank> BootFlagsClient::current_bank() {
    return cached(m_current_bank, "BootFlagsClient::current_bank");
}

std::pair<bool, BootFlagsClient::BootBank> BootFlagsClient::selected_bank() {
    return cached(m_selected_bank, "BootFlagsClient::selected_bank");
}

std::pair<bool, std::uint32_t> BootFlagsClient::boot_counter() {
    return cached(m_boot_counter, "BootFlagsClient::boot_counter");
}

std::pair<bool, bool> BootFlagsClient::boot_bank_valid(BootBank bank) {
    if (!real_bank(bank)) {
        return {false, false};
    }
    return cached(bank == BOOT_BANK_0 ? m_bank0_valid : m_bank1_valid,
                  "BootFlagsClient::boot_bank_valid");
}

std::pair<bool, BootFlagsClient::BankSwitchCause> BootFlagsClient::bank_switch_cause() {
    return cached(m_cause, "BootFlagsClient::bank_switch_cause");
}

std::pair<bool, BootFlagsClient::BootMode> BootFlagsClient::boot_mode() {
    return cached(m_boot_mode, "BootFlagsClient::boot_mode");
}

std::int64_t BootFlagsClient::update_timestamp() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_timestamp;
}

std::string BootFlagsClient::boot_flags_string(bool multiline) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::ostringstream text;
    if (multiline) {
        text << " running bank = " << to_str(m_current_bank) << "\n"
             << "    boot bank = " << to_str(m_selected_bank) << "\n"
             << " boot counter = " << m_boot_counter << "\n"
             << " bank 0 valid = " << (m_bank0_valid ? 1 : 0) << "\n"
             << " bank 1 valid = " << (m_bank1_valid ? 1 : 0) << "\n"
             << " bank switch_cause = " << to_str(m_cause) << "\n"
             << "    boot mode = " << to_str(m_boot_mode) << "\n";
    } else {
        text << "bank " << to_str(m_selected_bank) << " selected"
             << " (" << (m_current_bank != m_selected_bank ? "not " : "") << "running)"
             << ", bank 0 " << (m_bank0_valid ? "" : "in") << "valid"
             << ", bank 1 " << (m_bank1_valid ? "" : "in") << "valid"
             << ", boot counter at " << m_boot_counter << ", bank switch cause " << to_str(m_cause)
             << ", boot mode " << to_str(m_boot_mode);
    }
    return text.str();
}

BootFlagsClient::SetResult BootFlagsClient::set_boot_flags(const pb::BootFlags& flags) {
    const auto framed = Adapter(com::PROTOCOL_BOOT_FLAGS).serialize(flags);
    if (!framed) {
        return SET_SERIALIZE_FAILED;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t before = m_updates;
    const auto deadline =
        std::chrono::steady_clock::now() + tavi::_internal::fixed_wait(std::chrono::seconds(2));
    switch (com::_internal::publish_and_wait(*m_transport, s_log, "BootFlagsClient::set_boot_flags",
                                             kSetTopic, framed.value(), lock, m_changed, deadline,
                                             [&] { return m_updates != before; })) {
        case com::_internal::SyncStatus::ANSWERED:
            break;
        case com::_internal::SyncStatus::NOT_SENT:
            return SET_PUBLISH_FAILED;
        default:
            return SET_TIMEOUT_FAILED;
    }
    const char* mismatch = nullptr;
    if (flags.has_boot_bank() && static_cast<BootBank>(flags.boot_bank()) != m_selected_bank) {
        mismatch = "'boot bank";
    } else if (flags.has_bank_switch_cause() &&
               static_cast<BankSwitchCause>(flags.bank_switch_cause()) != m_cause) {
        mismatch = "'bank switch cause'";
    } else if (flags.has_bank0_valid() && flags.bank0_valid() != m_bank0_valid) {
        mismatch = "'bank 0 valid'";
    } else if (flags.has_bank1_valid() && flags.bank1_valid() != m_bank1_valid) {
        mismatch = "'bank 1 valid'";
    }
    if (mismatch) {
        ERROR << s_log << "Verification of new boot flags failed for " << mismatch;
        ERROR.do_flush();
        return SET_VERIFY_FAILED;
    }
    return SET_SUCCESSFUL;
}

bool BootFlagsClient::refused_on_tpa(const char* text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    return tavi::_internal::refuse_on_tpa(m_partition, s_log, text);
}

namespace {

BootFlagsClient::SetResult logged_failure(BootFlagsClient::SetResult result) {
    if (result != BootFlagsClient::SET_SUCCESSFUL) {
        ERROR << s_log << "Failed to set boot flags: " << BootFlagsClient::to_str(result);
        ERROR.do_flush();
    }
    return result;
}

}  // namespace

BootFlagsClient::SetResult BootFlagsClient::set_boot_bank(BootBank bank, BankSwitchCause cause) {
    if (refused_on_tpa("Cannot set boot bank on TPA partition.")) {
        return SET_REFUSED_ON_TPA;
    }
    if (!real_bank(bank)) {
        return SET_INVALID_BANK;
    }
    if (!application_cause(cause)) {
        return SET_INVALID_CAUSE;
    }
    pb::BootFlags flags;
    flags.set_boot_bank(static_cast<pb::BootFlags_BootBank>(bank));
    flags.set_bank_switch_cause(static_cast<pb::BootFlags_BankSwitchCause>(cause));
    return logged_failure(set_boot_flags(flags));
}

BootFlagsClient::SetResult BootFlagsClient::set_boot_bank_valid(BootBank bank, bool valid) {
    if (refused_on_tpa("Cannot set boot bank valid on TPA partition.")) {
        return SET_REFUSED_ON_TPA;
    }
    if (!real_bank(bank)) {
        return SET_INVALID_BANK;
    }
    pb::BootFlags flags;
    bank == BOOT_BANK_0 ? flags.set_bank0_valid(valid) : flags.set_bank1_valid(valid);
    return logged_failure(set_boot_flags(flags));
}

BootFlagsClient::SetResult BootFlagsClient::switch_bank(BankSwitchCause cause) {
    if (refused_on_tpa("Cannot set switch bank on TPA partition.")) {
        return SET_REFUSED_ON_TPA;
    }
    if (!application_cause(cause)) {
        ERROR << s_log << "Invalid bank switch cause requested," << to_str(cause)
              << " can not perform a bank switch.";
        ERROR.do_flush();
        return SET_INVALID_CAUSE;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_updates == 0 && !wait_for_message(lock, "BootFlagsClient::switch_bank")) {
        ERROR << s_log << "Failed to get current boot flags,"
              << " can not perform a bank switch.";
        ERROR.do_flush();
        return SET_TIMEOUT_FAILED;
    }
    const BootBank running = m_current_bank;
    if (!real_bank(running)) {
        ERROR << s_log << "Failed to get current bank,"
              << " can not perform a bank switch.";
        ERROR.do_flush();
        return SET_INVALID_BANK;
    }
    const BootBank target = running == BOOT_BANK_0 ? BOOT_BANK_1 : BOOT_BANK_0;
    if (!(target == BOOT_BANK_0 ? m_bank0_valid : m_bank1_valid)) {
        ERROR << s_log << "Other bank (" << to_str(target) << ") is not marked as valid,"
              << " can not perform a bank switch.";
        ERROR.do_flush();
        return SET_INVALID_BANK;
    }
    lock.unlock();

    NOTICE << s_log << "Performing bank switch"
           << " from bank" << running << " to bank" << target << " cause: " << to_str(cause);
    NOTICE.do_flush();
    const SetResult result = set_boot_bank(target, cause);
    if (result != SET_SUCCESSFUL) {
        ERROR << s_log << "Failed to set boot flags: " << to_str(result)
              << ". Could not perform a bank switch.";
        ERROR.do_flush();
    }
    return result;
}

std::shared_ptr<BootFlagsClient> create_boot_flags_client(
    std::shared_ptr<com::ITransportClient> transport) {
    if (!transport) {
        ERROR << s_log << "Cannot create a boot flags client without a transport client";
        ERROR.do_flush();
        return nullptr;
    }
    return std::make_shared<BootFlagsClient>(std::move(transport), 5000);
}

}  // namespace ecu::tavi::platform
