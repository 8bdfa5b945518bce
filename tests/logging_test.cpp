#include "ecu/tavi/logging/logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "ecu/tavi/config/configuration.h"
#include "support/capture.h"

// Application code outside the library's namespace, without a using-directive: the stream
// operators must still be the filtering ones. The level drops in the middle of the line.
static void qualified_line_with_level_drop() {
    ecu::tavi::logging::INFO << "kept " << 1;
    ecu::tavi::logging::set_log_level(5);
    ecu::tavi::logging::INFO << " dropped" << std::endl;
    ecu::tavi::logging::set_log_level(6);
    ecu::tavi::logging::INFO.do_flush();
}

namespace ecu::tavi::logging {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        _internal::reset_modules();
        enable("root", false);
        set_log_mode(STDOUT);
        set_log_level(5);
        ::unsetenv("LOG_LEVEL");
    }
    void TearDown() override {
        set_log_mode(SYSLOG);
        set_log_level(5);
    }
};

TEST_F(LoggingTest, LevelsByNumberAndName) {
    set_log_level(8);
    set_log_level(-1);
    EXPECT_EQ(get_log_level(), 5);
    set_log_level("info");
    EXPECT_EQ(get_log_level(), 6);
    EXPECT_STREQ(get_log_level_name(), "INFO");

    set_log_level(5);
    test::StdoutCapture out;
    set_log_level("verbose");
    EXPECT_EQ(get_log_level(), 5);
    set_log_mode("journal");
    EXPECT_EQ(get_log_mode(), SYSLOG);
    set_log_mode(static_cast<LogMode>(9));
    EXPECT_STREQ(get_log_mode_name(), "UNKNOWN");
    set_log_mode("stdout");
    // Both messages are written in the mode in force before the change.
    EXPECT_EQ(out.finish(),
              "[NOTICE]: Level 'VERBOSE' not valid, set to default: 'NOTICE'\n"
              "[NOTICE]: Mode 'JOURNAL' not valid, set to default: 'SYSLOG'\n");
}

TEST_F(LoggingTest, PrintfFrontEndObeysLevelOnlyAndWritesStdoutInBothConsoleModes) {
    auto acl = module("tavi.com.acl");
    ASSERT_FALSE(acl->enabled());
    set_log_level(4);
    set_log_mode(STDERR);
    test::StdoutCapture out;
    notice("hidden %d\n", 1);
    error("shown %d\n", 2);
    warning(acl, "disabled module still logs %s\n", "x");
    error(std::shared_ptr<LogModule>(), "no module %d\n", 3);
    EXPECT_EQ(out.finish(),
              "[ERROR]: shown 2\n"
              "[WARNING]: [tavi.com.acl] disabled module still logs x\n"
              "[ERROR]: no module 3\n");
}

TEST_F(LoggingTest, ModuleTreeNames) {
    EXPECT_EQ(module("tavi.com.acl")->name(), "tavi.com.acl");
    EXPECT_EQ(module("root")->name(), "root");
    EXPECT_EQ(module("root"), module(std::vector<std::string>{"root"}));
    auto x = module("root.x");
    EXPECT_EQ(x->name(), "root.x");
    EXPECT_EQ(x->parent()->parent(), module("root"));
    EXPECT_EQ(module("a..b")->parent()->own_name(), "");
    EXPECT_EQ(module("tavi.com"), module("tavi.com.acl")->parent());
}

TEST_F(LoggingTest, EnableDisableRecursively) {
    auto acl = module("tavi.com.acl");
    auto tavi = module("tavi");
    enable("tavi", false);
    EXPECT_TRUE(tavi->enabled());
    EXPECT_FALSE(acl->enabled());
    enable("tavi", true);
    EXPECT_TRUE(acl->enabled());
    disable_all();
    EXPECT_FALSE(module("root")->enabled());
    EXPECT_FALSE(acl->enabled());
    std::shared_ptr<LogModule> none;
    EXPECT_FALSE(enable(none, true));
    EXPECT_TRUE(enable(acl, false));
    EXPECT_TRUE(acl->enabled());
}

TEST_F(LoggingTest, StreamLinesAndModuleFilter) {
    auto mqtt = module("tavi.com.mqttclient");
    set_log_level(7);
    test::StdoutCapture out;

    INFO << mqtt << "disabled " << 1;
    INFO.do_flush();
    INFO << "back to root";
    INFO.do_flush();
    ERROR << mqtt << "severe passes";
    ERROR.do_flush();
    enable(mqtt, false);
    INFO << mqtt << "value " << 42;
    INFO.do_flush();
    INFO.do_flush();  // empty line: nothing at all
    WARNING << "with endl" << std::endl;
    ERROR << std::shared_ptr<LogModule>() << "no module";
    ERROR.do_flush();
    const char* absent = nullptr;  // would set the shared stream's badbit for good
    ERROR << "text " << absent;
    ERROR.do_flush();
    ERROR << "still written";
    ERROR.do_flush();
    EXPECT_EQ(out.finish(),
              "[INFO]: back to root\n"
              "[ERROR]: [tavi.com.mqttclient] severe passes\n"
              "[INFO]: [tavi.com.mqttclient] value 42\n"
              "[WARNING]: with endl\n"
              "[ERROR]: no module\n"
              "[ERROR]: text (null)\n"
              "[ERROR]: still written\n");
}

TEST_F(LoggingTest, SuppressedLinesLeaveNoTraceAlsoWhenQualified) {
    auto mqtt = module("tavi.com.mqttclient");
    enable(mqtt, false);
    test::StdoutCapture out;
    DEBUG << mqtt << "text " << 42;
    DEBUG.do_flush();
    EXPECT_TRUE(_internal::LogStreambuf::buffer().empty());
    EXPECT_EQ(_internal::LogStreambuf::get_active_module(), module("root"));
    set_log_level(7);
    DEBUG << "next";
    DEBUG.do_flush();

    // Attributed to a disabled module while the level let INFO through, flushed after it no
    // longer does: the attribution still ends with the line.
    INFO << module("tavi.off") << "dropped";
    set_log_level(5);
    INFO.do_flush();
    NOTICE << "root again";
    NOTICE.do_flush();

    set_log_level(6);
    qualified_line_with_level_drop();
    EXPECT_EQ(out.finish(), "[DEBUG]: next\n[NOTICE]: root again\n[INFO]: kept 1\n");
}

TEST_F(LoggingTest, SyslogModeAddsNoNewline) {
    set_log_mode(SYSLOG);
    test::StdoutCapture out;
    ERROR << module("tavi.x") << "to syslog";
    ERROR.do_flush();
    EXPECT_EQ(out.finish(), "");
    EXPECT_TRUE(_internal::LogStreambuf::buffer().empty());
}

TEST_F(LoggingTest, LinesFromManyThreadsStayIntact) {
    set_log_level(6);
    constexpr int kThreads = 8;
    constexpr int kLines = 500;
    std::string text;
    {
        test::StdoutCapture out;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i) {
                    INFO << "thread " << t << " first half, ";
                    INFO << "second half " << i;
                    INFO.do_flush();
                    if (i % 2 == 0) {
                        info("printf thread %d line %d\n", t, i);
                    }
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        text = out.finish();
    }
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        ASSERT_TRUE(line.rfind("[INFO]: thread ", 0) == 0 ||
                    line.rfind("[INFO]: printf thread ", 0) == 0)
            << line;
        if (line.rfind("[INFO]: thread ", 0) == 0) {
            ASSERT_THAT(line, HasSubstr(" first half, second half "));
        }
        ASSERT_THAT(line.substr(1), Not(HasSubstr("[INFO]")));
    }
    EXPECT_EQ(count, kThreads * kLines + kThreads * kLines / 2);
}

TEST_F(LoggingTest, ConfigureLoggingFromEnvironmentAndArgument) {
    ::setenv("LOG_LEVEL", "ERROR", 1);
    configure_logging("debug");
    EXPECT_EQ(get_log_level(), 7);
    configure_logging("");
    EXPECT_EQ(get_log_level(), 3);
    ::unsetenv("LOG_LEVEL");
    configure_logging("");
    EXPECT_EQ(get_log_level(), 3);
}

TEST_F(LoggingTest, SetFromConfig) {
    std::istringstream text(
        "client_name = app\n"
        "logging.mode = stdout\n"
        "logging.level = info\n"
        "logging.modules.enable = tavi.com tavi.rt  app\n"
        "logging.modules.disable = tavi.rt\n");
    auto configuration = config::Configuration::create_from_input(text);
    ASSERT_TRUE(configuration->verify());
    module("tavi.com.acl");  // exists before, so the recursive switch reaches it
    set_log_mode(SYSLOG);
    set_from_config(configuration);
    EXPECT_EQ(get_log_mode(), STDOUT);
    EXPECT_EQ(get_log_level(), 6);
    EXPECT_TRUE(module("tavi.com.acl")->enabled());
    EXPECT_FALSE(module("tavi.rt")->enabled());
    EXPECT_TRUE(module("app")->enabled());
    EXPECT_TRUE(module("")->enabled());  // the doubled blank names the empty module
}

TEST_F(LoggingTest, TreeIsBoundedInDepthAndSize) {
    std::string deep = "d";
    for (int i = 1; i < 33; ++i) {
        deep += "." + std::to_string(i);
    }
    test::StdoutCapture out;
    EXPECT_EQ(module(deep), module("root"));
    EXPECT_FALSE(enable(deep, true));
    const std::string allowed = deep.substr(0, deep.rfind('.'));  // 32 segments
    EXPECT_EQ(module(allowed)->name(), allowed);

    // The tree holds the root, the 32 modules above and what follows, up to 1024.
    for (int i = 33; i < 1024; ++i) {
        ASSERT_NE(module("m" + std::to_string(i)), module("root")) << i;
    }
    EXPECT_EQ(module("one.too.many"), module("root"));
    EXPECT_EQ(module("root")->children().count("one"), 0u) << "no partial branch";
    EXPECT_FALSE(disable("m1024", false));
    EXPECT_EQ(module("m1023")->name(), "m1023");  // existing modules are still found
    const std::string log = out.finish();
    EXPECT_THAT(log, HasSubstr("[ERROR]: Log module name of 33 segments refused: names are "
                               "limited to 32 segments\n"));
    EXPECT_THAT(log, HasSubstr("[ERROR]: Log module 'one.too.many' refused: the tree is "
                               "limited to 1024 modules\n"));
    _internal::reset_modules();
    EXPECT_EQ(module("one.too.many")->name(), "one.too.many");
}

// Modules are looked up and created by name from many threads while a remote-control-style
// thread switches and walks the tree, and another logs through the module it holds. All
// start together, so that their accesses overlap.
TEST_F(LoggingTest, ModuleTreeIsSafeUnderConcurrentUse) {
    set_log_level(7);
    const auto held = module("app.held");
    std::atomic<int> started{0};
    const auto together = [&started] {
        for (++started; started < 5;) {
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t, &together] {
            together();
            for (int i = 0; i < 2000; ++i) {
                const auto m = module("app.t" + std::to_string(t) + "." + std::to_string(i % 200));
                EXPECT_EQ(m->parent()->parent(), module("app"));
            }
        });
    }
    threads.emplace_back([&together] {
        together();
        for (int i = 0; i < 300; ++i) {
            enable("app", true);
            disable("app." + std::to_string(i % 7), true);
            size_t count = 0;
            for (const auto& [name, child] : module("root")->children()) {
                count += child->children().size() + child->name().size();
            }
            EXPECT_GT(count, 0u);
        }
    });
    threads.emplace_back([&held, &together] {
        test::StdoutCapture out;
        together();
        for (int i = 0; i < 2000; ++i) {
            INFO << held << "held";
            INFO.do_flush();
        }
    });
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(module("app.t2.199")->name(), "app.t2.199");
}

}  // namespace
}  // namespace ecu::tavi::logging
