#include "ecu/tavi/config/configuration.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"

namespace ecu::tavi::config {
namespace {

std::unique_ptr<Configuration> parse(const std::string& text) {
    std::istringstream in(text);
    return Configuration::create_from_input(in);
}

TEST(ConfigTest, ParsingRules) {
    logging::set_log_mode(logging::STDOUT);
    logging::enable("tavi.config", false);
    test::StdoutCapture out;
    auto c = parse(
        "  Host =  broker  # the broker\n"
        "client_name=app\n"
        "a=b=c\n"
        "=orphan\n"
        "no equals sign here  \n"
        "; a comment\n"
        "# another\n"
        "list = a;b\n"
        "Port = 1\n"
        "port = 2\n"
        "Mixed.Key = Keeps Case\n"
        "hash = #\n"
        "\n\t\n");
    ASSERT_TRUE(c->verify());
    EXPECT_EQ(c->get("host"), "broker");
    EXPECT_EQ(c->get("Host"), "");  // lookups are not folded
    EXPECT_EQ(c->get("a"), "b=c");
    EXPECT_EQ(c->get("list"), "a;b");
    EXPECT_EQ(c->get("port"), "1");  // the first occurrence wins
    EXPECT_EQ(c->get("mixed.key"), "Keeps Case");
    EXPECT_EQ(c->get("hash"), "");
    EXPECT_EQ(c->get(""), "");
    EXPECT_EQ(out.finish(), "[NOTICE]: [tavi.config] Ignore line 'no equals sign here'\n");
    logging::set_log_mode(logging::SYSLOG);
}

TEST(ConfigTest, DefaultsAndEmptyValues) {
    auto c = parse("client_name=app\n");
    ASSERT_TRUE(c->verify());
    EXPECT_EQ(c->get("host"), "localhost");
    EXPECT_EQ(c->get("port"), "1883");

    auto empty = parse("client_name=app\nhost=\nport =\n");
    ASSERT_TRUE(empty->verify());
    EXPECT_EQ(empty->get("host"), "");
    EXPECT_EQ(empty->get("port"), "");
}

TEST(ConfigTest, MissingRequiredKeyFailsVerify) {
    logging::set_log_mode(logging::STDOUT);
    test::StdoutCapture out;
    auto c = parse("host=x\nclient_name=\n");
    EXPECT_FALSE(c->verify());
    EXPECT_EQ(out.finish(), "[ERROR]: [tavi.config] Required parameter 'client_name' is missin\n");
    logging::set_log_mode(logging::SYSLOG);
}

// Clients read the shared configuration from their own threads; absent keys included.
TEST(ConfigTest, ConcurrentReadsOfAbsentKeys) {
    auto c = parse("client_name=app\n");
    ASSERT_TRUE(c->verify());
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&c, t] {
            for (int i = 0; i < 500; ++i) {
                EXPECT_EQ(c->get("absent." + std::to_string((i + t) % 50)), "");
                EXPECT_EQ(c->get("client_name"), "app");
            }
        });
    }
    for (auto& reader : readers) {
        reader.join();
    }
}

TEST(ConfigDeathTest, GetBeforeVerifyAborts) {
    auto c = parse("client_name=app\n");
    EXPECT_DEATH(c->get("host"),
                 "const Value& ecu::tavi::config::Configuration::get\\(const Key&\\): "
                 "Assertion `m_is_verified == true' failed: Configuration could not be "
                 "verified!");
    auto bad = parse("host=x\n");
    EXPECT_FALSE(bad->verify());
    EXPECT_DEATH(bad->get("host"), "Configuration could not be verified!");
}

}  // namespace
}  // namespace ecu::tavi::config
