#include "ecu/tavi/logging/logging.h"

#include <syslog.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "ecu/tavi/config/configuration.h"

namespace ecu::tavi::logging {
namespace _internal {
std::atomic<int> g_log_level{5};
}  // namespace _internal

namespace {

constexpr int kDefaultLevel = 5;
const char* const kLevelNames[8] = {"EMERG",   "ALERT",  "CRITICAL", "ERROR",
                                    "WARNING", "NOTICE", "INFO",     "DEBUG"};
const char* const kModeNames[3] = {"SYSLOG", "STDOUT", "STDERR"};

// Atomic for the same reason as the level: changed remotely while every thread logs.
std::atomic<LogMode> g_log_mode{SYSLOG};

LogMode log_mode() {
    return g_log_mode.load(std::memory_order_relaxed);
}

// Guards every children map of the module tree and the module count. Taken to look a
// module up by name, to create one and to walk the tree; never on the way of a line.
// Constant-initialised, like everything the tree needs, so that units creating their
// module during start-up may do so before this unit's own initialisers have run.
std::mutex g_tree_mutex;
size_t g_module_count = 1;  // the root

// The single output core of both front ends.
void vlog(int level, const char* format, va_list args) {
    if (level > _internal::log_level()) {
        return;
    }
    if (log_mode() == SYSLOG) {
        vsyslog(level, format, args);
        return;
    }
    // Both console modes write to standard output; the stream lock keeps the prefix and the
    // text of one line together when several threads log at once.
    flockfile(stdout);
    std::printf("[%s]: ", level_name(level));
    // Every caller has started the list with va_start; the analyzer loses it across the macro.
    std::vfprintf(stdout, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
    funlockfile(stdout);
}

void log_with_module(int level, std::shared_ptr<LogModule> const& module, const char* format,
                     va_list args) {
    if (level > _internal::log_level()) {
        return;
    }
    if (!module) {  // an empty module pointer only loses the name, never the line
        vlog(level, format, args);
        return;
    }
    const std::string prefixed = "[" + module->name() + "] " + format;
    vlog(level, prefixed.c_str(), args);
}

std::string upper(const char* text) {
    std::string result = text != nullptr ? text : "";
    for (char& c : result) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return result;
}

// Splits at every blank; adjacent blanks give empty tokens, which are kept.
std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> tokens;
    size_t start = 0;
    for (;;) {
        const size_t pos = text.find(separator, start);
        if (pos == std::string::npos) {
            tokens.push_back(text.substr(start));
            return tokens;
        }
        tokens.push_back(text.substr(start, pos - start));
        start = pos + 1;
    }
}

}  // namespace

namespace {
// The root's name never appears in front of a module's full name.
std::string full_name(const std::string& name, const std::shared_ptr<LogModule>& parent) {
    return parent && parent->parent() ? parent->name() + "." + name : name;
}
}  // namespace

LogModule::LogModule(bool enabled, std::string name, std::shared_ptr<LogModule> parent)
    : m_enabled(enabled),
      m_name(std::move(name)),
      m_parent(std::move(parent)),
      m_full_name(full_name(m_name, m_parent)) {}

std::map<std::string, std::shared_ptr<LogModule>> LogModule::children() const {
    std::lock_guard<std::mutex> lock(g_tree_mutex);
    return m_children;
}

void LogModule::change(bool enabled, bool recursive) {
    m_enabled.store(enabled, std::memory_order_relaxed);
    if (recursive) {
        for (auto& [name, child] : children()) {
            child->change(enabled, true);
        }
    }
}

const char* level_name(int level) {
    return level >= 0 && level < 8 ? kLevelNames[level] : "UNKNOWN";
}

void set_log_level(int level) {
    if (static_cast<unsigned>(level) < 8) {
        _internal::g_log_level.store(level, std::memory_order_relaxed);
    }
}

void set_log_level(char const* name) {
    const std::string wanted = upper(name);
    for (int level = 0; level < 8; ++level) {
        if (wanted == kLevelNames[level]) {
            _internal::g_log_level.store(level, std::memory_order_relaxed);
            return;
        }
    }
    NOTICE << "Level '" << wanted << "' not valid, set to default: '"
           << get_default_log_level_name() << "'";
    NOTICE.do_flush();
    _internal::g_log_level.store(kDefaultLevel, std::memory_order_relaxed);
}

int get_log_level() {
    return _internal::log_level();
}
const char* get_log_level_name() {
    return level_name(_internal::log_level());
}
const char* get_default_log_level_name() {
    return kLevelNames[kDefaultLevel];
}

void set_log_mode(LogMode mode) {
    g_log_mode.store(mode, std::memory_order_relaxed);
}

void set_log_mode(char const* name) {
    const std::string wanted = upper(name);
    for (int mode = 0; mode < 3; ++mode) {
        if (wanted == kModeNames[mode]) {
            g_log_mode.store(static_cast<LogMode>(mode), std::memory_order_relaxed);
            return;
        }
    }
    NOTICE << "Mode '" << wanted << "' not valid, set to default: '" << get_default_log_mode_name()
           << "'";
    NOTICE.do_flush();
    g_log_mode.store(SYSLOG, std::memory_order_relaxed);
}

LogMode get_log_mode() {
    return log_mode();
}

const char* get_log_mode_name() {
    const LogMode mode = log_mode();
    return mode >= 0 && mode < 3 ? kModeNames[mode] : "UNKNOWN";
}

const char* get_default_log_mode_name() {
    return kModeNames[SYSLOG];
}

void configure_logging(std::string const& level) {
    // Read once at start-up; the library never changes the environment.
    const char* env = std::getenv("LOG_LEVEL");  // NOLINT(concurrency-mt-unsafe)
    if (env != nullptr && env[0] != '\0') {
        DEBUG << "Set loglevel from env LOG_LEVEL to '" << env << "'";
        DEBUG.do_flush();
        set_log_level(env);
    }
    if (level.empty()) {
        return;
    }
    // Applied after the environment, so an explicit argument wins.
    DEBUG << "Set loglevel from args to '" << level << "'";
    DEBUG.do_flush();
    set_log_level(level.c_str());
}

void set_from_config(std::unique_ptr<config::Configuration> const& configuration) {
    const std::string& mode = configuration->get("logging.mode");
    if (!mode.empty()) {
        set_log_mode(mode.c_str());
    }
    const std::string& level = configuration->get("logging.level");
    if (!level.empty()) {
        set_log_level(level.c_str());
    }
    // Enabling first, so a module named in both lists ends disabled.
    const std::string& enabled = configuration->get("logging.modules.enable");
    if (!enabled.empty()) {
        for (const auto& token : split(enabled, ' ')) {
            enable(token, true);
        }
    }
    const std::string& disabled = configuration->get("logging.modules.disable");
    if (!disabled.empty()) {
        for (const auto& token : split(disabled, ' ')) {
            disable(token, true);
        }
    }
}

namespace {
// Created on first use, enabled, and never destroyed: lines written by destructors of
// other units at exit still find it. It is never replaced, only emptied.
const std::shared_ptr<LogModule>& root() {
    static const auto* const s_root = [] {
        auto* created =
            new std::shared_ptr<LogModule>(std::make_shared<LogModule>(false, "root", nullptr));
        (*created)->change(true, false);
        return created;
    }();
    return *s_root;
}

std::string joined(std::vector<std::string> const& segments) {
    std::string text;
    for (size_t i = 0; i < segments.size(); ++i) {
        text += (i > 0 ? "." : "") + segments[i];
    }
    return text;
}
}  // namespace

namespace _internal {

// The only code that touches the children maps, always under g_tree_mutex.
class ModuleTree {
public:
    // Empty, with an ERROR line, when the path is refused.
    static std::shared_ptr<LogModule> find_or_create(std::vector<std::string> const& segments) {
        if (segments.size() == 1 && segments[0] == "root") {
            return root();
        }
        if (segments.size() > c_max_module_depth) {
            ERROR << "Log module name of " << segments.size()
                  << " segments refused: names are limited to " << c_max_module_depth
                  << " segments";
            ERROR.do_flush();
            return nullptr;
        }
        std::unique_lock<std::mutex> lock(g_tree_mutex);
        std::shared_ptr<LogModule> current = root();
        size_t depth = 0;
        for (; depth < segments.size(); ++depth) {
            const auto found = current->m_children.find(segments[depth]);
            if (found == current->m_children.end()) {
                break;
            }
            current = found->second;
        }
        // All or nothing: a refused path leaves no partial branch behind.
        if (g_module_count + (segments.size() - depth) > c_max_modules) {
            lock.unlock();
            ERROR << "Log module '" << joined(segments) << "' refused: the tree is limited to "
                  << c_max_modules << " modules";
            ERROR.do_flush();
            return nullptr;
        }
        for (; depth < segments.size(); ++depth) {
            const std::string& segment = segments[depth];
            auto [inserted, ok] = current->m_children.emplace(
                segment, std::make_shared<LogModule>(false, segment, current));
            if (!ok) {
                lock.unlock();
                ERROR << "Unable to insert new log module: " << segment
                      << " use 'root' module instead.";
                ERROR.do_flush();
                return root();
            }
            ++g_module_count;
            current = inserted->second;
        }
        return current;
    }

    static void clear() {
        std::lock_guard<std::mutex> lock(g_tree_mutex);
        // Children keep their parents alive, so every map on the way down is emptied: a
        // dropped branch must not keep itself alive through its own links. Modules that
        // someone holds stay valid; the others go.
        std::vector<std::shared_ptr<LogModule>> pending{root()};
        while (!pending.empty()) {
            const auto current = std::move(pending.back());
            pending.pop_back();
            for (auto& [name, child] : current->m_children) {
                pending.push_back(std::move(child));
            }
            current->m_children.clear();
        }
        g_module_count = 1;
    }
};

}  // namespace _internal

std::shared_ptr<LogModule> module(std::vector<std::string> const& segments) {
    auto found = _internal::ModuleTree::find_or_create(segments);
    return found ? found : root();
}

std::shared_ptr<LogModule> module(std::string const& path) {
    return module(split(path, '.'));
}

bool enable(std::string const& path, bool recursive) {
    auto found = _internal::ModuleTree::find_or_create(split(path, '.'));
    return enable(found, recursive);
}

bool disable(std::string const& path, bool recursive) {
    auto found = _internal::ModuleTree::find_or_create(split(path, '.'));
    return disable(found, recursive);
}

bool enable(std::shared_ptr<LogModule>& module, bool recursive) {
    if (!module) {
        return false;
    }
    module->change(true, recursive);
    return true;
}

bool disable(std::shared_ptr<LogModule>& module, bool recursive) {
    if (!module) {
        return false;
    }
    module->change(false, recursive);
    return true;
}

void enable_all() {
    root()->change(true, true);
}
void disable_all() {
    root()->change(false, true);
}

#define TAVI_DEFINE_PRINTF(function, level)                                            \
    void function(char const* format, ...) {                                           \
        va_list args;                                                                  \
        va_start(args, format);                                                        \
        vlog(level, format, args);                                                     \
        va_end(args);                                                                  \
    }                                                                                  \
    void function(std::shared_ptr<LogModule> const& module, char const* format, ...) { \
        va_list args;                                                                  \
        va_start(args, format);                                                        \
        log_with_module(level, module, format, args);                                  \
        va_end(args);                                                                  \
    }

TAVI_DEFINE_PRINTF(emergency, 0)
TAVI_DEFINE_PRINTF(alert, 1)
TAVI_DEFINE_PRINTF(critical, 2)
TAVI_DEFINE_PRINTF(error, 3)
TAVI_DEFINE_PRINTF(warning, 4)
TAVI_DEFINE_PRINTF(notice, 5)
TAVI_DEFINE_PRINTF(info, 6)
TAVI_DEFINE_PRINTF(debug, 7)
#undef TAVI_DEFINE_PRINTF

namespace _internal {

void reset_modules() {
    ModuleTree::clear();
    root()->change(false, true);
}

namespace {
// One line buffer and one active module per thread, shared by all eight streams.
struct ThreadLine {
    std::string buffer;
    std::shared_ptr<LogModule> active_module;
};
thread_local ThreadLine t_line;
}  // namespace

std::shared_ptr<LogModule>& LogStreambuf::get_active_module() {
    if (!t_line.active_module) {
        t_line.active_module = root();
    }
    return t_line.active_module;
}

std::string& LogStreambuf::buffer() {
    return t_line.buffer;
}

int LogStreambuf::sync() {
    auto& active = get_active_module();
    if (active->enabled() || m_level <= 4) {
        if (!t_line.buffer.empty()) {
            char const* format = "%s";
            // Routed through the core so level and mode apply as for printf-style lines.
            switch (m_level) {
                default:
                    logging::debug(format, t_line.buffer.c_str());
                    break;
                case 0:
                    logging::emergency(format, t_line.buffer.c_str());
                    break;
                case 1:
                    logging::alert(format, t_line.buffer.c_str());
                    break;
                case 2:
                    logging::critical(format, t_line.buffer.c_str());
                    break;
                case 3:
                    logging::error(format, t_line.buffer.c_str());
                    break;
                case 4:
                    logging::warning(format, t_line.buffer.c_str());
                    break;
                case 5:
                    logging::notice(format, t_line.buffer.c_str());
                    break;
                case 6:
                    logging::info(format, t_line.buffer.c_str());
                    break;
            }
        }
    }
    t_line.buffer.clear();
    active = root();
    return 0;
}

std::streamsize LogStreambuf::xsputn(const char* s, std::streamsize n) {
    t_line.buffer.append(s, static_cast<size_t>(n));
    return n;
}

LogStreambuf::int_type LogStreambuf::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) {
        sync();
        return c;
    }
    t_line.buffer.push_back(traits_type::to_char_type(c));
    return c;
}

LogStream::LogStream(LogLevel level) : std::ostream(nullptr), m_buf(level) {
    rdbuf(&m_buf);
}

void LogStream::do_flush() {
    // A suppressed line buffered nothing: skip the stream machinery entirely, which keeps
    // disabled DEBUG lines nearly free. The line still ends here: an attribution made
    // while the level was higher must not carry over to the thread's next line.
    if (m_buf.level() > 4 && m_buf.level() > log_level() && t_line.buffer.empty()) {
        if (t_line.active_module != root()) {
            t_line.active_module = root();
        }
        return;
    }
    // Console lines end in exactly one newline; a flush with nothing buffered writes nothing.
    if (log_mode() != SYSLOG && !t_line.buffer.empty() && m_buf.passes()) {
        static_cast<std::ostream&>(*this) << '\n';
    }
    flush();
}

LogStream& operator<<(LogStream& stream, std::shared_ptr<LogModule> const& module) {
    const int level = stream.streambuf().level();
    if (level > 4 && level > log_level()) {
        return stream;
    }
    if (!module) {  // an empty pointer leaves the line attributed as it was
        return stream;
    }
    LogStreambuf::get_active_module() = module;
    stream << "[" << module->name() << "] ";
    return stream;
}

}  // namespace _internal

_internal::LogStream EMERG(0);
_internal::LogStream ALERT(1);
_internal::LogStream CRITICAL(2);
_internal::LogStream ERROR(3);
_internal::LogStream WARNING(4);
_internal::LogStream NOTICE(5);
_internal::LogStream INFO(6);
_internal::LogStream DEBUG(7);

}  // namespace ecu::tavi::logging
