/// \file
/// The boot flags of the unit's two software banks (A/B system): which bank runs, which is
/// selected for the next boot, whether each is valid, the boot counter, why the bank was
/// last switched and the boot mode. The client keeps the latest flags published on
/// "system/bootflags", waits for the first ones when asked before they came, formats them,
/// and changes them through "system/bootflags/set", checking the flags that come back.
/// Changes are refused on the TPA partition.
///
/// Thread safe. Getters and setters that have to wait refuse at once (with an ERROR line,
/// as on a time-out) when made on the transport's network thread, i.e. inside an observer.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/partition.h"

namespace ecu::tavi::pb {
class BootFlags;
}

namespace ecu::tavi::platform {

/// Reads and changes the boot flags of the unit's two software banks.
///
/// Made by create_boot_flags_client(); holds the transport and subscribes "system/bootflags"
/// for its life; destroy it on any thread but the network thread. Flags published without
/// every field (the cause may be missing) are ignored with a WARNING line.
class TAVI_EXPORT BootFlagsClient {
public:
    /// A software bank.
    enum BootBank : std::uint32_t {
        BOOT_BANK_0 = 0,
        BOOT_BANK_1 = 1,
        BOOT_BANK_UNINITIALIZED = 255,
    };
    /// The mode the unit booted in.
    enum BootMode : std::uint32_t {
        BOOT_MODE_NORMAL = 0,
        BOOT_MODE_PRODUCTION_TEST = 1,
        BOOT_MODE_UNINITIALIZED = 255,
    };
    /// Why the selected bank was last switched. Causes CAUSE_TAVI..CAUSE_TAVI_9 are the ones
    /// an application may request.
    enum BankSwitchCause : std::uint32_t {
        CAUSE_NEVER_SWITCHED = 0,
        CAUSE_UBOOT_UNKNOWN = 1,
        CAUSE_UBOOT_POWER_ON_RESET = 2,
        CAUSE_UBOOT_WATCHDOG = 3,
        CAUSE_UBOOT_WARM_RESTART = 4,
        CAUSE_SW_UPDATE = 5,
        CAUSE_TAVI = 6,
        CAUSE_TAVI_0 = 7,
        CAUSE_TAVI_1 = 8,
        CAUSE_TAVI_2 = 9,
        CAUSE_TAVI_3 = 10,
        CAUSE_TAVI_4 = 11,
        CAUSE_TAVI_5 = 12,
        CAUSE_TAVI_6 = 13,
        CAUSE_TAVI_7 = 14,
        CAUSE_TAVI_8 = 15,
        CAUSE_TAVI_9 = 16,
        CAUSE_UNKNOWN = 17,
        CAUSE_UNINITIALIZED = 255,
    };
    /// The outcome of a change.
    enum SetResult : std::uint32_t {
        SET_SUCCESSFUL = 0,
        SET_INVALID_BANK = 1,
        SET_INVALID_CAUSE = 2,
        SET_SERIALIZE_FAILED = 3,
        SET_PUBLISH_FAILED = 4,
        SET_TIMEOUT_FAILED = 5,
        SET_VERIFY_FAILED = 6,
        SET_REFUSED_ON_TPA = 7,
    };

    /// Texts for logs ("0", "Uninitialized", "TAVI 3", "Timeout failed", ...); "Not
    /// available" for a value without one, SET_REFUSED_ON_TPA included. String literals.
    ///@{
    static const char* to_str(BootBank bank);
    static const char* to_str(BootMode mode);
    static const char* to_str(BankSwitchCause cause);
    static const char* to_str(SetResult result);
    ///@}

    /// wait_ms: how long getters wait for the first flags. The transport must not be empty.
    BootFlagsClient(std::shared_ptr<com::ITransportClient> transport, int wait_ms);
    /// Unsubscribes the flags.
    virtual ~BootFlagsClient();
    BootFlagsClient(const BootFlagsClient&) = delete;
    BootFlagsClient& operator=(const BootFlagsClient&) = delete;

    /// The running bank, as (whether flags were received, the value); the value is the
    /// initial one without. Before the first flags each getter waits up to wait_ms (WARNING
    /// line on time-out); on the network thread it does not wait (ERROR line).
    virtual std::pair<bool, BootBank> current_bank();
    /// The bank selected for the next boot; as current_bank().
    virtual std::pair<bool, BootBank> selected_bank();
    /// The boot counter; as current_bank().
    virtual std::pair<bool, std::uint32_t> boot_counter();
    /// Bank 0 or 1 only; (false, false) at once for any other.
    virtual std::pair<bool, bool> boot_bank_valid(BootBank bank);
    /// Why the bank was last switched; as current_bank().
    virtual std::pair<bool, BankSwitchCause> bank_switch_cause();
    /// The boot mode; as current_bank().
    virtual std::pair<bool, BootMode> boot_mode();
    /// Time stamp (ns since boot) of the last flags taken; 0 before any.
    virtual std::int64_t update_timestamp();

    /// Selects the bank for the next boot, with an application cause. Every setter blocks
    /// until the flags come back (at most 2 s), is refused on the TPA partition and, with
    /// SET_TIMEOUT_FAILED, on the network thread; a failure is also an ERROR line.
    virtual SetResult set_boot_bank(BootBank bank, BankSwitchCause cause);
    /// Marks bank 0 or 1 valid or invalid.
    virtual SetResult set_boot_bank_valid(BootBank bank, bool valid);
    /// Selects the other bank for the next boot, if it is valid; waits for the first flags
    /// like a getter.
    virtual SetResult switch_bank(BankSwitchCause cause);
    /// One line, or one item a line when multiline; the flags as they are, without waiting.
    virtual std::string boot_flags_string(bool multiline);

    /// Publishes the fields that flags carries and checks them in the flags that come back.
    /// The next complete flags received end the wait, whoever caused them. Not checked for
    /// the TPA partition or for valid values: the setters above do that.
    SetResult set_boot_flags(const pb::BootFlags& flags);

    /// Receives the flags on the transport's network thread; points back to the client.
    class PublishObserver;

private:
    void received(const com::Message& message);
    bool wait_for_message(std::unique_lock<std::mutex>& lock, const char* call);
    template <typename T>
    std::pair<bool, T> cached(const T& field, const char* call);
    bool refused_on_tpa(const char* text);

    BootBank m_current_bank = BOOT_BANK_UNINITIALIZED;
    BootBank m_selected_bank = BOOT_BANK_UNINITIALIZED;
    std::uint32_t m_boot_counter = 0;
    bool m_bank0_valid = false;
    bool m_bank1_valid = false;
    BankSwitchCause m_cause = CAUSE_UNINITIALIZED;
    BootMode m_boot_mode = BOOT_MODE_UNINITIALIZED;
    std::int64_t m_timestamp = 0;
    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<PublishObserver> m_observer;
    std::condition_variable m_changed;
    std::mutex m_mutex;
    int m_wait_ms;
    Partition m_partition;
    /// Flags taken so far: tells a received message apart from none and wakes setters.
    std::uint64_t m_updates = 0;
};

/// A client whose getters wait up to 5 s for the first flags. Empty, with an ERROR line,
/// without a transport.
TAVI_EXPORT std::shared_ptr<BootFlagsClient> create_boot_flags_client(
    std::shared_ptr<com::ITransportClient> transport);

}  // namespace ecu::tavi::platform
