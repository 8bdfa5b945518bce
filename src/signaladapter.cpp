// Real-time signals: Signal (raw bytes, status rules, scaling), SignalGroup and the
// SignalAdapter that packs groups into framed pb::RtSignal messages and back, using the
// definition table of the platform's support library.
#include "ecu/tavi/rt/signaladapter.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/datetime.h"
#include "ecu/tavi/logging/logging.h"
#include "ecu/tavi/pb/rtsignal.pb.h"
#include "tavi_assert.h"

namespace {
const auto s_log = ecu::tavi::logging::module("tavi.rt.signaladapter");
}  // namespace

using namespace ecu::tavi::logging;

// Every line of this unit names where it was written: "[SignalAdapter:signaladapter:<line>] ".
#define SA_LOG(level) level << s_log << "[SignalAdapter:signaladapter:" << __LINE__ << "] "

namespace ecu::tavi::rt {

using _internal::signal_def;

namespace {

// The byte counts are computed in 64 bits: no bit width of a definition, however large,
// overflows, and every count fits an int (at most 2^29 bytes).

// Bytes of one element of a data type of dt_bit_size bits.
int type_bytes(int32_t dt_bit_size) {
    return static_cast<int>((int64_t{dt_bit_size} + 7) / 8);
}

// Bytes that hold raw_bit_size bits as whole elements of dt_bit_size bits.
int payload_bytes(int raw_bit_size, int dt_bit_size) {
    TAVI_ASSERT(raw_bit_size > 0, "a signal needs at least one raw bit");
    TAVI_ASSERT(dt_bit_size > 0, "a signal's data type needs at least one bit");
    const int64_t elements = (int64_t{raw_bit_size} + dt_bit_size - 1) / dt_bit_size;
    return static_cast<int>((elements * dt_bit_size + 7) / 8);
}

int payload_bytes(const signal_def& def) {
    return payload_bytes(def.raw_bit_size, def.dt_bit_size);
}

// Little-endian: byte 0 holds the least significant eight bits.
template <typename Out>
Out to_unsigned(const Signal::DATA& data) {
    TAVI_ASSERT(data.size() <= sizeof(Out), "value wider than the target type");
    Out value = 0;
    for (size_t i = 0; i < data.size(); ++i) {
        value |= static_cast<Out>(static_cast<Out>(data[i]) << (8 * i));
    }
    return value;
}

// The bus codes of a value's top byte, then its range.
Signal::Status judge(unsigned int code_byte, uint64_t value, const signal_def& def) {
    if (code_byte == 0xFE) {
        return Signal::ERROR_INDICATOR;
    }
    if (code_byte == 0xFF) {
        return Signal::NOT_AVAILABLE;
    }
    if (value < def.min || value > def.max) {
        return Signal::OUT_OF_RANGE;
    }
    return Signal::OK;
}

// Arrays carry no bus status code and no single physical value.
void report_not_single(ecu::tavi::logging::_internal::LogStream& level, int elements,
                       const std::string& name) {
    SA_LOG(level) << "Datatype/payload size is != 1 byte (" << elements << "), "
                  << "can status rules don't apply for signal '" << name << "'.";
    level.do_flush();
}

// Truncation toward zero into 0..4294967295; NaN gives 0.
uint32_t saturate_to_u32(double raw) {
    if (!(raw > 0.0)) {
        return 0;
    }
    if (raw >= static_cast<double>(std::numeric_limits<uint32_t>::max())) {
        return std::numeric_limits<uint32_t>::max();
    }
    return static_cast<uint32_t>(raw);
}

}  // namespace

// ---- Signal -----------------------------------------------------------------------------

Signal::Signal(std::string name, const signal_def* definition, DATA data)
    : m_name(std::move(name)), m_sig_def(definition), m_data(std::move(data)) {}

double Signal::factor() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->factor;
}

unsigned int Signal::min() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->min;
}

unsigned int Signal::max() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->max;
}

int Signal::offset() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->offset;
}

bool Signal::is_enum() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->status_eval == _internal::AS_ENUM;
}

int Signal::data_type_size_bits() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->dt_bit_size;
}

int Signal::data_type_size_bytes() const {
    return type_bytes(data_type_size_bits());
}

int Signal::data_payload_size_bits() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return m_sig_def->raw_bit_size;
}

int Signal::data_payload_size_bytes() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    return payload_bytes(*m_sig_def);
}

int Signal::elements() const {
    return data_payload_size_bytes() / data_type_size_bytes();
}

Signal::Status Signal::status() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    switch (m_sig_def->status_eval) {
        case _internal::CAN_STATUS:
            return can_status();
        case _internal::RAW_RANGE: {
            const uint64_t value = to_unsigned<uint64_t>(m_data);
            const int bits = m_sig_def->raw_bit_size;
            const uint64_t all_set = bits >= 64  ? ~uint64_t{0}
                                     : bits <= 0 ? 0
                                                 : (uint64_t{1} << bits) - 1;
            if (value == all_set) {
                return NOT_AVAILABLE;
            }
            return value < m_sig_def->min || value > m_sig_def->max ? OUT_OF_RANGE : OK;
        }
        case _internal::AS_ENUM:
            SA_LOG(DEBUG) << "Signal status evaluation is set to 'as enum', "
                          << "status will not be further evalualted";
            DEBUG.do_flush();
            return OK;
        case _internal::WITH_STATUS:
            SA_LOG(WARNING) << "'with status' status evaluation is not implemented, assume ok.";
            WARNING.do_flush();
            return OK;
        case _internal::ALL_BYTES_FF:
            return std::any_of(m_data.begin(), m_data.end(),
                               [](unsigned char b) { return b < 0xFF; })
                       ? OK
                       : NOT_AVAILABLE;
        default:
            return OK;
    }
}

// The bus conventions: the top byte of a single-element value carries 0xFE for "error" and
// 0xFF for "not available"; two-bit values use the codes 2 and 3.
Signal::Status Signal::can_status() const {
    const int n = elements();
    if (n != 1) {
        report_not_single(NOTICE, n, m_name);
        return OK;
    }
    const int bits = m_sig_def->raw_bit_size;
    if (bits <= 2) {
        TAVI_ASSERT(m_data.size() == 1, "a two-bit signal is one byte");
        switch (m_data[0] & 0x03) {
            case 2:
                return ERROR_INDICATOR;
            case 3:
                return NOT_AVAILABLE;
            default:
                return OK;
        }
    }
    if (bits <= 8) {
        TAVI_ASSERT(m_data.size() >= 1, "an 8-bit signal needs a byte");
        return judge(m_data[0], m_data[0], *m_sig_def);
    }
    if (bits <= 16) {
        TAVI_ASSERT(m_data.size() >= 2, "a 16-bit signal needs two bytes");
        const uint16_t value = to_unsigned<uint16_t>(m_data);
        return judge(value >> 8, value, *m_sig_def);
    }
    if (bits <= 32) {
        TAVI_ASSERT(m_data.size() == 4, "a 17- to 32-bit signal is four bytes");
        const uint32_t value = to_unsigned<uint32_t>(m_data);
        const unsigned int code_byte = bits <= 24 ? (value >> 16) & 0xFF : value >> 24;
        return judge(code_byte, value, *m_sig_def);
    }
    return OK;
}

Signal::ScaleResult Signal::value_scaled() const {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    const int n = elements();
    if (n != 1) {
        report_not_single(DEBUG, n, m_name);
        return {false, 0.0, "No can signal"};
    }
    if (status() != OK) {
        return {false, 0.0, "Value not within range."};
    }
    uint32_t raw = 0;
    switch (data_payload_size_bytes()) {
        case 1:
            TAVI_ASSERT(m_data.size() == 1, "a one-byte payload");
            raw = m_data[0];
            break;
        case 2:
            TAVI_ASSERT(m_data.size() <= 2, "a two-byte payload");
            raw = to_unsigned<uint16_t>(m_data);
            break;
        case 4:
            TAVI_ASSERT(m_data.size() <= 4, "a four-byte payload");
            raw = to_unsigned<uint32_t>(m_data);
            break;
        default:
            return {false, 0.0, "No can signal"};
    }
    // The offset is added to the raw value before the factor: that is how the bus
    // databases the tables come from define it.
    return {true, (static_cast<double>(raw) + m_sig_def->offset) * m_sig_def->factor, ""};
}

bool Signal::set_scaled_value(double x) {
    TAVI_ASSERT(m_sig_def != nullptr, "signal without definition");
    const int n = elements();
    if (n != 1) {
        report_not_single(DEBUG, n, m_name);
        return false;
    }
    TAVI_ASSERT(m_sig_def->factor != 0, "a signal with factor 0 cannot be written");
    const uint32_t raw = saturate_to_u32(x / m_sig_def->factor - m_sig_def->offset);
    DATA bytes(static_cast<size_t>(data_payload_size_bytes()), 0);
    for (size_t i = 0; i < bytes.size() && i < sizeof(raw); ++i) {
        bytes[i] = static_cast<unsigned char>(raw >> (8 * i));
    }
    return set_data(bytes);
}

bool Signal::set_data(DATA const& d) {
    if (d.size() > m_data.size()) {
        SA_LOG(DEBUG) << "Size of data to be set (" << d.size() << ") is greater "
                      << "than allowed size (" << m_data.size() << ").";
        DEBUG.do_flush();
        return false;
    }
    // A shorter d writes the low bytes only and leaves the others as they are.
    std::copy(d.begin(), d.end(), m_data.begin());
    return true;
}

bool Signal::operator==(Signal const& other) const {
    return m_name == other.m_name && m_data == other.m_data;
}

// ---- SignalGroup ------------------------------------------------------------------------

const char* to_str(SignalGroup::CanBus bus) {
    switch (bus) {
        case SignalGroup::CAN_BUS_1:
            return "1";
        case SignalGroup::CAN_BUS_2:
            return "2";
        default:
            return "-";
    }
}

SignalGroup::SignalGroup(unsigned int rtid, std::string name, std::string const& topic, CanBus bus,
                         bool retained, unsigned long long timestamp)
    : m_name(std::move(name)),
      m_rtid(rtid),
      m_topic(topic),
      m_bus(bus),
      m_retained(retained),
      m_timestamp(timestamp) {}

bool SignalGroup::has_signal(std::string const& name) const {
    return std::any_of(m_signals.begin(), m_signals.end(),
                       [&name](const Signal& s) { return s.name() == name; });
}

Signal* SignalGroup::find(std::string const& name) {
    for (Signal& s : m_signals) {
        if (s.name() == name) {
            return &s;
        }
    }
    SA_LOG(WARNING) << "Signal '" << name << "' does not exists!";
    WARNING.do_flush();
    return nullptr;
}

const Signal* SignalGroup::signal(std::string const& name) const {
    return const_cast<SignalGroup*>(this)->find(name);
}

bool SignalGroup::set_signal_data(std::string const& name, std::vector<unsigned char> const& data) {
    Signal* s = find(name);
    if (s == nullptr) {
        return false;
    }
    if (!s->set_data(data)) {
        return false;
    }
    add_set_signals(name);
    return true;
}

bool SignalGroup::set_signal_scaled_value(std::string const& name, double value) {
    Signal* s = find(name);
    if (s == nullptr) {
        return false;
    }
    if (!s->set_scaled_value(value)) {
        return false;
    }
    add_set_signals(name);
    return true;
}

void SignalGroup::add_set_signals(std::string const& name) {
    if (std::find(m_set_signals.begin(), m_set_signals.end(), name) == m_set_signals.end()) {
        m_set_signals.push_back(name);
    }
}

bool SignalGroup::is_valid() const {
    return std::all_of(m_signals.begin(), m_signals.end(),
                       [](const Signal& s) { return s.status() == Signal::OK; });
}

bool SignalGroup::operator==(SignalGroup const& other) const {
    return m_rtid == other.m_rtid && m_name == other.m_name && m_topic == other.m_topic &&
           m_signals == other.m_signals;
}

// ---- SignalAdapter ----------------------------------------------------------------------

namespace {

SignalGroup::CanBus to_can_bus(int32_t bus) {
    return bus == 0 || bus == 1 ? static_cast<SignalGroup::CanBus>(bus) : SignalGroup::NO_BUS;
}

const char* dlerror_text() {
    // glibc keeps the loader's error text per thread.
    const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe)
    return text != nullptr ? text : "no error text";
}

// A table without groups, standing in when none was supplied.
const SignalAdapter::Mapping s_empty_mapping;

}  // namespace

std::unique_ptr<SignalAdapter> SignalAdapter::c_instance;
std::string SignalAdapter::c_rt_support_library = SignalAdapter::c_default_rt_support_library;

SignalAdapter& SignalAdapter::instance() {
    if (c_instance != nullptr) {
        return *c_instance;
    }
    std::string path = c_rt_support_library;
    const char* sysroot = std::getenv("SDKTARGETSYSROOT");  // NOLINT(concurrency-mt-unsafe)
    if (sysroot != nullptr && path == c_default_rt_support_library) {
        path = sysroot + path;
    }
    SA_LOG(DEBUG) << "Trying to open dlib: " << path << " for SignalGroupsDefinition";
    DEBUG.do_flush();
    // Never closed: groups keep pointing into the library's table after a reset.
    void* handle = dlopen(path.c_str(), RTLD_NOW);
    if (handle == nullptr) {
        SA_LOG(ERROR) << dlerror_text();
        ERROR.do_flush();
    }
    // Looked up even without the library: a null handle makes the loader search the
    // process itself, so an application that defines the entry point needs no library.
    void* factory = dlsym(handle, _internal::c_mapping_factory_symbol);
    if (factory == nullptr) {
        SA_LOG(ERROR) << "The lib handle is not set! (" << dlerror_text() << ")";
        ERROR.do_flush();
    } else {
        const Mapping* table = reinterpret_cast<_internal::mapping_factory_fn>(factory)();
        c_instance.reset(new SignalAdapter(table));
    }
    TAVI_ASSERT(SignalAdapter::c_instance != nullptr, "no real-time support library loaded");
    return *c_instance;
}

void SignalAdapter::enforce_definition(const Mapping* definition) {
    c_instance.reset(new SignalAdapter(definition));
}

void SignalAdapter::enforce_support_lib(std::string const& path) {
    c_rt_support_library = path;
}

void SignalAdapter::reset_instance() {
    c_instance.reset();
}

SignalAdapter::SignalAdapter(const Mapping* definition)
    : m_definition(definition != nullptr ? definition : &s_empty_mapping) {
    if (definition == nullptr) {
        SA_LOG(ERROR) << "No definition supplied! Failed to initialize SignalAdapter";
        ERROR.do_flush();
        return;
    }
    SA_LOG(DEBUG) << "Initialize rtid to topic map";
    DEBUG.do_flush();
    for (const auto& [topic, mapping] : *m_definition) {
        m_rtid_to_topic.emplace(mapping.rtid, std::cref(topic));
    }
    SA_LOG(DEBUG) << "Mapping initialized!";
    DEBUG.do_flush();
}

bool SignalAdapter::is_valid_topic(std::string const& topic) const {
    return m_definition->count(topic) != 0;
}

std::vector<std::string> SignalAdapter::get_topics(std::string const& prefix) const {
    std::vector<std::string> topics;
    for (auto it = m_definition->lower_bound(prefix);
         it != m_definition->end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it) {
        topics.push_back(it->first);
    }
    return topics;
}

std::string SignalAdapter::map_rtid_to_topic(unsigned int rtid) const {
    if (m_rtid_to_topic.empty()) {
        SA_LOG(WARNING) << "Mapping is empty, unable to map!";
        WARNING.do_flush();
        return {};
    }
    const auto it = m_rtid_to_topic.find(rtid);
    if (it == m_rtid_to_topic.end()) {
        SA_LOG(WARNING) << "Unable to find topic rtid '" << rtid << "' in mapping";
        WARNING.do_flush();
        return {};
    }
    return it->second.get();
}

unsigned int SignalAdapter::map_topic_to_rtid(std::string const& topic) const {
    const auto it = m_definition->find(topic);
    if (it == m_definition->end()) {
        SA_LOG(WARNING) << "Unable to find rtid for topic '" << topic << "'";
        WARNING.do_flush();
        return 0;
    }
    return it->second.rtid;
}

bool SignalAdapter::is_topic_retained(std::string const& topic) const {
    const auto it = m_definition->find(topic);
    if (it == m_definition->end()) {
        SA_LOG(WARNING) << "Unable to find retain_flag for topic '" << topic << "'";
        WARNING.do_flush();
        return false;
    }
    return it->second.group.retained;
}

std::shared_ptr<SignalGroup> SignalAdapter::create_sg(std::string const& topic) const {
    const auto it = m_definition->find(topic);
    if (it == m_definition->end()) {
        SA_LOG(WARNING) << "No valid SignalGroup for topic: '" << topic << "'";
        WARNING.do_flush();
        return nullptr;
    }
    const _internal::signalgroup_def& def = it->second.group;
    auto sg = std::make_shared<SignalGroup>(it->second.rtid, def.name, topic, to_can_bus(def.bus),
                                            def.retained, 0);
    sg->m_signals.reserve(def.signals.size());
    for (const signal_def& sig : def.signals) {
        const int size = std::max(type_bytes(sig.dt_bit_size), payload_bytes(sig));
        sg->add_signal(Signal(sig.name, &sig, Signal::DATA(static_cast<size_t>(size), 0)));
    }
    return sg;
}

std::string SignalAdapter::add_padding(SignalGroup const& sg) const {
    std::string payload;
    for (const Signal& s : sg.signals()) {
        payload.append(s.data().begin(), s.data().end());
    }
    if (sg.signals().empty() || sg.signals().front().data().empty()) {
        return payload;
    }
    // Receivers cut the payload in steps of the first signal's length.
    const size_t step = sg.signals().front().data().size();
    payload.append((step - payload.size() % step) % step, '\xFF');
    return payload;
}

Result<com::Message, SignalAdapterError> SignalAdapter::pack(SignalGroup const& sg) const {
    using R = Result<com::Message, SignalAdapterError>;
    if (!is_valid_topic(sg.topic())) {
        return R::err({SignalAdapterError::UNKNOWN_TOPIC,
                       "SignalGroup::topic '" + sg.topic() + "' does not related to " +
                           "a SignalGroup topic unknown to the platform!"});
    }
    pb::RtSignal rt_signal;
    rt_signal.set_data(add_padding(sg));
    rt_signal.set_timestamp(DateTime::time_since_boot_ms());
    auto framed =
        com::PbInternalMessageAdapter<pb::RtSignal>(com::PROTOCOL_RT_SIGNAL).serialize(rt_signal);
    if (!framed) {
        SA_LOG(DEBUG) << "Unable to serialize pb::RtSignal";
        DEBUG.do_flush();
        return R::err(
            {SignalAdapterError::SERIALIZATION, "Protobuf serialization error of RtSignal!"});
    }
    return R::ok(std::move(framed).value());
}

Result<SignalGroup, SignalAdapterError> SignalAdapter::unpack(std::string const& topic,
                                                              com::Message const& message) const {
    using R = Result<SignalGroup, SignalAdapterError>;
    const com::PbInternalMessageAdapter<pb::RtSignal> framing(com::PROTOCOL_RT_SIGNAL);
    auto rt_signal = framing.deserialize(message);
    if (!rt_signal) {
        SA_LOG(ERROR) << "Unable to deserialize pb::RtSignal";
        ERROR.do_flush();
        return R::err(
            {SignalAdapterError::DESERIALIZATION, "Protobuf deserialization error of RtSignal!"});
    }
    const auto it = m_definition->find(topic);
    if (it == m_definition->end()) {
        return R::err({SignalAdapterError::UNKNOWN_TOPIC,
                       "'" + topic + "' can not be handled via SignalAdapter."});
    }
    const _internal::signalgroup_def& def = it->second.group;
    // 64 bits even where size_t has 32: a sum that wrapped could match a short payload and
    // the signals would then be cut beyond its end.
    uint64_t expected = 0;
    for (const signal_def& sig : def.signals) {
        expected += static_cast<uint64_t>(payload_bytes(sig));
    }
    // Senders pad to a multiple of the first signal's length; a payload that is already a
    // multiple is accepted with one more step as well, as deployed senders produce it.
    uint64_t padded = expected;
    if (!def.signals.empty()) {
        const uint64_t step = static_cast<uint64_t>(payload_bytes(def.signals.front()));
        padded = step + expected - expected % step;
    }
    const std::string& data = rt_signal.value().data();
    if (data.size() != expected && data.size() != padded) {
        return R::err({SignalAdapterError::UNEXPECTED_SIZE,
                       "Unexpected size for " + std::string(def.name) + " expect [" +
                           std::to_string(expected) + " or padded " + std::to_string(padded) +
                           "] raw_size: [" + std::to_string(data.size()) + "]"});
    }
    SignalGroup sg(it->second.rtid, def.name, topic, to_can_bus(def.bus), def.retained,
                   framing.get_timestamp(rt_signal.value()));
    sg.m_signals.reserve(def.signals.size());
    auto pos = data.begin();
    for (const signal_def& sig : def.signals) {
        const auto end = pos + payload_bytes(sig);
        sg.add_signal(Signal(sig.name, &sig, Signal::DATA(pos, end)));
        pos = end;
    }
    return R::ok(std::move(sg));
}

}  // namespace ecu::tavi::rt
