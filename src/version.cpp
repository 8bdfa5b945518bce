#include "ecu/tavi/version.h"

#include <cstdio>

#include "build_identity.h"
#include "ecu/tavi/logging/logging.h"
#include "version_internal.h"

#if defined(MURNTAVI_CONFIG_DEBUG)
#define MURNTAVI_CONFIG_TEXT "DEBUG"
#define MURNTAVI_CONFIG_VALUE TaviVersion::DEBUG
#elif defined(MURNTAVI_CONFIG_RELEASE)
#define MURNTAVI_CONFIG_TEXT "RELEASE"
#define MURNTAVI_CONFIG_VALUE TaviVersion::RELEASE
#else
#define MURNTAVI_CONFIG_TEXT "UKNOWN"
#define MURNTAVI_CONFIG_VALUE TaviVersion::UNKNOWN
#endif

namespace ecu::tavi {
namespace {

using namespace ecu::tavi::logging;

const auto s_log = logging::module("tavi.version");

}  // namespace

namespace detail {

TaviVersion::SemVer parse_version_tag(const char* tag) {
    TaviVersion::SemVer version;
    // A tag with fewer numbers ("7.4") is still a version; only a tag without any leading
    // number (such as "v1.2") is not.
    // NOLINTNEXTLINE(cert-err34-c): a tag is only ever cut short, and then the rest stays 0
    if (std::sscanf(tag, "%2u.%2u.%2u", &version.major, &version.minor, &version.patch) < 1) {
        ERROR << s_log << "Unable to extract SemVer from tag: " << tag;
        ERROR.do_flush();
        version = TaviVersion::SemVer{};
    }
    return version;
}

}  // namespace detail

const TaviVersion::SemVer& TaviVersion::version() {
    static const SemVer s_version = detail::parse_version_tag(MURNTAVI_TAG);
    return s_version;
}

const char* TaviVersion::tag() {
    return MURNTAVI_TAG;
}

const char* TaviVersion::commit() {
    return MURNTAVI_COMMIT;
}

const char* TaviVersion::branch() {
    return MURNTAVI_BRANCH;
}

const char* TaviVersion::date() {
    return MURNTAVI_DATE;
}

const char* TaviVersion::meta_info() {
    return MURNTAVI_BRANCH " - " MURNTAVI_TAG " - " MURNTAVI_COMMIT " - " MURNTAVI_DATE
                           " - " MURNTAVI_CONFIG_TEXT;
}

TaviVersion::CompilerConfiguration TaviVersion::compiler_config() {
    return MURNTAVI_CONFIG_VALUE;
}

const char* TaviVersion::configuration_c_str(CompilerConfiguration configuration) {
    switch (configuration) {
        case DEBUG:
            return "DEBUG";
        case RELEASE:
            return "RELEASE";
        default:
            return "UKNOWN";
    }
}

}  // namespace ecu::tavi
