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
/// \code
/// static const auto s_log = ecu::tavi::logging::module("app.sensor");
/// INFO << s_log << "value " << 42;
/// INFO.do_flush();
/// \endcode
///
/// A line is written by do_flush() on the thread that built it; attribute it to a module
/// first, and end every line with do_flush(), also one that may be suppressed, so that the
/// next line of the thread starts clean.
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

/// Where lines go.
enum LogMode : int {
    SYSLOG = 0,  ///< the system logger (default)
    STDOUT = 1,  ///< standard output, each line prefixed with "[LEVEL]: "
    STDERR = 2,  ///< the same as STDOUT: console lines always go to standard output
};

namespace _internal {
class ModuleTree;
}  // namespace _internal

/// A named switch in the process-wide tree of log modules.
///
/// Get modules from module(), which creates them in the tree; a module lives as long as the
/// tree holds it (until _internal::reset_modules()) or anyone holds a pointer to it. Every
/// member may be called from any thread.
class TAVI_EXPORT LogModule {
public:
    /// A module outside the tree; module() is the way to make one inside it.
    LogModule(bool enabled, std::string name, std::shared_ptr<LogModule> parent);

    /// Full dotted name; the root's name never appears in front ("tavi.com.acl"), and the
    /// root itself is called "root". Built once at creation.
    const std::string& name() const { return m_full_name; }
    /// Sets the enabled flag, with recursive also on every descendant.
    void change(bool enabled, bool recursive);

    /// Whether NOTICE, INFO and DEBUG stream lines of this module are written.
    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
    /// The last segment of the name.
    const std::string& own_name() const { return m_name; }
    /// A snapshot: other threads may add modules meanwhile.
    std::map<std::string, std::shared_ptr<LogModule>> children() const;
    /// The parent module; empty for the root.
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

/// Sets the global level 0..7 (EMERG..DEBUG); lines of a higher level are not written. Any
/// other number is ignored.
TAVI_EXPORT void set_log_level(int level);
/// Sets the global level by name, "EMERG" .. "DEBUG" in any case; an unknown name sets the
/// default (NOTICE) with a NOTICE line.
TAVI_EXPORT void set_log_level(char const* name);
/// The global level.
TAVI_EXPORT int get_log_level();
/// The name of the global level.
TAVI_EXPORT const char* get_log_level_name();
/// "NOTICE", the level before anything is set.
TAVI_EXPORT const char* get_default_log_level_name();
/// Name of a level, "UNKNOWN" outside 0..7.
TAVI_EXPORT const char* level_name(int level);

/// Sets where lines go.
TAVI_EXPORT void set_log_mode(LogMode mode);
/// Sets the mode by name, "SYSLOG", "STDOUT" or "STDERR" in any case; an unknown name sets
/// SYSLOG with a NOTICE line.
TAVI_EXPORT void set_log_mode(char const* name);
/// The current mode.
TAVI_EXPORT LogMode get_log_mode();
/// The name of the current mode.
TAVI_EXPORT const char* get_log_mode_name();
/// "SYSLOG", the mode before anything is set.
TAVI_EXPORT const char* get_default_log_mode_name();

/// Applies the environment variable LOG_LEVEL, then a non-empty argument (which wins).
TAVI_EXPORT void configure_logging(std::string const& level);
/// Applies "logging.mode", "logging.level", "logging.modules.enable" and
/// "logging.modules.disable", in that order; empty values are skipped. The module lists are
/// separated by blanks and switch each module with everything below it, so a module named
/// in both lists ends disabled. The configuration must be verified.
TAVI_EXPORT void set_from_config(std::unique_ptr<config::Configuration> const& configuration);

/// Returns the module with the given dotted path, creating missing modules (disabled) on
/// the way. "root" is the root itself. A path deeper than 32 segments, or one that would
/// grow the tree beyond 1024 modules, is refused with an ERROR line and gives the root.
/// Never empty.
TAVI_EXPORT std::shared_ptr<LogModule> module(std::string const& path);
/// module() with the path given as its segments.
TAVI_EXPORT std::shared_ptr<LogModule> module(std::vector<std::string> const& segments);

/// Switches a module, with recursive also everything below it. By name the module is
/// created when missing: false, changing nothing, when it cannot be (see module()). By
/// pointer: false for an empty pointer.
///@{
TAVI_EXPORT bool enable(std::string const& path, bool recursive);
TAVI_EXPORT bool disable(std::string const& path, bool recursive);
TAVI_EXPORT bool enable(std::shared_ptr<LogModule>& module, bool recursive);
TAVI_EXPORT bool disable(std::shared_ptr<LogModule>& module, bool recursive);
///@}
/// Switches every module, the root included.
///@{
TAVI_EXPORT void enable_all();
TAVI_EXPORT void disable_all();
///@}

/// Lets the compiler check printf-style arguments.
#define TAVI_PRINTF_LIKE(f, a) __attribute__((format(printf, f, a)))
/// printf-style front end, one function per level. Only the level decides; a module's
/// enabled flag filters the stream front end only, here the module only names the line.
/// The text is written as formatted: console modes add no newline.
///@{
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
///@}
#undef TAVI_PRINTF_LIKE

namespace _internal {

/// Bounds of the module tree: anything may name a module (a remote tool too), and each
/// module lives until the tree is reset.
///@{
constexpr size_t c_max_module_depth = 32;
constexpr size_t c_max_modules = 1024;
///@}

/// Drops every child of the root and disables the root. For tests: modules that are held
/// elsewhere (such as the library's own) stay valid but are no longer in the tree.
TAVI_EXPORT void reset_modules();

/// Current level, read inline on every stream insertion so suppressed lines cost almost
/// nothing. Atomic because the remote log control changes it on the network thread while
/// every thread reads it; relaxed, since no other data hangs on it.
TAVI_EXPORT extern std::atomic<int> g_log_level;
/// The global level, read without ordering.
inline int log_level() {
    return g_log_level.load(std::memory_order_relaxed);
}

/// The buffer behind a LogStream: collects the calling thread's line in a buffer of that
/// thread and hands it to the printf-style core on sync().
class TAVI_EXPORT LogStreambuf : public std::streambuf {
public:
    /// A buffer for lines of the given level.
    explicit LogStreambuf(LogLevel level) : m_level(level) {}

    /// The module the thread's current line is attributed to; the root when none is.
    static std::shared_ptr<LogModule>& get_active_module();
    /// The calling thread's line buffer, shared by all eight streams.
    static std::string& buffer();

    /// Whether a stream of this level lets text through for the thread's current line:
    /// severe levels always do, the others only within the global level and when the
    /// line's module is enabled.
    bool passes() const {
        return m_level < 5 || (m_level <= log_level() && get_active_module()->enabled());
    }
    /// The level of the lines of this buffer.
    LogLevel level() const { return m_level; }

protected:
    /// Writes the thread's line (if it passes) and starts a new one.
    int sync() override;
    /// Appends to the thread's line.
    ///@{
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int_type overflow(int_type c) override;
    ///@}

private:
    LogLevel m_level;
};

/// One of the eight stream objects (EMERG .. DEBUG): a std::ostream whose lines are built
/// per thread and written by do_flush().
///
/// The objects are shared by every thread; each thread's text goes to its own buffer, so
/// threads never mix their lines. A line belongs to the thread that wrote it: insert and
/// flush on the same thread.
class TAVI_EXPORT LogStream : public std::ostream {
public:
    /// A stream for lines of the given level.
    explicit LogStream(LogLevel level);

    /// Ends the line: console modes get exactly one newline, syslog lines none.
    void do_flush();
    /// The buffer behind the stream.
    LogStreambuf& streambuf() { return m_buf; }

private:
    LogStreambuf m_buf;
};

// The stream operators live beside LogStream, so that argument-dependent lookup finds them
// wherever a stream is used, also fully qualified (ecu::tavi::logging::INFO << ...) without
// a using-directive; std's ostream operators would otherwise take the text unfiltered.

/// Attributes the current line of this thread to a module and writes its name in front
/// ("[tavi.com.acl] "); an empty pointer leaves the attribution as it was.
TAVI_EXPORT LogStream& operator<<(LogStream& stream, std::shared_ptr<LogModule> const& module);

/// Writes a value as std::ostream would, if the thread's current line passes.
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

/// Applies a manipulator (std::hex, ...), if the thread's current line passes.
inline LogStream& operator<<(LogStream& stream, std::ostream& (*manip)(std::ostream&)) {
    if (stream.streambuf().passes()) {
        manip(stream);
    }
    return stream;
}

}  // namespace _internal

/// The eight stream objects of levels 0..7. Lines of WARNING and more severe are written
/// whatever their module's switch; NOTICE, INFO and DEBUG lines only when their module (the
/// root when none is given) is enabled. Every line needs the global level.
///@{
TAVI_EXPORT extern _internal::LogStream EMERG;
TAVI_EXPORT extern _internal::LogStream ALERT;
TAVI_EXPORT extern _internal::LogStream CRITICAL;
TAVI_EXPORT extern _internal::LogStream ERROR;
TAVI_EXPORT extern _internal::LogStream WARNING;
TAVI_EXPORT extern _internal::LogStream NOTICE;
TAVI_EXPORT extern _internal::LogStream INFO;
TAVI_EXPORT extern _internal::LogStream DEBUG;
///@}

}  // namespace ecu::tavi::logging
