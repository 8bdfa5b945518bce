/// \file
/// Version information of the library, fixed when it was built: the semantic version taken
/// from the build tag, and the tag, commit, branch, date and configuration of the build.
///
/// All functions are static and thread safe.
#pragma once

#include "ecu/tavi/export.h"

namespace ecu::tavi {

/// The library's build information. Static only; every text returned is a string literal
/// that lives as long as the process.
class TAVI_EXPORT TaviVersion {
public:
    /// The build type of the library.
    enum CompilerConfiguration : int {
        DEBUG = 0,    ///< a debug build
        RELEASE = 1,  ///< a release build
        UNKNOWN = 2,  ///< neither was recorded
    };

    /// A semantic version, major.minor.patch.
    struct SemVer {
        unsigned int major = 0;  ///< incompatible changes
        unsigned int minor = 0;  ///< compatible additions
        unsigned int patch = 0;  ///< fixes
    };

    TaviVersion() = delete;

    /// Parsed from the build tag on first use; all zero, with an ERROR line, when the tag
    /// holds no version. The reference is valid for the life of the process.
    static const SemVer& version();

    /// The build tag; its leading numbers give version().
    static const char* tag();
    /// The commit the library was built from.
    static const char* commit();
    /// The branch the library was built from.
    static const char* branch();
    /// The date of the build.
    static const char* date();
    /// branch - tag - commit - date - configuration
    static const char* meta_info();

    /// The build type.
    static CompilerConfiguration compiler_config();
    /// "DEBUG", "RELEASE", or "UKNOWN" (sic) for anything else.
    static const char* configuration_c_str(CompilerConfiguration configuration);
};

}  // namespace ecu::tavi
