#pragma once

#include <qcoro/qcorotask.h>

#include <optional>

// Runs a task to its end on a local event loop and gives its value. Unlike
// QCoro::waitFor it works for values that have no default constructor.
template <class T>
T await(QCoro::Task<T> task) {
    auto wrapped = [](QCoro::Task<T> inner) -> QCoro::Task<std::optional<T>> { co_return co_await std::move(inner); };
    return *QCoro::waitFor(wrapped(std::move(task)));
}

inline void await(QCoro::Task<> task) {
    QCoro::waitFor(std::move(task));
}
