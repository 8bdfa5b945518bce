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

class TAVI_EXPORT VariablesClient {
public:
    explicit VariablesClient(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes from every variable ever asked for.
    virtual ~VariablesClient();
    VariablesClient(const VariablesClient&) = delete;
    VariablesClient& operator=(const VariablesClient&) = delete;

    /// The variable's value, or default_value when it is unknown after timeout_ms, or the name
    /// contains "/", "+" or "#".
    virtual std::string get(const std::string& name, const std::string& default_value,
                            int timeout_ms);
    /// As get(); a value answered from the cache also gives its time stamp (0 when the
    /// service sent none). timestamp is left alone otherwise.
    virtual std::string get_extended(std::uint64_t& timestamp, const std::string& name,
                                     const std::string& default_value, int timeout_ms);

    /// One per name ever asked for; an empty value means "not known yet".
    struct Variable {
        std::string value;
        std::uint64_t timestamp = 0;
        std::condition_variable changed;
    };
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
