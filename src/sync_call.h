// The one pattern behind every blocking call of the feature clients: with the client's
// mutex held, publish the request, then wait on the client's condition variable until the
// client's observer has stored the answer or a steady-clock deadline passes.
//
// The observer runs on the transport's network thread, so a blocking call made from inside
// an observer could never be answered: it is refused with an ERROR line instead of hanging.
//
// Lock order: the transport's client mutex is held while observers run, and observers take
// their client's mutex. So a client must never call subscribe, unsubscribe or is_ready on
// the transport while holding its own mutex: subscribe first, then lock.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "ecu/tavi/com/transport.h"
#include "ecu/tavi/logging/logging.h"

namespace ecu::tavi::com::_internal {

// True, with an ERROR line in the caller's module, when `call` runs on the transport's
// network thread.
inline bool refuse_on_network_thread(const ITransportClient& transport,
                                     const std::shared_ptr<logging::LogModule>& log,
                                     const char* call) {
    if (!transport.is_network_thread()) {
        return false;
    }
    logging::ERROR << log << call
                   << " called on the transport's network thread (inside an observer): the "
                      "answer could never arrive, refusing to wait.";
    logging::ERROR.do_flush();
    return true;
}

enum class SyncStatus {
    ANSWERED,   // answered() became true before the deadline
    TIMED_OUT,  // the deadline passed; the caller logs its own WARNING
    NOT_SENT,   // publish failed (the transport has logged why)
    REFUSED,    // called on the network thread (logged here)
};

// Publishes `request` on `topic` and waits until answered() or the deadline. `lock` holds
// the client's mutex on entry and on return; the observer stores the answer under the
// same mutex and calls notify_all() on `cv`. answered() is evaluated with the lock held.
template <typename Answered>
SyncStatus publish_and_wait(ITransportClient& transport,
                            const std::shared_ptr<logging::LogModule>& log, const char* call,
                            const std::string& topic, const Message& request,
                            std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                            std::chrono::steady_clock::time_point deadline, Answered answered) {
    if (refuse_on_network_thread(transport, log, call)) {
        return SyncStatus::REFUSED;
    }
    if (transport.publish(topic, request) != 0) {
        return SyncStatus::NOT_SENT;
    }
    // The predicate form also absorbs spurious wake-ups; the deadline is read from the
    // steady clock, so wall-clock jumps do not shorten or stretch the wait.
    return cv.wait_until(lock, deadline, answered) ? SyncStatus::ANSWERED : SyncStatus::TIMED_OUT;
}

// The same wait without a request: for answers that a subscription alone brings (retained
// messages, periodic status). Never NOT_SENT.
template <typename Answered>
SyncStatus wait_for_answer(const ITransportClient& transport,
                           const std::shared_ptr<logging::LogModule>& log, const char* call,
                           std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                           std::chrono::steady_clock::time_point deadline, Answered answered) {
    if (refuse_on_network_thread(transport, log, call)) {
        return SyncStatus::REFUSED;
    }
    return cv.wait_until(lock, deadline, answered) ? SyncStatus::ANSWERED : SyncStatus::TIMED_OUT;
}

}  // namespace ecu::tavi::com::_internal
