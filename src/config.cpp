#include "ecu/tavi/config/configuration.h"

#include <cctype>

#include "ecu/tavi/logging/logging.h"
#include "tavi_assert.h"

namespace ecu::tavi::config {
namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.config");

const std::map<std::string, std::string> kDefaults = {{"host", "localhost"}, {"port", "1883"}};
const std::set<std::string> kRequired = {"client_name"};

std::string trim(const std::string& text) {
    size_t end = text.size();
    while (end > 0 && std::isspace(static_cast<unsigned char>(text[end - 1]))) {
        --end;
    }
    size_t begin = 0;
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) {
        ++begin;
    }
    return text.substr(begin, end - begin);
}

}  // namespace

Configuration::Configuration() : m_defaults(kDefaults), m_required(kRequired) {}

std::unique_ptr<Configuration> Configuration::create_from_input(std::istream& input) {
    auto configuration = std::make_unique<Configuration>();
    set_config_from_input(configuration, input);
    return configuration;
}

void set_config_from_input(std::unique_ptr<Configuration>& configuration, std::istream& input) {
    for (const auto& [key, value] : kDefaults) {
        configuration->m_defaults[key] = value;
    }
    configuration->m_required.insert(kRequired.begin(), kRequired.end());

    std::string raw;
    while (std::getline(input, raw, input.widen('\n'))) {
        const std::string line = trim(raw);
        if (line.empty() || line[0] == '#' || line[0] == ';') {
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos) {
            NOTICE << s_log << "Ignore line '" << line << "'";
            NOTICE.do_flush();
            continue;
        }
        std::string key = trim(line.substr(0, eq));
        if (key.empty()) {
            continue;
        }
        std::string value = trim(line.substr(eq + 1));
        const size_t hash = value.find('#');
        if (hash != std::string::npos) {
            value = trim(value.substr(0, hash));
        }
        for (char& c : key) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        // The first occurrence of a key wins; later ones are dropped on purpose.
        configuration->m_values.emplace(std::move(key), std::move(value));
    }
}

bool Configuration::verify() {
    // emplace never overwrites: a key given with an empty value keeps it.
    for (const auto& [key, value] : m_defaults) {
        m_values.emplace(key, value);
    }
    for (const auto& key : m_required) {
        auto it = m_values.find(key);
        if (it == m_values.end() || it->second.empty()) {
            ERROR << s_log << "Required parameter '" << key << "' is missin";
            ERROR.do_flush();
            m_is_verified = false;
            return false;
        }
    }
    m_is_verified = true;
    return true;
}

const Configuration::Value& Configuration::get(const Key& key) {
    TAVI_ASSERT_IN(m_is_verified == true, "Configuration could not be verified!",
                   "const Value& ecu::tavi::config::Configuration::get(const Key&)");
    // Read-only, so any number of threads may read at once: an absent key is not inserted
    // but answered with the one shared empty value.
    static const Value s_empty;
    const auto found = m_values.find(key);
    return found != m_values.end() ? found->second : s_empty;
}

}  // namespace ecu::tavi::config
