// Key/value configuration from which every client of the library is configured.
// Parse and verify once at start-up; after that get() may be called from any thread.
#pragma once

#include <istream>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::config {

class TAVI_EXPORT Configuration {
public:
    using Key = std::string;
    using Value = std::string;

    Configuration();

    // Parses the stream into a new configuration; does not verify it.
    static std::unique_ptr<Configuration> create_from_input(std::istream& input);

    // Fills in the defaults for keys that are absent (an empty value stays empty) and checks
    // that every required key has a non-empty value.
    bool verify();

    // The value of a key; an absent key reads as an empty value. Aborts when the
    // configuration has not been verified.
    const Value& get(const Key& key);

private:
    friend TAVI_EXPORT void set_config_from_input(std::unique_ptr<Configuration>& configuration,
                                                  std::istream& input);

    std::map<Key, Value> m_values;
    std::map<Key, Value> m_defaults;
    std::set<Key> m_required;
    bool m_is_verified = false;
};

// Parses "key = value" lines. Keys are stored lower-case, values as written; the first
// occurrence of a key wins. Lines starting with "#" or ";" are comments, and "#" also ends
// a value.
TAVI_EXPORT void set_config_from_input(std::unique_ptr<Configuration>& configuration,
                                       std::istream& input);

}  // namespace ecu::tavi::config
