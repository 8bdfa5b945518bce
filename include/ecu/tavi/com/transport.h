// The transport that every client of the library shares: one connection to the local
// broker, publishing, subscriptions with observers, and the readiness of the application.
//
// Thread safety: every operation may be called from any thread. Observers are called on the
// transport's network thread only; a subscription observer may call subscribe/unsubscribe
// (the change takes effect after the current message has reached every observer), but must
// not block waiting for another message, since that message would arrive on the very thread
// it is blocking.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::com {

class Message;

// Told about the connection's life; every operation has an empty default. Called on the
// network thread, in order of registration.
class TAVI_EXPORT IConnectionObserver {
public:
    virtual ~IConnectionObserver() = default;
    // rc 0: the broker acknowledged the connection; otherwise its refusal code.
    virtual void on_connect(int /*rc*/) {}
    // rc 0: after disconnect(); otherwise the connection was lost.
    virtual void on_disconnect(int /*rc*/) {}
    // A QoS 1/2 publication with this message id was acknowledged.
    virtual void on_publish(int /*mid*/) {}
    // A log line of the MQTT library, with the library's own level number.
    virtual void on_log(int /*level*/, const std::string& /*text*/) {}
    virtual void on_error() {}
};

// Receives the messages of the topics it is subscribed to, on the network thread.
class TAVI_EXPORT ISubscriptionObserver {
public:
    virtual ~ISubscriptionObserver() = default;
    virtual void message(const std::string& topic, const Message& message) = 0;
};

class TAVI_EXPORT ITransportClient {
public:
    virtual ~ITransportClient() = default;

    // Starts the network thread and blocks until the broker has acknowledged the connection
    // (or disconnect() is called); returns whether the client is connected.
    virtual bool connect() = 0;
    // Stops reconnecting and closes the connection; returns the MQTT library's code.
    virtual int disconnect() = 0;
    virtual bool isConnected() = 0;

    // Started, connected, every subscription acknowledged by the broker and every real-time
    // ("rt/") topic confirmed by the IPC daemon.
    virtual bool is_ready() = 0;
    // Blocks until is_ready() would be true or the time-out passes; false at once before
    // start().
    virtual bool wait_ready(std::chrono::seconds timeout) = 0;

    // Publishes with the message's QoS and retain flag; returns the MQTT library's code
    // (0 on success). Topics under "rt/" go out under "rttx/": only the IPC daemon itself
    // publishes real-time data directly.
    virtual int publish(const std::string& topic, const Message& message) = 0;
    // Publishes and waits until the broker acknowledges it (QoS 1 or 2) or the time-out
    // passes.
    virtual bool publish_wait_ack(const std::string& topic, const Message& message,
                                  std::chrono::seconds timeout) = 0;

    // Adds an observer to a topic filter ("+" and "#" allowed). The same observer may be
    // added more than once and then receives each message that often.
    virtual void subscribe(const std::string& topic, unsigned char qos,
                           std::shared_ptr<ISubscriptionObserver> observer) = 0;
    // Removes one occurrence of the observer; the broker subscription ends with the last one.
    virtual void unsubscribe(const std::string& topic,
                             std::shared_ptr<ISubscriptionObserver> observer) = 0;

    virtual void add_connection_observer(std::shared_ptr<IConnectionObserver> observer) = 0;

    // start() then join(); the argument is not used.
    virtual void run(bool) = 0;
    // Lets the subscriptions made so far (and from now on) reach the broker; starts the
    // network thread if connect() has not.
    virtual void start() = 0;
    // disconnect() then join().
    virtual void stop() = 0;
    // Waits for the network thread to end.
    virtual void join() = 0;

    // The configured "client_name".
    virtual std::string get_client_name() = 0;

    // The last will, sent by the broker when the connection is lost without a disconnect.
    // Takes effect with the next connection.
    virtual bool set_will(const std::string& topic, const Message& message) = 0;
    virtual bool clear_will() = 0;

    // True when called on this transport's network thread. The library's blocking calls
    // use it to refuse waiting for an answer that only this thread could deliver.
    virtual bool is_network_thread() const { return false; }
};

}  // namespace ecu::tavi::com
