// libFuzzer target: the backend client's content id on the topic of any content message. A
// message reaches at most one callback, and only when its topic has a content id.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "ecu/tavi/com/backend.h"
#include "fuzz_support.h"

namespace {

using namespace ecu::tavi::com;

const unsigned int kIds[] = {1, 7, UINT_MAX};

std::shared_ptr<ITransportClient> s_transport;
BackendClient* s_client = nullptr;
std::shared_ptr<ISubscriptionObserver> s_observer;
unsigned int s_calls = 0;
unsigned int s_last_id = 0;

void deliver(const std::string& topic) {
    s_observer->message(topic, Message());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    auto transport = std::make_shared<fuzz::OfflineTransport>("fuzz");
    s_transport = transport;
    s_client = new BackendClient(s_transport);
    for (const unsigned int id : kIds) {
        s_client->add_content_callback(id, [](unsigned int content_id, const Message&) {
            ++s_calls;
            s_last_id = content_id;
        });
    }
    s_observer = transport->observer("app/cid/7");
    // The plain topic of each id must reach its callback, or the target reaches nothing.
    for (const unsigned int id : kIds) {
        s_calls = 0;
        deliver("app/cid/" + std::to_string(id));
        if (s_calls != 1 || s_last_id != id) {
            std::abort();
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string topic(reinterpret_cast<const char*>(data), size);
    s_calls = 0;
    deliver(topic);
    if (s_calls > 1) {
        std::abort();
    }
    if (s_calls == 1 && topic.find("/cid/") == std::string::npos) {
        std::abort();
    }
    return 0;
}
