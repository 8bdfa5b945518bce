// What the simulated unit holds: the keys of a unit description, written in the library's
// configuration syntax ("key = value", "#" and ";" comments, keys case-insensitive).
//
// Unlike an application's configuration a unit description is read strictly: a line
// without "=" and a key given twice are errors naming their line, because a unit that
// silently differs from its description makes a test prove the wrong thing.
//
// Thread safe: the daemons read it on their network threads while a test changes it.
#pragma once

#include <istream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ecu/tavi/export.h"
#include "ecu/tavi/result.h"

namespace ecu::tavi::sim {

class TAVI_EXPORT Unit {
public:
    Unit() = default;
    Unit(const Unit& other);
    Unit& operator=(const Unit&) = delete;

    // Reads a unit description file. Errors name the file and the line ("unit.conf:7: ...").
    static Result<std::shared_ptr<Unit>, std::string> load(const std::string& path);
    // Reads a unit description; source names it in errors.
    static Result<std::shared_ptr<Unit>, std::string> parse(std::istream& input,
                                                            const std::string& source);

    // The value of a key; empty when the unit does not hold it.
    std::string get(const std::string& key) const;
    // A comma-separated value as its trimmed, non-empty items.
    std::vector<std::string> get_list(const std::string& key) const;
    // Every key, in key order.
    std::vector<std::string> keys() const;
    // Where a key comes from, for messages: "unit.conf:7", or "set at run time".
    std::string origin(const std::string& key) const;

    // Sets a key (lower-cased) as a test or a tool changes the unit.
    void set(const std::string& key, const std::string& value);

private:
    struct Entry {
        std::string value;
        int line = 0;  // 0: set at run time
    };

    mutable std::mutex m_mutex;
    std::string m_source;
    std::map<std::string, Entry> m_entries;
};

}  // namespace ecu::tavi::sim
