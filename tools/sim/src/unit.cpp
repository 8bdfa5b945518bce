#include "ecu/tavi/sim/unit.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace ecu::tavi::sim {

namespace {

std::string trim(const std::string& text) {
    auto not_space = [](unsigned char c) { return std::isspace(c) == 0; };
    auto begin = std::find_if(text.begin(), text.end(), not_space);
    auto end = std::find_if(text.rbegin(), text.rend(), not_space).base();
    return begin < end ? std::string(begin, end) : std::string();
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

}  // namespace

Unit::Unit(const Unit& other) {
    std::lock_guard<std::mutex> lock(other.m_mutex);
    m_source = other.m_source;
    m_entries = other.m_entries;
}

Result<std::shared_ptr<Unit>, std::string> Unit::load(const std::string& path) {
    using R = Result<std::shared_ptr<Unit>, std::string>;
    std::ifstream file(path);
    if (!file) {
        return R::err("cannot read unit file '" + path + "': " + std::strerror(errno));
    }
    return parse(file, path);
}

Result<std::shared_ptr<Unit>, std::string> Unit::parse(std::istream& input,
                                                       const std::string& source) {
    using R = Result<std::shared_ptr<Unit>, std::string>;
    auto unit = std::make_shared<Unit>();
    unit->m_source = source;
    std::string raw;
    for (int line = 1; std::getline(input, raw); ++line) {
        const std::string text = trim(raw);
        if (text.empty() || text[0] == '#' || text[0] == ';') {
            continue;
        }
        const std::string where = source + ":" + std::to_string(line) + ": ";
        const auto eq = text.find('=');
        if (eq == std::string::npos) {
            return R::err(where + "expected 'key = value', found '" + text + "'");
        }
        const std::string key = lower(trim(text.substr(0, eq)));
        if (key.empty()) {
            return R::err(where + "no key in front of '='");
        }
        // As in the library's configuration files, "#" starts a comment after a value.
        std::string value = trim(text.substr(eq + 1));
        value = trim(value.substr(0, value.find('#')));
        auto known = unit->m_entries.find(key);
        if (known != unit->m_entries.end()) {
            return R::err(where + "key '" + key + "' given twice (first on line " +
                          std::to_string(known->second.line) + ")");
        }
        unit->m_entries[key] = Entry{value, line};
    }
    return R::ok(unit);
}

std::string Unit::get(const std::string& key) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(key);
    return it == m_entries.end() ? std::string() : it->second.value;
}

std::vector<std::string> Unit::get_list(const std::string& key) const {
    std::vector<std::string> items;
    std::istringstream in(get(key));
    std::string item;
    while (std::getline(in, item, ',')) {
        item = trim(item);
        if (!item.empty()) {
            items.push_back(item);
        }
    }
    return items;
}

std::vector<std::string> Unit::keys() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> keys;
    for (const auto& entry : m_entries) {
        keys.push_back(entry.first);
    }
    return keys;
}

std::string Unit::origin(const std::string& key) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(key);
    if (it == m_entries.end() || it->second.line == 0) {
        return "set at run time";
    }
    return m_source + ":" + std::to_string(it->second.line);
}

void Unit::set(const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries[lower(trim(key))] = Entry{value, 0};
}

}  // namespace ecu::tavi::sim
