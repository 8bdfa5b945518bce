/// \file
/// A real-time signal group in memory: identity, topic, bus and its signals in payload order.
/// Groups are made by the SignalAdapter (create_sg, unpack) and written by the application.
///
/// Not thread safe: use one group from one thread at a time. A group's signals point into the
/// support library's table, which stays loaded for the life of the process.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "ecu/tavi/export.h"
#include "ecu/tavi/rt/signal.h"

namespace ecu::tavi::rt {

/// A group of signals as carried by one real-time message.
///
/// A value type; not thread safe. Copies are independent; their signals share the
/// definitions of the support library's table.
class TAVI_EXPORT SignalGroup {
public:
    /// The bus numbers counted from zero; NO_BUS for groups that live on no vehicle bus.
    enum CanBus : int { CAN_BUS_1 = 0, CAN_BUS_2 = 1, NO_BUS = 2 };

    /// A group without signals; SignalAdapter::create_sg() makes complete ones.
    SignalGroup(unsigned int rtid, std::string name, std::string const& topic, CanBus bus,
                bool retained, unsigned long long timestamp);

    /// The real-time identifier of the group.
    unsigned int rtid() const { return m_rtid; }
    /// The group's name in the table.
    const std::string& name() const { return m_name; }
    /// The broker topic ("rt/...").
    const std::string& topic() const { return m_topic; }
    /// The vehicle bus the group lives on.
    CanBus bus() const { return m_bus; }
    /// Whether the group's messages are published retained.
    bool retained() const { return m_retained; }
    /// The sender's time stamp of an unpacked group; 0 for a new one.
    unsigned long long timestamp() const { return m_timestamp; }
    /// The signals in payload order. The reference, and pointers into it, stay valid until
    /// add_signal() is called.
    const std::vector<Signal>& signals() const { return m_signals; }
    /// Names written through the setters since creation, each once, in first-write order.
    const std::vector<std::string>& set_signals() const { return m_set_signals; }

    /// Appends a signal to the payload.
    void add_signal(Signal signal) { m_signals.push_back(std::move(signal)); }

    /// Whether the group has a signal of that name.
    bool has_signal(std::string const& name) const;
    /// The signal of that name, or nullptr (WARNING line) when the group has none. Valid
    /// until add_signal() is called or the group is destroyed.
    const Signal* signal(std::string const& name) const;
    /// Write the named signal and record its name; false when the name is unknown (logged)
    /// or the signal refuses the value.
    bool set_signal_data(std::string const& name, std::vector<unsigned char> const& data);
    /// Write the named signal's physical value; see Signal::set_scaled_value().
    bool set_signal_scaled_value(std::string const& name, double value);
    /// Records a name as written, once.
    void add_set_signals(std::string const& name);

    /// True when every signal's status is OK; a group without signals is valid.
    bool is_valid() const;

    /// Compares rtid, name, topic and the signals; not bus, retain flag, time stamp or the
    /// names set.
    bool operator==(SignalGroup const& other) const;
    /// The negation of operator==.
    bool operator!=(SignalGroup const& other) const { return !(*this == other); }

private:
    friend class SignalAdapter;  ///< reserves the signal list when it builds a group

    Signal* find(std::string const& name);

    std::string m_name;
    unsigned int m_rtid;
    std::string m_topic;
    std::vector<Signal> m_signals;
    std::vector<std::string> m_set_signals;
    CanBus m_bus;
    bool m_retained;
    unsigned long long m_timestamp;
};

/// "1" and "2" for the two buses, "-" for any other value.
TAVI_EXPORT const char* to_str(SignalGroup::CanBus bus);

}  // namespace ecu::tavi::rt
