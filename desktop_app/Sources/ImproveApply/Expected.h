#pragma once

#include <optional>
#include <utility>
#include <variant>

namespace improve {

// A value or the error that prevented it. The module reports failures as values
// rather than exceptions so that callers on Qt's event loop never see one unwind.
template <class T, class E> class [[nodiscard]] Expected {
public:
    Expected(T value) : m_state(std::in_place_index<0>, std::move(value)) {}
    Expected(E error) : m_state(std::in_place_index<1>, std::move(error)) {}

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

// Success that carries nothing; a failure carries the error.
template <class E> class [[nodiscard]] Expected<void, E> {
public:
    Expected() = default;
    Expected(E error) : m_error(std::move(error)) {}

    bool ok() const { return !m_error.has_value(); }
    explicit operator bool() const { return ok(); }
    const E& error() const { return *m_error; }

private:
    std::optional<E> m_error;
};

} // namespace improve
