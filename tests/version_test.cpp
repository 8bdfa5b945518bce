#include "ecu/tavi/version.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <tuple>

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

    const std::string refused = "[ERROR]: [tavi.version] Unable to extract SemVer from tag: ";
    const struct {
        const char* tag;
        unsigned int major, minor, patch;
        std::string log;
    } cases[] = {
        {"1.2.3", 1, 2, 3, ""},
        {"7.4", 7, 4, 0, ""},
        {"1.2.3-4-gabc1234", 1, 2, 3, ""},
        // Each field takes at most two digits; the rest of the tag no longer matches.
        {"123.4.5", 12, 0, 0, ""},
        {"v1.2", 0, 0, 0, refused + "v1.2\n"},
        {"", 0, 0, 0, refused + "\n"},
    };
    for (const auto& c : cases) {
        const Parsed p = parse(c.tag);
        EXPECT_EQ(std::make_tuple(c.major, c.minor, c.patch, c.log),
                  std::make_tuple(p.major, p.minor, p.patch, p.log))
            << c.tag;
    }
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
