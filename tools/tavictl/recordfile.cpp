#include "recordfile.h"

#include <chrono>
#include <cmath>
#include <ctime>

#include "decoder.h"
#include "ecu/tavi/com/messageadapter.h"
#include "ecu/tavi/com/protocol_types.h"
#include "ecu/tavi/pb/ecuvariable.pb.h"
#include "ecu/tavi/rt/signaladapter.h"

namespace tavictl {

using namespace ecu::tavi;
using json = Json;

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64_value(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '/') {
        return 63;
    }
    return -1;
}

using LineResult = Result<RecordEntry, std::string>;

LineResult bad(const std::string& why) {
    return LineResult::err(why);
}

Result<com::Message, std::string> pack_signals(const std::string& topic, const json& signals) {
    using R = Result<com::Message, std::string>;
    if (!signals.is_object()) {
        return R::err("\"signals\" must be an object of signal names and values");
    }
    if (!rt_support_loaded()) {
        return R::err("real-time groups need the real-time support library (--rt-support)");
    }
    const rt::SignalAdapter& adapter = rt::SignalAdapter::instance();
    const std::string group_topic = rt_group_topic(topic);
    if (!adapter.is_valid_topic(group_topic)) {
        return R::err("no real-time group is published on " + group_topic);
    }
    auto group = adapter.create_sg(group_topic);
    for (const auto& item : signals.items()) {
        if (!item.value().is_number()) {
            return R::err("the value of signal '" + item.key() + "' is no number");
        }
        if (!group->has_signal(item.key())) {
            return R::err(group_topic + " has no signal '" + item.key() + "'");
        }
        if (!group->set_signal_scaled_value(item.key(), item.value().get<double>())) {
            return R::err("signal '" + item.key() + "' refuses the value " + item.value().dump());
        }
    }
    auto packed = adapter.pack(*group);
    if (!packed) {
        return R::err(packed.error().message);
    }
    return R::ok(packed.value());
}

LineResult parse_line(const std::string& line) {
    const json object = json::parse(line, nullptr, false);
    if (object.is_discarded()) {
        return bad("not valid JSON (a truncated line?)");
    }
    if (!object.is_object()) {
        return bad("not a JSON object");
    }
    RecordEntry entry;
    const auto t = object.find("t");
    if (t == object.end() || !t->is_number() || !std::isfinite(t->get<double>()) ||
        t->get<double>() < 0) {
        return bad("\"t\" must be a number of seconds, 0 or more");
    }
    entry.t = t->get<double>();
    const auto topic = object.find("topic");
    if (topic == object.end() || !topic->is_string() || topic->get<std::string>().empty() ||
        topic->get<std::string>().find_first_of("+#") != std::string::npos) {
        return bad("\"topic\" must be a topic name (no wildcards)");
    }
    entry.topic = topic->get<std::string>();
    const auto qos = object.find("qos");
    if (qos != object.end()) {
        if (!qos->is_number_unsigned() || qos->get<unsigned>() > 2) {
            return bad("\"qos\" must be 0, 1 or 2");
        }
        entry.message.set_qos(static_cast<std::uint8_t>(qos->get<unsigned>()));
    }
    const auto retain = object.find("retain");
    if (retain != object.end()) {
        if (!retain->is_boolean()) {
            return bad("\"retain\" must be true or false");
        }
        entry.message.set_retain(retain->get<bool>());
    }

    const auto payload = object.find("payload");
    const auto signals = object.find("signals");
    const auto variable = object.find("variable");
    const int given =
        (payload != object.end()) + (signals != object.end()) + (variable != object.end());
    if (given != 1) {
        return bad("give exactly one of \"payload\", \"signals\" and \"variable\"");
    }
    const auto qos_value = entry.message.get_qos();
    const bool retain_value = entry.message.get_retain();
    if (payload != object.end()) {
        std::vector<std::uint8_t> data;
        if (!payload->is_string() || !base64_decode(payload->get<std::string>(), data)) {
            return bad("\"payload\" must be base64");
        }
        entry.message.set_data(std::move(data));
    } else if (signals != object.end()) {
        auto packed = pack_signals(entry.topic, *signals);
        if (!packed) {
            return bad(packed.error());
        }
        entry.message = packed.value();
    } else {
        if (!variable->is_string()) {
            return bad("\"variable\" must be a string");
        }
        pb::EcuVariable value;
        value.set_value(variable->get<std::string>());
        auto framed = com::PbInternalMessageAdapter<pb::EcuVariable>(com::PROTOCOL_ECU_VARIABLE)
                          .serialize(value);
        if (!framed) {
            return bad("cannot frame the variable");
        }
        entry.message = framed.value();
    }
    entry.message.set_qos(qos_value);
    entry.message.set_retain(retain_value);
    return LineResult::ok(std::move(entry));
}

std::string check_header(const std::string& line) {
    const json header = json::parse(line, nullptr, false);
    if (header.is_discarded() || !header.is_object() || !header.contains("format") ||
        header["format"] != kRecordFormat) {
        return std::string("not a record file (the first line must name the format \"") +
               kRecordFormat + "\")";
    }
    const auto version = header.find("version");
    if (version == header.end() || !version->is_number_integer()) {
        return "the first line gives no format version";
    }
    if (*version != kRecordVersion) {
        return "format version " + version->dump() + " is not supported (this tavictl reads " +
               std::to_string(kRecordVersion) + ")";
    }
    return "";
}

}  // namespace

json record_header(const std::vector<std::string>& filters) {
    char started[32] = "";
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::strftime(started, sizeof(started), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {{"format", kRecordFormat},
            {"version", kRecordVersion},
            {"filters", filters},
            {"started", started}};
}

json message_json(const std::string& topic, const com::Message& message) {
    json line = {{"topic", topic},
                 {"qos", message.get_qos()},
                 {"retain", message.get_retain()},
                 {"payload", base64_encode(message.get_data())}};
    json decoded = to_json(decode(topic, message.get_data()));
    if (!decoded.empty()) {
        line["decoded"] = std::move(decoded);
    }
    return line;
}

Result<std::vector<RecordEntry>, std::string> read_record(const std::string& text) {
    using R = Result<std::vector<RecordEntry>, std::string>;
    std::vector<RecordEntry> entries;
    size_t start = 0;
    size_t number = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        std::string line = text.substr(start, end - start);
        start = end + 1;
        ++number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (number == 1) {
            const std::string error = check_header(line);
            if (!error.empty()) {
                return R::err("line 1: " + error);
            }
            continue;
        }
        if (line.find_first_not_of(" \t") == std::string::npos) {
            continue;
        }
        auto entry = parse_line(line);
        if (!entry) {
            return R::err("line " + std::to_string(number) + ": " + entry.error());
        }
        entries.push_back(std::move(entry.value()));
    }
    if (number == 0) {
        return R::err("line 1: empty file, the format line is missing");
    }
    return R::ok(std::move(entries));
}

std::string base64_encode(const std::vector<std::uint8_t>& data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    for (size_t i = 0; i < data.size(); i += 3) {
        const std::uint32_t n = (data[i] << 16) | (i + 1 < data.size() ? data[i + 1] << 8 : 0) |
                                (i + 2 < data.size() ? data[i + 2] : 0);
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += i + 1 < data.size() ? kAlphabet[(n >> 6) & 63] : '=';
        out += i + 2 < data.size() ? kAlphabet[n & 63] : '=';
    }
    return out;
}

bool base64_decode(const std::string& text, std::vector<std::uint8_t>& data) {
    data.clear();
    if (text.size() % 4 != 0) {
        return false;
    }
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int padding = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + static_cast<size_t>(k)];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++padding;
            } else if (padding > 0 || (v[k] = base64_value(c)) < 0) {
                return false;
            }
        }
        const std::uint32_t n =
            (static_cast<std::uint32_t>(v[0]) << 18) | (static_cast<std::uint32_t>(v[1]) << 12) |
            (static_cast<std::uint32_t>(v[2]) << 6) | static_cast<std::uint32_t>(v[3]);
        data.push_back(static_cast<std::uint8_t>(n >> 16));
        if (padding < 2) {
            data.push_back(static_cast<std::uint8_t>(n >> 8));
        }
        if (padding < 1) {
            data.push_back(static_cast<std::uint8_t>(n));
        }
    }
    return true;
}

}  // namespace tavictl
