#pragma once
// A value or the error that prevented it: how every fallible operation of the project
// reports failure. Header-only and free of Qt, so that the Qt-free libraries, the guide
// writer and the application all share the one type.

#include <optional>
#include <utility>
#include <variant>

namespace result {

/// A value of type `T`, or an error of type `E`. Failures travel as values rather than
/// exceptions, so that no exception ever unwinds through Qt's event loop.
template <class T, class E> class [[nodiscard]] Result {
public:
    Result(T value) : m_state(std::in_place_index<0>, std::move(value)) {}
    Result(E error) : m_state(std::in_place_index<1>, std::move(error)) {}

    /// Whether it holds a value.
    bool ok() const { return m_state.index() == 0; }
    explicit operator bool() const { return ok(); }

    /// The value; only valid when `ok()`.
    const T& value() const& { return std::get<0>(m_state); }
    T& value() & { return std::get<0>(m_state); }
    T&& value() && { return std::get<0>(std::move(m_state)); }
    const T* operator->() const { return &value(); }
    const T& operator*() const& { return value(); }

    /// The error; only valid when not `ok()`.
    const E& error() const { return std::get<1>(m_state); }

private:
    std::variant<T, E> m_state;
};

/// Success that carries nothing; a failure carries the error.
template <class E> class [[nodiscard]] Result<void, E> {
public:
    Result() = default;
    Result(E error) : m_error(std::move(error)) {}

    /// Whether it succeeded.
    bool ok() const { return !m_error.has_value(); }
    explicit operator bool() const { return ok(); }
    /// The error; only valid when not `ok()`.
    const E& error() const { return *m_error; }

private:
    std::optional<E> m_error;
};

} // namespace result
