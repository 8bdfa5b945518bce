/// \file
/// Key/value configuration from which every client of the library is configured.
/// Parse and verify once at start-up; after that get() may be called from any thread.
#pragma once

#include <istream>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "ecu/tavi/export.h"

namespace ecu::tavi::config {

/// The application's settings as "key = value" pairs, with the library's defaults ("host"
/// localhost, "port" 1883) and required keys ("client_name").
///
/// Not thread safe while it is being parsed and verified; once verified, get() only reads
/// and may be called from any thread. The library reads it only while a transport is
/// created and while logging is set up from it.
class TAVI_EXPORT Configuration {
public:
    using Key = std::string;    ///< A key, stored lower-case.
    using Value = std::string;  ///< A value, as written.

    /// An empty, unverified configuration with the library's defaults and required keys.
    Configuration();

    /// Parses the stream into a new configuration; does not verify it. Never empty; lines it
    /// cannot read are skipped with a NOTICE line.
    static std::unique_ptr<Configuration> create_from_input(std::istream& input);

    /// Fills in the defaults for keys that are absent (an empty value stays empty) and checks
    /// that every required key has a non-empty value. False, with an ERROR line naming the
    /// first missing key, when one is missing.
    bool verify();

    /// The value of a key; an absent key reads as an empty value. Aborts when the
    /// configuration has not been verified. The reference stays valid as long as the
    /// configuration.
    const Value& get(const Key& key);

private:
    friend TAVI_EXPORT void set_config_from_input(std::unique_ptr<Configuration>& configuration,
                                                  std::istream& input);

    std::map<Key, Value> m_values;
    std::map<Key, Value> m_defaults;
    std::set<Key> m_required;
    bool m_is_verified = false;
};

/// Parses "key = value" lines. Keys are stored lower-case, values as written; the first
/// occurrence of a key wins. Lines starting with "#" or ";" are comments, and "#" also ends
/// a value. Adds to what the configuration already holds; it must not be empty.
TAVI_EXPORT void set_config_from_input(std::unique_ptr<Configuration>& configuration,
                                       std::istream& input);

}  // namespace ecu::tavi::config
