// Internals of the version information, apart so tests can parse any tag text.
#pragma once

#include "ecu/tavi/version.h"

namespace ecu::tavi::detail {

// Reads "major.minor.patch" from the front of a tag (git-describe text such as
// "1.2.3-4-gabc"); logs and returns zeros when not even the major number is there.
TaviVersion::SemVer parse_version_tag(const char* tag);

}  // namespace ecu::tavi::detail
