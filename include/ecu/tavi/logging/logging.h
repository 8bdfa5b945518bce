/// \file
/// Process-wide logging: syslog-style levels, output modes, a tree of named log
/// modules, a printf-style front end and the stream front end used by all library code.
///
/// Thread safety: everything here may be used from any thread. Level, mode and each
/// module's enabled flag are atomics; the module tree takes a lock only to look a module up
/// by name, create one or walk the tree, never to write or suppress a line through a module
/// pointer already held. Each thread builds its lines in its own buffer, so lines never
/// interleave.
///
/// Typical use:
///   static const auto s_log = ecu::tavi::logging::module("app.sensor");
///   INFO << s_log << "value " << 42;
///   INFO.do_flush();
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "ecu/tavi/export.h"

namespace ecu::tavi::config {
class Configuration;
}

namespace ecu::tavi::logging {

/// Equal to the syslog priorities, so a level goes to the system logger unchanged.
using LogLevel = int;

enum LogMode : int { SYSLOG = 0, STDOUT = 1, STDERR = 2 };

namespace _internal {
class ModuleTree;
}  // namespace _internal

class TAVI_EXPORT LogModule {
public:
    LogModule(bool enabled, std::string name, std::shared_ptr<LogModule> parent);

    /// Full dotted name; the root's name never appears in front ("tavi.com.acl"), and the
    /// root itself is called "root". Built once at creation.
    const std::string& name() const { return m_full_name; }
    /// Sets the enabled flag, with recursive also on every descendant.
    void change(bool enabled, bool recursive);

    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
    const std::string& own_name() const { return m_name; }
    /// A snapshot: other threads may add modules meanwhile.
    std::map<std::string, std::shared_ptr<LogModule>> children() const;
    const std::shared_ptr<LogModule>& parent() const { return m_parent; }

private:
    friend class _internal::ModuleTree;

    /// Switched by the remote log control on the network thread while any thread logs.
    std::atomic<bool> m_enabled;
    const std::string m_name;
    const std::shared_ptr<LogModule> m_parent;
    const std::string m_full_name;
    /// Guarded by the tree's lock.
    std::map<std::string, std::shared_ptr<LogModule>> m_children;
};

TAVI_EXPORT void set_log_level(int level);
TAVI_EXPORT void set_log_level(char const* name);
TAVI_EXPORT int get_log_level();
TAVI_EXPORT const char* get_log_level_name();
TAVI_EXPORT const char* get_default_log_level_name();
/// Name of a level, "UNKNOWN" outside 0..7.
TAVI_EXPORT const char* level_name(int level);

TAVI_EXPORT void set_log_mode(LogMode mode);
TAVI_EXPORT void set_log_mode(char const* name);
TAVI_EXPORT LogMode get_log_mode();
TAVI_EXPORT const char* get_log_mode_name();
TAVI_EXPORT const char* get_default_log_mode_name();

/// Applies the environment variable LOG_LEVEL, then a non-empty argument (which wins).
TAVI_EXPORT void configure_logging(std::string const& level);
/// Applies "logging.mode", "logging.level", "logging.modules.enable" and
/// "logging.modules.disable", in that order; empty values are skipped.
TAVI_EXPORT void set_from_config(std::unique_ptr<config::Configuration> const& configuration);

/// Returns the module with the given dotted path, creating missing modules (disabled) on
/// the way. "root" is the root itself. A path deeper than 32 segments, or one that would
/// grow the tree beyond 1024 modules, is refused with an ERROR line and gives the root.
TAVI_EXPORT std::shared_ptr<LogModule> module(std::string const& path);
TAVI_EXPORT std::shared_ptr<LogModule> module(std::vector<std::string> const& segments);

/// By name: false, changing nothing, when the module cannot be created (see module()).
TAVI_EXPORT bool enable(std::string const& path, bool recursive);
TAVI_EXPORT bool disable(std::string const& path, bool recursive);
TAVI_EXPORT bool enable(std::shared_ptr<LogModule>& module, bool recursive);
TAVI_EXPORT bool disable(std::shared_ptr<LogModule>& module, bool recursive);
TAVI_EXPORT void enable_all();
TAVI_EXPORT void disable_all();

// printf-style front end. Only the level decides; a module's enabled flag filters the
// stream front end only.
#define TAVI_PRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
TAVI_EXPORT void emergency(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void alert(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void critical(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void error(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void warning(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void notice(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void info(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void debug(char const* format, ...) TAVI_PRINTF_LIKE(1, 2);
TAVI_EXPORT void emergency(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void alert(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void critical(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void error(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void warning(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void notice(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void info(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
TAVI_EXPORT void debug(std::shared_ptr<LogModule> const& module, char const* format, ...)
    TAVI_PRINTF_LIKE(2, 3);
#undef TAVI_PRINTF_LIKE

namespace _internal {

/// Bounds of the module tree: anything may name a module (a remote tool too), and each
/// module lives until the tree is reset.
constexpr size_t c_max_module_depth = 32;
constexpr size_t c_max_modules = 1024;

/// Drops every child of the root and disables the root.
TAVI_EXPORT void reset_modules();

/// Current level, read inline on every stream insertion so suppressed lines cost almost
/// nothing. Atomic because the remote log control changes it on the network thread while
/// every thread reads it; relaxed, since no other data hangs on it.
TAVI_EXPORT extern std::atomic<int> g_log_level;
inline int log_level() {
    return g_log_level.load(std::memory_order_relaxed);
}

class TAVI_EXPORT LogStreambuf : public std::streambuf {
public:
    explicit LogStreambuf(LogLevel level) : m_level(level) {}

    /// The module the thread's current line is attributed to; the root when none is.
    static std::shared_ptr<LogModule>& get_active_module();
    static std::string& buffer();

    /// Whether a stream of this level lets text through for the thread's current line:
    /// severe levels always do, the others only within the global level and when the
    /// line's module is enabled.
    bool passes() const {
        return m_level < 5 || (m_level <= log_level() && get_active_module()->enabled());
    }
    LogLevel level() const { return m_level; }

protected:
    int sync() override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int_type overflow(int_type c) override;

private:
    LogLevel m_level;
};

class TAVI_EXPORT LogStream : public std::ostream {
public:
    explicit LogStream(LogLevel level);

    /// Ends the line: console modes get exactly one newline, syslog lines none.
    void do_flush();
    LogStreambuf& streambuf() { return m_buf; }

private:
    LogStreambuf m_buf;
};

// The stream operators live beside LogStream, so that argument-dependent lookup finds them
// wherever a stream is used, also fully qualified (ecu::tavi::logging::INFO << ...) without
// a using-directive; std's ostream operators would otherwise take the text unfiltered.

/// Attributes the current line of this thread to a module.
TAVI_EXPORT LogStream& operator<<(LogStream& stream, std::shared_ptr<LogModule> const& module);

template <typename T>
LogStream& operator<<(LogStream& stream, T const& value) {
    if (stream.streambuf().level() > 4 && stream.streambuf().level() > log_level()) {
        return stream;  // cheap early out before any module lookup or formatting
    }
    if (stream.streambuf().passes()) {
        static_cast<std::ostream&>(stream) << value;
    }
    return stream;
}

/// A null text is written as "(null)": std::ostream would set its badbit instead, and the
/// stream objects are shared by every thread.
inline LogStream& operator<<(LogStream& stream, const char* text) {
    return stream << std::string_view(text ? text : "(null)");
}

inline LogStream& operator<<(LogStream& stream, std::ostream& (*manip)(std::ostream&)) {
    if (stream.streambuf().passes()) {
        manip(stream);
    }
    return stream;
}

}  // namespace _internal

/// The eight stream objects of levels 0..7.
TAVI_EXPORT extern _internal::LogStream EMERG;
TAVI_EXPORT extern _internal::LogStream ALERT;
TAVI_EXPORT extern _internal::LogStream CRITICAL;
TAVI_EXPORT extern _internal::LogStream ERROR;
TAVI_EXPORT extern _internal::LogStream WARNING;
TAVI_EXPORT extern _internal::LogStream NOTICE;
TAVI_EXPORT extern _internal::LogStream INFO;
TAVI_EXPORT extern _internal::LogStream DEBUG;

}  // namespace ecu::tavi::logging
