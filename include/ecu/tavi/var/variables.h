/// \file
/// Named ECU variables (short texts such as "hwversion") that the unit's variable service
/// publishes retained on "system/var/<name>". The first read of a name subscribes and waits
/// for the value; every value received is cached for the client's lifetime, so later reads
/// cost no traffic.
///
/// Thread safe: get()/get_extended() may be called from any thread, also by several threads
/// for the same name at once. A read that has to wait refuses at once (with an ERROR line and
/// the default) when made on the transport's network thread, i.e. inside an observer.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"

namespace ecu::tavi::var {

/// Reads ECU variables, caching every value received.
///
/// Made by create_var_client(); holds the transport; destroy it on any thread but the
/// network thread. A name stays subscribed from its first read until the client goes, and
/// each value published meanwhile replaces the cached one.
///
/// Surprising: the transport subscribes a topic at the broker only once, so the broker sends
/// a retained value only to the first subscriber of the transport. A second client on the
/// same transport reading a name the first one already reads waits in vain until the
/// service publishes the value again. Share one variables client per transport.
class TAVI_EXPORT VariablesClient {
public:
    /// Subscribes nothing yet. The transport must not be empty.
    explicit VariablesClient(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes from every variable ever asked for.
    virtual ~VariablesClient();
    VariablesClient(const VariablesClient&) = delete;
    VariablesClient& operator=(const VariablesClient&) = delete;

    /// The variable's value, or default_value when it is unknown after timeout_ms, or the name
    /// contains "/", "+" or "#". Blocks up to timeout_ms on the first read of a name; on the
    /// network thread a value not yet cached gives default_value at once, with an ERROR
    /// line.
    virtual std::string get(const std::string& name, const std::string& default_value,
                            int timeout_ms);
    /// As get(); a value answered from the cache also gives its time stamp (0 when the
    /// service sent none). timestamp is left alone otherwise.
    virtual std::string get_extended(std::uint64_t& timestamp, const std::string& name,
                                     const std::string& default_value, int timeout_ms);

    /// One per name ever asked for; an empty value means "not known yet". Used by the
    /// client only, under its mutex.
    struct Variable {
        std::string value;                ///< the last value received
        std::uint64_t timestamp = 0;      ///< its time stamp, as the service sent it
        std::condition_variable changed;  ///< signalled when a value arrives
    };
    /// Receives the values on the transport's network thread; points back to the client.
    class PublishObserver;

private:
    std::string read(std::uint64_t& timestamp, const std::string& name,
                     const std::string& default_value, int timeout_ms, const char* call);
    void received(const std::string& topic, const com::Message& message);

    std::shared_ptr<com::ITransportClient> m_transport;
    std::shared_ptr<PublishObserver> m_observer;
    std::mutex m_mutex;
    std::map<std::string, Variable> m_cache;
};

/// Subscribes to nothing until the first read. Empty, with an ERROR line, without a transport.
TAVI_EXPORT std::shared_ptr<VariablesClient> create_var_client(
    std::shared_ptr<com::ITransportClient> transport);

}  // namespace ecu::tavi::var
