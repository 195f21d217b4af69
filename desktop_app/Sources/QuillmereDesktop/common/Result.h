#pragma once

#include <QString>

#include <optional>
#include <utility>
#include <variant>

// The error of a fallible operation: one sentence a person can read.
struct Error {
    QString message;
    friend bool operator==(const Error&, const Error&) = default;
};

// A value or an error. Operations that can fail return this instead of throwing,
// so that no exception ever crosses Qt's event loop.
template <class T, class E = Error> class [[nodiscard]] Result {
public:
    Result(T value) : m_state(std::in_place_index<0>, std::move(value)) {}
    Result(E error) : m_state(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return m_state.index() == 0; }
    explicit operator bool() const { return ok(); }

    const T& value() const& { return std::get<0>(m_state); }
    T& value() & { return std::get<0>(m_state); }
    T&& value() && { return std::get<0>(std::move(m_state)); }
    const T* operator->() const { return &value(); }
    const T& operator*() const& { return value(); }

    const E& error() const { return std::get<1>(m_state); }

private:
    std::variant<T, E> m_state;
};

// Success carries nothing; a failure carries the error.
template <class E> class [[nodiscard]] Result<void, E> {
public:
    Result() = default;
    Result(E error) : m_error(std::move(error)) {}

    bool ok() const { return !m_error.has_value(); }
    explicit operator bool() const { return ok(); }
    const E& error() const { return *m_error; }

private:
    std::optional<E> m_error;
};
