/// \file
/// The process-wide translator between signal groups and the framed pb::RtSignal messages
/// on their "rt/..." topics. It knows no vehicle signal by itself: the platform's support
/// library (loaded with dlopen) supplies the table of every group.
///
/// The singleton is created by the first instance() without any lock: make that call (or
/// enforce_definition) before other threads use the adapter. Afterwards the adapter is
/// read-only and every member may be called from any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"
#include "ecu/tavi/rt/definitions.h"
#include "ecu/tavi/rt/signalgroup.h"

namespace ecu::tavi::rt {

/// Why pack or unpack failed, with the text that explains it.
struct SignalAdapterError {
    /// What failed.
    enum Code : int {
        UNKNOWN_TOPIC = 1,    ///< the topic is not in the table
        SERIALIZATION = 2,    ///< the message could not be framed
        DESERIALIZATION = 3,  ///< the payload is no framed pb::RtSignal
        UNEXPECTED_SIZE = 4,  ///< the data does not fit the group's signals
    };
    Code code;            ///< what failed
    std::string message;  ///< the details, for a log line
};

/// Packs and unpacks signal groups by the table of the platform's support library.
///
/// Thread rules: instance() creates the singleton without a lock, so call it once on one
/// thread before others use the adapter (the maintenance request client, for one, calls it
/// on the transport's network thread when an answer arrives). After that every const member
/// may be called from any thread. enforce_definition(), enforce_support_lib() and
/// reset_instance() are not thread safe, and enforce_definition() and reset_instance()
/// invalidate every reference instance() returned before: call them only while no other
/// thread uses the adapter.
class TAVI_EXPORT SignalAdapter {
public:
    /// The table: every group by its topic.
    using Mapping = _internal::SignalGroupsDefinition;

    /// Where instance() looks for the support library unless told otherwise.
    static constexpr const char* c_default_rt_support_library =
        "/etc/orvo/libmurntavi_rtsupport.so";

    SignalAdapter(const SignalAdapter&) = delete;
    SignalAdapter& operator=(const SignalAdapter&) = delete;

    /// The singleton, created on first use from the support library. A library that cannot
    /// be loaded ends the process (after ERROR lines): without the table no group can be
    /// handled. An application that defines mapping_factory() itself needs no library. The
    /// reference stays valid until enforce_definition() or reset_instance().
    static SignalAdapter& instance();
    /// Replaces the singleton by one built from the given table, which must outlive it. A
    /// null table gives an adapter without groups, with an ERROR line.
    static void enforce_definition(const Mapping* definition);
    /// Support library used by the next creation. With the default path, the environment
    /// variable SDKTARGETSYSROOT is put in front of it (a cross-development root).
    static void enforce_support_lib(std::string const& path);
    /// Destroys the singleton; the next instance() creates it again. The support library
    /// stays loaded, so groups made earlier remain usable.
    static void reset_instance();

    /// The table; it lives as long as the support library, i.e. the process.
    const Mapping& get_mapping() const { return *m_definition; }
    /// Whether the table has a group of that topic.
    bool is_valid_topic(std::string const& topic) const;
    /// Topics beginning with prefix, in topic order; an empty prefix gives all.
    std::vector<std::string> get_topics(std::string const& prefix) const;
    /// Look-ups between real-time identifier, topic and retain flag. Unknown keys give a
    /// WARNING line and "", 0 and false.
    ///@{
    std::string map_rtid_to_topic(unsigned int rtid) const;
    unsigned int map_topic_to_rtid(std::string const& topic) const;
    bool is_topic_retained(std::string const& topic) const;
    ///@}

    /// A new group of the topic with every signal zero-filled and time stamp 0; empty for
    /// an unknown topic (WARNING line).
    std::shared_ptr<SignalGroup> create_sg(std::string const& topic) const;
    /// The payload: every signal's bytes in group order, then 0xFF bytes up to a multiple of
    /// the first signal's length. Empty for a group without signals.
    std::string add_padding(SignalGroup const& sg) const;
    /// The group framed as pb::RtSignal, stamped with the time of packing; QoS 0 and not
    /// retained: the caller sets both as it needs. UNKNOWN_TOPIC for a topic not
    /// in the table.
    Result<com::Message, SignalAdapterError> pack(SignalGroup const& sg) const;
    /// The group carried by a message received on topic, with the signal's time stamp
    /// (milliseconds since boot when it was packed). The payload must hold exactly the
    /// group's signals, possibly padded; otherwise UNEXPECTED_SIZE.
    Result<SignalGroup, SignalAdapterError> unpack(std::string const& topic,
                                                   com::Message const& message) const;

private:
    explicit SignalAdapter(const Mapping* definition);

    static std::unique_ptr<SignalAdapter> c_instance;
    static std::string c_rt_support_library;

    const Mapping* m_definition;
    /// Keys of the table by rtid; the texts stay in the table.
    std::map<unsigned int, std::reference_wrapper<const std::string>> m_rtid_to_topic;
};

}  // namespace ecu::tavi::rt
