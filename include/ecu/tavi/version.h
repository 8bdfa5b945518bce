// Version information of the library, fixed when it was built: the semantic version taken
// from the build tag, and the tag, commit, branch, date and configuration of the build.
//
// All functions are static and thread safe.
#pragma once

#include "ecu/tavi/export.h"

namespace ecu::tavi {

class TAVI_EXPORT TaviVersion {
public:
    enum CompilerConfiguration : int { DEBUG = 0, RELEASE = 1, UNKNOWN = 2 };

    struct SemVer {
        unsigned int major = 0;
        unsigned int minor = 0;
        unsigned int patch = 0;
    };

    TaviVersion() = delete;

    // Parsed from the build tag on first use; all zero when the tag holds no version.
    static const SemVer& version();

    static const char* tag();
    static const char* commit();
    static const char* branch();
    static const char* date();
    // branch - tag - commit - date - configuration
    static const char* meta_info();

    static CompilerConfiguration compiler_config();
    static const char* configuration_c_str(CompilerConfiguration configuration);
};

}  // namespace ecu::tavi
