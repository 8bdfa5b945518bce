/// \file
/// The transport that every client of the library shares: one connection to the local
/// broker, publishing, subscriptions with observers, and the readiness of the application.
///
/// Thread safety: every operation may be called from any thread. Observers are called on the
/// transport's network thread only; a subscription observer may call subscribe/unsubscribe
/// (the change takes effect after the current message has reached every observer), but must
/// not block waiting for another message, since that message would arrive on the very thread
/// it is blocking.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::com {

class Message;

/// Told about the connection's life; every operation has an empty default.
///
/// Called on the network thread, in order of registration, with none of the transport's
/// locks held, so an observer may call any non-blocking operation of the transport. What an
/// observer throws is logged and dropped.
class TAVI_EXPORT IConnectionObserver {
public:
    virtual ~IConnectionObserver() = default;
    /// rc 0: the broker acknowledged the connection; otherwise its refusal code.
    virtual void on_connect(int /*rc*/) {}
    /// rc 0: after disconnect(); otherwise the connection was lost.
    virtual void on_disconnect(int /*rc*/) {}
    /// A QoS 1/2 publication with this message id was acknowledged.
    virtual void on_publish(int /*mid*/) {}
    /// A log line of the MQTT library, with the library's own level number.
    virtual void on_log(int /*level*/, const std::string& /*text*/) {}
    /// The MQTT library reported an error; the transport has written an ERROR line.
    virtual void on_error() {}
};

/// Receives the messages of the topics it is subscribed to, on the network thread.
///
/// The transport keeps the observer (a shared pointer) until it is unsubscribed as often as
/// it was subscribed, or until the transport is destroyed.
class TAVI_EXPORT ISubscriptionObserver {
public:
    virtual ~ISubscriptionObserver() = default;
    /// One received message. Runs with the transport's subscription lock held, so no other
    /// message is delivered meanwhile: return quickly. May publish, subscribe and
    /// unsubscribe; blocking operations are refused here. What it throws is logged and
    /// dropped, and the next observer still runs.
    /// \param topic   the topic the message was published on (not the filter)
    /// \param message the payload with the QoS and retain flag it was delivered with; valid
    ///                only during the call
    virtual void message(const std::string& topic, const Message& message) = 0;
};

/// The connection to the broker, shared by every client of the process.
///
/// Made by create_client() and kept alive by every feature client made on it (each holds a
/// shared pointer). Owns one network thread, which runs every observer and callback of the
/// library and reconnects after a loss, forever, until disconnect() or stop().
///
/// Destroying the transport disconnects and joins the network thread. It must not be
/// destroyed on that thread: dropping the last reference inside an observer ends the process.
class TAVI_EXPORT ITransportClient {
public:
    virtual ~ITransportClient() = default;

    /// Starts the network thread and blocks until the broker has acknowledged the connection
    /// (or disconnect() is called); returns whether the client is connected.
    ///
    /// While the broker cannot be reached this waits indefinitely (retrying every second):
    /// bound it from another thread with disconnect(). Calling it a second time while the
    /// thread runs logs an ERROR line and only reports the state. On the network thread it
    /// does not wait.
    virtual bool connect() = 0;
    /// Stops reconnecting and closes the connection; returns the MQTT library's code. Wakes a
    /// waiting connect() and wait_ready(). Any thread, also an observer.
    virtual int disconnect() = 0;
    /// Whether the broker has acknowledged the connection and it has not been lost since.
    virtual bool isConnected() = 0;

    /// Started, connected, every subscription acknowledged by the broker and every real-time
    /// ("rt/") topic confirmed by the IPC daemon.
    virtual bool is_ready() = 0;
    /// Blocks until is_ready() would be true or the time-out passes; false at once before
    /// start() and after disconnect(). On the network thread it does not wait: true when
    /// already ready, otherwise false with an ERROR line. A time-out is logged as NOTICE
    /// lines naming the topics still missing.
    virtual bool wait_ready(std::chrono::seconds timeout) = 0;

    /// Publishes with the message's QoS and retain flag; returns the MQTT library's code
    /// (0 on success; otherwise an ERROR line). Topics under "rt/" go out under "rttx/":
    /// only the IPC daemon itself publishes real-time data directly. Any thread, also an
    /// observer; the message is copied before the call returns.
    virtual int publish(const std::string& topic, const Message& message) = 0;
    /// Publishes and waits until the broker acknowledges it (QoS 1 or 2) or the time-out
    /// passes; false also when the publication fails. A QoS 0 message is never
    /// acknowledged (INFO line). Refused (false, ERROR line) on the network thread.
    virtual bool publish_wait_ack(const std::string& topic, const Message& message,
                                  std::chrono::seconds timeout) = 0;

    /// Adds an observer to a topic filter ("+" and "#" allowed). The same observer may be
    /// added more than once and then receives each message that often. An empty observer is
    /// refused with an ERROR line.
    ///
    /// The broker hears of the subscription once the transport is connected and started
    /// (the platform's variables and parameters, "system/var/...", "system/sysparam/..." and
    /// "system/sysparams": once connected), and again after every reconnection. A filter that is
    /// already subscribed is not subscribed again at the broker, so a second observer of it
    /// does not receive the retained message the first one got.
    ///
    /// The transport holds the observer until it is unsubscribed. Called from an observer,
    /// the change takes effect after the current message has reached every observer.
    virtual void subscribe(const std::string& topic, unsigned char qos,
                           std::shared_ptr<ISubscriptionObserver> observer) = 0;
    /// Removes one occurrence of the observer; the broker subscription ends with the last one.
    ///
    /// Called from another thread than the network thread, it waits for a delivery in
    /// progress, so once it returns the observer is not called for this filter any more
    /// (unless it was subscribed to it more than once).
    /// Called from an observer, it takes effect after the current message has reached every
    /// observer.
    virtual void unsubscribe(const std::string& topic,
                             std::shared_ptr<ISubscriptionObserver> observer) = 0;

    /// Registers an observer for the life of the transport (there is no removal). An empty
    /// observer is refused with an ERROR line.
    virtual void add_connection_observer(std::shared_ptr<IConnectionObserver> observer) = 0;

    /// start() then join(); the argument is not used. Blocks the calling thread until the
    /// transport is stopped from another thread.
    virtual void run(bool) = 0;
    /// Lets the subscriptions made so far (and from now on) reach the broker; starts the
    /// network thread if connect() has not. Does not wait.
    virtual void start() = 0;
    /// disconnect() then join(). Not on the network thread (the join is refused there).
    virtual void stop() = 0;
    /// Waits for the network thread to end, which happens only after disconnect(). Refused
    /// with an ERROR line on the network thread itself.
    virtual void join() = 0;

    /// The configured "client_name".
    virtual std::string get_client_name() = 0;

    /// The last will, sent by the broker when the connection is lost without a disconnect.
    /// Takes effect with the next connection. False, with an ERROR line, for an empty payload
    /// or when the MQTT library refuses it.
    virtual bool set_will(const std::string& topic, const Message& message) = 0;
    /// Removes the last will from the next connection on; false, with an ERROR line, on
    /// failure.
    virtual bool clear_will() = 0;

    /// True when called on this transport's network thread. The library's blocking calls
    /// use it to refuse waiting for an answer that only this thread could deliver.
    virtual bool is_network_thread() const { return false; }
};

}  // namespace ecu::tavi::com
