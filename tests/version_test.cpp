#include "ecu/tavi/version.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "ecu/tavi/logging/logging.h"
#include "support/capture.h"
#include "version_internal.h"

namespace ecu::tavi {
namespace {

struct Parsed {
    unsigned int major, minor, patch;
    std::string log;
};

Parsed parse(const char* tag) {
    test::StdoutCapture out;
    const auto v = detail::parse_version_tag(tag);
    return {v.major, v.minor, v.patch, out.text()};
}

TEST(VersionTest, TagParsing) {
    logging::set_log_mode(logging::STDOUT);
    logging::set_log_level(7);

    auto p = parse("1.2.3");
    EXPECT_EQ(p.major, 1u);
    EXPECT_EQ(p.minor, 2u);
    EXPECT_EQ(p.patch, 3u);
    EXPECT_EQ(p.log, "");

    p = parse("7.4");
    EXPECT_EQ(p.major, 7u);
    EXPECT_EQ(p.minor, 4u);
    EXPECT_EQ(p.patch, 0u);
    EXPECT_EQ(p.log, "");

    p = parse("1.2.3-4-gabc1234");
    EXPECT_EQ(p.major, 1u);
    EXPECT_EQ(p.minor, 2u);
    EXPECT_EQ(p.patch, 3u);
    EXPECT_EQ(p.log, "");

    // Each field takes at most two digits; the rest of the tag no longer matches.
    p = parse("123.4.5");
    EXPECT_EQ(p.major, 12u);
    EXPECT_EQ(p.minor, 0u);
    EXPECT_EQ(p.patch, 0u);
    EXPECT_EQ(p.log, "");

    p = parse("v1.2");
    EXPECT_EQ(p.major + p.minor + p.patch, 0u);
    EXPECT_EQ(p.log, "[ERROR]: [tavi.version] Unable to extract SemVer from tag: v1.2\n");

    p = parse("");
    EXPECT_EQ(p.major + p.minor + p.patch, 0u);
    EXPECT_EQ(p.log, "[ERROR]: [tavi.version] Unable to extract SemVer from tag: \n");
}

TEST(VersionTest, BuildInformation) {
    const auto& version = TaviVersion::version();
    EXPECT_EQ(&version, &TaviVersion::version());
    const auto expected = detail::parse_version_tag(TaviVersion::tag());
    EXPECT_EQ(version.major, expected.major);
    EXPECT_EQ(version.minor, expected.minor);
    EXPECT_EQ(version.patch, expected.patch);

    const auto config = TaviVersion::compiler_config();
    EXPECT_NE(config, TaviVersion::UNKNOWN);
    EXPECT_EQ(std::string(TaviVersion::meta_info()),
              std::string(TaviVersion::branch()) + " - " + TaviVersion::tag() + " - " +
                  TaviVersion::commit() + " - " + TaviVersion::date() + " - " +
                  TaviVersion::configuration_c_str(config));
    EXPECT_TRUE(std::regex_search(TaviVersion::date(), std::regex(R"([+-]\d{4}$)")))
        << TaviVersion::date();

    EXPECT_STREQ(TaviVersion::configuration_c_str(TaviVersion::DEBUG), "DEBUG");
    EXPECT_STREQ(TaviVersion::configuration_c_str(TaviVersion::RELEASE), "RELEASE");
    EXPECT_STREQ(TaviVersion::configuration_c_str(TaviVersion::UNKNOWN), "UKNOWN");
    EXPECT_STREQ(
        TaviVersion::configuration_c_str(static_cast<TaviVersion::CompilerConfiguration>(9)),
        "UKNOWN");
}

}  // namespace
}  // namespace ecu::tavi
