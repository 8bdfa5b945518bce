/// \file
/// Lets a tool on the broker read and change this application's logging at run time: level,
/// mode and which log modules are enabled. Requests (pb::LogConfig) arrive on
/// "app/<client name>/log/configure"; every request that decodes is answered with the
/// complete configuration on "app/<client name>/log/config".
///
/// Requests are handled on the transport's network thread and change the process-wide
/// logging state there. A module a request names is created if it is missing, within the
/// bounds of the module tree (32 segments, 1024 modules); beyond them it is refused. Destroy
/// the control from any thread other than the network thread.
#pragma once

#include <memory>
#include <string>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/export.h"

namespace ecu::tavi::logging {

/// Serves the log configuration requests of one transport.
///
/// com::create_client() attaches one to the transport it returns, so applications rarely
/// make their own. The control holds the transport; its subscription observer points back
/// to the control, which therefore unsubscribes before it goes: destroy it on any thread
/// but the network thread.
class TAVI_EXPORT RemoteLogControl {
public:
    /// Subscribes to the request topic and enables the module "<client name>.log" (and
    /// everything below it), so that the control's own lines are visible by default. The
    /// transport must not be empty.
    explicit RemoteLogControl(std::shared_ptr<com::ITransportClient> transport);
    /// Unsubscribes from the request topic; once it returns no request reaches the control.
    ~RemoteLogControl();
    RemoteLogControl(const RemoteLogControl&) = delete;
    RemoteLogControl& operator=(const RemoteLogControl&) = delete;

    /// Applies a request (mode, level, then the module switches in order; the module name
    /// "all" switches every module) and answers it. A payload that does not decode is
    /// dropped with an ERROR line; an entry without name or switch is skipped with one.
    /// Called by the transport on its network thread.
    void message(std::string const& topic, com::Message const& message);
    /// Publishes the current mode, level and every module, root first, depth-first, children
    /// in name order. A failure is an ERROR line.
    void publish_config();

private:
    class RequestObserver;

    std::shared_ptr<com::ISubscriptionObserver> m_observer;
    std::shared_ptr<com::ITransportClient> m_transport;
    std::string m_request_topic;
    std::string m_reply_topic;
};

/// Empty, with an ERROR line, when there is no transport.
TAVI_EXPORT std::unique_ptr<RemoteLogControl> create_remote_log_control(
    std::shared_ptr<com::ITransportClient> transport);

}  // namespace ecu::tavi::logging
