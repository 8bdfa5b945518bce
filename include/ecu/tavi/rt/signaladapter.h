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
    enum Code : int {
        UNKNOWN_TOPIC = 1,    ///< the topic is not in the table
        SERIALIZATION = 2,    ///< the message could not be framed
        DESERIALIZATION = 3,  ///< the payload is no framed pb::RtSignal
        UNEXPECTED_SIZE = 4,  ///< the data does not fit the group's signals
    };
    Code code;
    std::string message;
};

class TAVI_EXPORT SignalAdapter {
public:
    using Mapping = _internal::SignalGroupsDefinition;

    static constexpr const char* c_default_rt_support_library =
        "/etc/orvo/libmurntavi_rtsupport.so";

    SignalAdapter(const SignalAdapter&) = delete;
    SignalAdapter& operator=(const SignalAdapter&) = delete;

    /// The singleton, created on first use from the support library. A library that cannot
    /// be loaded ends the process: without the table no group can be handled.
    static SignalAdapter& instance();
    /// Replaces the singleton by one built from the given table, which must outlive it.
    static void enforce_definition(const Mapping* definition);
    /// Support library used by the next creation. With the default path, the environment
    /// variable SDKTARGETSYSROOT is put in front of it (a cross-development root).
    static void enforce_support_lib(std::string const& path);
    /// Destroys the singleton; the next instance() creates it again. The support library
    /// stays loaded, so groups made earlier remain usable.
    static void reset_instance();

    const Mapping& get_mapping() const { return *m_definition; }
    bool is_valid_topic(std::string const& topic) const;
    /// Topics beginning with prefix, in topic order; an empty prefix gives all.
    std::vector<std::string> get_topics(std::string const& prefix) const;
    /// Look-ups of unknown keys are logged and give "", 0 and false.
    std::string map_rtid_to_topic(unsigned int rtid) const;
    unsigned int map_topic_to_rtid(std::string const& topic) const;
    bool is_topic_retained(std::string const& topic) const;

    /// A new group of the topic with every signal zero-filled and time stamp 0; empty for
    /// an unknown topic.
    std::shared_ptr<SignalGroup> create_sg(std::string const& topic) const;
    /// The payload: every signal's bytes in group order, then 0xFF bytes up to a multiple of
    /// the first signal's length. Empty for a group without signals.
    std::string add_padding(SignalGroup const& sg) const;
    /// The group framed as pb::RtSignal, stamped with the time of packing.
    Result<com::Message, SignalAdapterError> pack(SignalGroup const& sg) const;
    /// The group carried by a message received on topic, with the sender's time stamp.
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
