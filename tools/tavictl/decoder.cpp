#include "decoder.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <iomanip>
#include <memory>
#include <sstream>

#include <google/protobuf/message.h>
#include <google/protobuf/util/json_util.h>

#include "ecu/tavi/com/message.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/pb/acl.pb.h"
#include "ecu/tavi/pb/backend.pb.h"
#include "ecu/tavi/pb/bootflags.pb.h"
#include "ecu/tavi/pb/bt.pb.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/pb/kovheader.pb.h"
#include "ecu/tavi/pb/logconfig.pb.h"
#include "ecu/tavi/pb/pgn.pb.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "ecu/tavi/pb/subscription.pb.h"
#include "ecu/tavi/pb/sysparams.pb.h"
#include "ecu/tavi/pb/uds.pb.h"
#include "ecu/tavi/rt/signaladapter.h"

namespace tavictl {

using namespace ecu::tavi;

namespace {

std::atomic<bool> s_rt_support{false};

const std::string kRtPrefix = "rt/";
const std::string kRelayPrefix = "rttx/";

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// MQTT filter matching: "+" is one level, "#" at the end the rest (also nothing).
bool matches(const std::string& filter, const std::string& topic) {
    size_t f = 0;
    size_t t = 0;
    while (f < filter.size()) {
        const size_t f_end = std::min(filter.find('/', f), filter.size());
        const std::string level = filter.substr(f, f_end - f);
        if (level == "#") {
            return true;
        }
        if (t > topic.size()) {
            return false;
        }
        const size_t t_end = std::min(topic.find('/', t), topic.size());
        if (level != "+" && level != topic.substr(t, t_end - t)) {
            return false;
        }
        f = f_end + 1;
        t = t_end + 1;
    }
    return t > topic.size();
}

struct TopicType {
    const char* filter;
    const google::protobuf::Message* prototype;
};

// Which message travels on which topic; the first matching filter decides.
const std::vector<TopicType>& topic_types() {
    static const std::vector<TopicType> table = {
        {"subscription/announcement", &pb::SubscriptionMessage::default_instance()},
        {"system/ipc/subscriptions", &pb::SubscriptionStatus::default_instance()},
        {"app/+/log/configure", &pb::LogConfig::default_instance()},
        {"app/+/log/config", &pb::LogConfig::default_instance()},
        {"system/udsifd/+", &pb::UdsIfMessage::default_instance()},
        {"app/+/uds/+", &pb::UdsIfMessage::default_instance()},
        {"system/pgnreqd/request", &pb::PgnRequestTokenRequest::default_instance()},
        {"app/+/pgn/response", &pb::PgnRequestTokenResponse::default_instance()},
        {"system/var/#", &pb::EcuVariable::default_instance()},
        {"system/sysparams", &pb::SystemParameterList::default_instance()},
        {"system/sysparams/write", &pb::SystemParameterList::default_instance()},
        {"system/vard/request/sysparams", &pb::SystemParameterList::default_instance()},
        {"system/bootflags", &pb::BootFlags::default_instance()},
        {"system/bootflags/set", &pb::BootFlags::default_instance()},
        {"system/bt/status", &pb::BtStatus::default_instance()},
        {"system/bt/discovery/request", &pb::BtDiscoveryRequest::default_instance()},
        {"app/+/bt/discovery/response", &pb::BtDiscoveryResponse::default_instance()},
        {"system/bt/discovery/results", &pb::BtDiscoveryResults::default_instance()},
        {"system/aclifd/request", &pb::AclIfMessage::default_instance()},
        {"system/mdpd/request", &pb::AclIfMessage::default_instance()},
        {"app/+/acl/response", &pb::AclIfMessage::default_instance()},
        {"be/publish", &pb::BackendProxyTransmit::default_instance()},
        {"app/+/be/response", &pb::BackendProxyResponse::default_instance()},
        {"be/status", &pb::BackendProxyStatus::default_instance()},
        {"be/queue/status", &pb::BackendProxyQueueStatus::default_instance()},
        {"rt/#", &pb::RtSignal::default_instance()},
        {"rttx/#", &pb::RtSignal::default_instance()},
    };
    return table;
}

const google::protobuf::Message* prototype_of(const std::string& topic) {
    for (const auto& entry : topic_types()) {
        if (matches(entry.filter, topic)) {
            return entry.prototype;
        }
    }
    return nullptr;
}

const char* status_name(rt::Signal::Status status) {
    switch (status) {
        case rt::Signal::OK:
            return "OK";
        case rt::Signal::NOT_AVAILABLE:
            return "NOT_AVAILABLE";
        case rt::Signal::ERROR_INDICATOR:
            return "ERROR_INDICATOR";
        case rt::Signal::OUT_OF_RANGE:
            return "OUT_OF_RANGE";
    }
    return "UNKNOWN";
}

// The header is read here rather than through an adapter: the tool shows its fields, and a
// rejected payload is an ordinary sight for it, not a line for the log.
std::optional<FrameHeader> read_header(const std::vector<std::uint8_t>& payload,
                                       std::string& error) {
    if (payload.size() < com::FRAME_HEADER_SIZE) {
        error = "no frame header (" + std::to_string(payload.size()) + " bytes)";
        return std::nullopt;
    }
    pb::KOVHeader header;
    if (!header.ParseFromArray(payload.data(), static_cast<int>(com::FRAME_HEADER_SIZE))) {
        error = "no frame header";
        return std::nullopt;
    }
    FrameHeader frame;
    frame.protocol_type = static_cast<std::uint32_t>(header.length() & 0xFFFF);
    frame.header_length = static_cast<std::uint32_t>((header.length() >> 16) & 0xFFFF);
    frame.body_length = header.length() >> 32;
    frame.timestamp_ns = static_cast<std::int64_t>(header.timestamp());
    if (frame.protocol_type == 0) {
        error = "frame header with protocol type 0";
    } else if (frame.header_length != com::FRAME_HEADER_SIZE) {
        error = "frame header with header length " + std::to_string(frame.header_length);
    } else if (frame.body_length > payload.size() - com::FRAME_HEADER_SIZE) {
        error = "frame header with body length " + std::to_string(frame.body_length) +
                " beyond the payload";
    } else {
        return frame;
    }
    return std::nullopt;
}

void decode_group(const std::string& topic, const std::vector<std::uint8_t>& payload,
                  Decoded& decoded) {
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    const std::string group_topic = rt_group_topic(topic);
    if (!adapter.is_valid_topic(group_topic)) {
        decoded.error = "no real-time group for " + group_topic;
        return;
    }
    auto group = adapter.unpack(group_topic, com::Message(payload));
    if (!group) {
        decoded.error = group.error().message;
        return;
    }
    decoded.group = group.value().name();
    decoded.group_time_ms = group.value().timestamp();
    for (const rt::Signal& signal : group.value().signals()) {
        DecodedSignal out;
        out.name = signal.name();
        out.status = status_name(signal.status());
        const auto scaled = signal.value_scaled();
        if (scaled.ok) {
            out.value = scaled.value;
        }
        out.raw_hex = to_hex(signal.data().data(), signal.data().size());
        decoded.signals.push_back(std::move(out));
    }
}

}  // namespace

bool use_rt_support_library(const std::string& path, std::string& error) {
    // Stays loaded for the life of the process: the adapter's table lives in it.
    void* handle = ::dlopen(path.c_str(), RTLD_NOW);
    if (handle == nullptr) {
        error = "cannot load the real-time support library: " + std::string(::dlerror());
        return false;
    }
    auto factory = reinterpret_cast<rt::_internal::mapping_factory_fn>(
        ::dlsym(handle, rt::_internal::c_mapping_factory_symbol));
    const rt::_internal::SignalGroupsDefinition* table = factory ? factory() : nullptr;
    if (table == nullptr) {
        error = path + " is no real-time support library";
        return false;
    }
    use_rt_table(table);
    return true;
}

void use_rt_table(const rt::_internal::SignalGroupsDefinition* table) {
    rt::SignalAdapter::enforce_definition(table);
    s_rt_support = true;
}

bool rt_support_loaded() {
    return s_rt_support;
}

std::string topic_type(const std::string& topic) {
    const auto* prototype = prototype_of(topic);
    return prototype != nullptr ? prototype->GetDescriptor()->full_name() : "";
}

bool is_rt_topic(const std::string& topic) {
    return starts_with(topic, kRtPrefix) || starts_with(topic, kRelayPrefix);
}

std::string rt_group_topic(const std::string& topic) {
    return starts_with(topic, kRelayPrefix) ? kRtPrefix + topic.substr(kRelayPrefix.size()) : topic;
}

Decoded decode(const std::string& topic, const std::vector<std::uint8_t>& payload) {
    Decoded decoded;
    decoded.header = read_header(payload, decoded.error);
    const auto* prototype = prototype_of(topic);
    if (prototype == nullptr) {
        decoded.error.clear();  // unframed payloads are normal on unknown topics
        return decoded;
    }
    decoded.type = prototype->GetDescriptor()->full_name();
    if (!decoded.header) {
        return decoded;
    }
    std::unique_ptr<google::protobuf::Message> body(prototype->New());
    if (!body->ParseFromArray(payload.data() + com::FRAME_HEADER_SIZE,
                              static_cast<int>(decoded.header->body_length))) {
        decoded.error = "the body does not parse as " + decoded.type;
        return decoded;
    }
    decoded.body_ok = true;
    decoded.body_text = body->ShortDebugString();
    std::string json;
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    if (google::protobuf::util::MessageToJsonString(*body, &json, options).ok()) {
        decoded.body_json = Json::parse(json, nullptr, false);
    }
    if (is_rt_topic(topic) && s_rt_support) {
        decode_group(topic, payload, decoded);
    }
    return decoded;
}

std::string to_hex(const std::uint8_t* data, std::size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    hex.reserve(size * 2);
    for (std::size_t i = 0; i < size; ++i) {
        hex += digits[data[i] >> 4];
        hex += digits[data[i] & 0xF];
    }
    return hex;
}

std::string to_text(const std::string& topic, const std::vector<std::uint8_t>& payload,
                    const Decoded& decoded) {
    std::ostringstream text;
    text << topic << " (" << payload.size() << " bytes)\n";
    size_t body_offset = 0;
    if (decoded.header) {
        const FrameHeader& h = *decoded.header;
        text << "  frame: protocol " << h.protocol_type << ", header " << h.header_length
             << ", body " << h.body_length << " bytes, sent at " << std::fixed
             << std::setprecision(6) << static_cast<double>(h.timestamp_ns) / 1e9
             << " s since boot\n";
        body_offset = com::FRAME_HEADER_SIZE;
    }
    if (!decoded.group.empty()) {
        text << "  group " << decoded.group << ", " << decoded.signals.size() << " signals:\n";
        for (const auto& signal : decoded.signals) {
            text << "    " << signal.name << " = ";
            if (signal.value) {
                text << std::defaultfloat << std::setprecision(10) << *signal.value;
            } else {
                text << "0x" << signal.raw_hex;
            }
            text << " (" << signal.status << ")\n";
        }
    } else if (decoded.body_ok) {
        text << "  " << decoded.type << " { " << decoded.body_text << " }\n";
    }
    if (!decoded.error.empty()) {
        text << "  undecoded: " << decoded.error << "\n";
    }
    if (!decoded.body_ok) {
        text << "  hex: " << to_hex(payload.data() + body_offset, payload.size() - body_offset)
             << "\n";
    }
    return text.str();
}

Json to_json(const Decoded& decoded) {
    Json json = Json::object();
    if (decoded.header) {
        json["frame"] = {{"protocol_type", decoded.header->protocol_type},
                         {"header_length", decoded.header->header_length},
                         {"body_length", decoded.header->body_length},
                         {"timestamp_ns", decoded.header->timestamp_ns}};
    }
    if (decoded.body_ok) {
        json["type"] = decoded.type;
        json["body"] = decoded.body_json;
    }
    if (!decoded.group.empty()) {
        Json signals = Json::object();
        for (const auto& signal : decoded.signals) {
            signals[signal.name] = {{"value", signal.value ? Json(*signal.value) : Json(nullptr)},
                                    {"status", signal.status},
                                    {"raw", signal.raw_hex}};
        }
        json["group"] = decoded.group;
        json["signals"] = signals;
    }
    if (!decoded.error.empty()) {
        json["error"] = decoded.error;
    }
    return json;
}

}  // namespace tavictl
