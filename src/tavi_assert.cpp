#include "tavi_assert.h"

#include <cstdio>
#include <cstdlib>

namespace ecu::tavi::_internal {

void assert_fail(const char* expression, const char* message, const char* file, int line,
                 const char* function) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed: %s\n", file, line, function, expression,
                 message);
    std::fflush(stderr);
    std::abort();
}

}  // namespace ecu::tavi::_internal
