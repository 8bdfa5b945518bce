/// \file
/// Value-or-error holder returned by every fallible operation of the library, which never
/// throws to the application. Not thread safe; copy it between threads.
///
/// \code
/// Result<int, Error> parse(...) { ... return Result<int, Error>::err(Error::Bad); }
/// auto r = parse(...);
/// if (!r.has_value()) { handle(r.error()); }
/// \endcode
///
/// Accessing value() of an error or error() of a value is a programming error and aborts.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>

namespace ecu::tavi {

namespace _internal {
[[noreturn]] inline void result_access_failed(const char* what) {
    std::fprintf(stderr, "ecu::tavi::Result: %s\n", what);
    std::abort();
}
}  // namespace _internal

/// Either a value of type T or an error of type E.
///
/// A value type: not thread safe; copy it to hand it to another thread. Reading value() of
/// an error, or error() of a value, writes the reason to stderr and aborts the process.
template <typename T, typename E>
class Result {
public:
    /// A successful result; the value is built in place from the arguments.
    template <typename... Args>
    static Result ok(Args&&... args) {
        return Result(Value{}, std::forward<Args>(args)...);
    }
    /// A failed result holding the error.
    static Result err(E error) { return Result(Error{}, std::move(error)); }

    /// Copies and moves take the value or the error along.
    ///@{
    Result(const Result& other) : m_has_value(other.m_has_value) {
        if (m_has_value) {
            new (&m_value) T(other.m_value);
        } else {
            new (&m_error) E(other.m_error);
        }
    }
    Result(Result&& other) noexcept(
        std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_constructible_v<E>)
        : m_has_value(other.m_has_value) {
        if (m_has_value) {
            new (&m_value) T(std::move(other.m_value));
        } else {
            new (&m_error) E(std::move(other.m_error));
        }
    }
    Result& operator=(const Result& other) {
        if (this != &other) {
            Result copy(other);
            *this = std::move(copy);
        }
        return *this;
    }
    Result& operator=(Result&& other) noexcept(
        std::is_nothrow_move_constructible_v<T>&& std::is_nothrow_move_constructible_v<E>) {
        if (this != &other) {
            destroy();
            m_has_value = other.m_has_value;
            if (m_has_value) {
                new (&m_value) T(std::move(other.m_value));
            } else {
                new (&m_error) E(std::move(other.m_error));
            }
        }
        return *this;
    }
    ///@}
    ~Result() { destroy(); }

    /// True for a success.
    bool has_value() const { return m_has_value; }
    /// has_value().
    explicit operator bool() const { return m_has_value; }

    /// The value; aborts for an error. References live as long as the result.
    ///@{
    T& value() & {
        check(m_has_value, "value() of an error Result");
        return m_value;
    }
    const T& value() const& {
        check(m_has_value, "value() of an error Result");
        return m_value;
    }
    T&& value() && {
        check(m_has_value, "value() of an error Result");
        return std::move(m_value);
    }
    ///@}
    /// The error; aborts for a success.
    const E& error() const {
        check(!m_has_value, "error() of a successful Result");
        return m_error;
    }

private:
    struct Value {};
    struct Error {};
    template <typename... Args>
    explicit Result(Value, Args&&... args) : m_has_value(true) {
        new (&m_value) T(std::forward<Args>(args)...);
    }
    Result(Error, E&& error) : m_has_value(false) { new (&m_error) E(std::move(error)); }

    static void check(bool condition, const char* what) {
        if (!condition) {
            _internal::result_access_failed(what);
        }
    }
    void destroy() {
        if (m_has_value) {
            m_value.~T();
        } else {
            m_error.~E();
        }
    }

    bool m_has_value;
    union {
        T m_value;
        E m_error;
    };
};

/// Success without a value, or an error. Same rules as the general Result.
template <typename E>
class Result<void, E> {
public:
    /// A success.
    static Result ok() { return Result(true, E{}); }
    /// A failure holding the error.
    static Result err(E error) { return Result(false, std::move(error)); }

    /// True for a success.
    bool has_value() const { return m_has_value; }
    /// has_value().
    explicit operator bool() const { return m_has_value; }
    /// The error; aborts for a success.
    const E& error() const {
        if (m_has_value) {
            _internal::result_access_failed("error() of a successful Result");
        }
        return m_error;
    }

private:
    Result(bool has_value, E error) : m_has_value(has_value), m_error(std::move(error)) {}

    bool m_has_value;
    E m_error;
};

}  // namespace ecu::tavi
