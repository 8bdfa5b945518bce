// Checks for programming errors. They stay active in release builds and end the process
// with the check's text, like the C library's assert.
#pragma once

namespace ecu::tavi::_internal {

[[noreturn]] void assert_fail(const char* expression, const char* message, const char* file,
                              int line, const char* function);

}  // namespace ecu::tavi::_internal

// TAVI_ASSERT(cond, message): function text taken from the compiler.
#define TAVI_ASSERT(cond, message)                                                    \
    ((cond) ? static_cast<void>(0)                                                    \
            : ::ecu::tavi::_internal::assert_fail(#cond, message, __FILE__, __LINE__, \
                                                  __PRETTY_FUNCTION__))

// TAVI_ASSERT_IN(cond, message, function): with the function text given explicitly, where
// the reported signature is part of the interface.
#define TAVI_ASSERT_IN(cond, message, function) \
    ((cond) ? static_cast<void>(0)              \
            : ::ecu::tavi::_internal::assert_fail(#cond, message, __FILE__, __LINE__, function))
