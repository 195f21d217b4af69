#pragma once

#include <QEventLoop>
#include <QObject>
#include <QTimer>
#include <qcoro/qcorotask.h>

#include <optional>

// Runs a task to its end on a local event loop and gives its value. Unlike
// QCoro::waitFor it works for values that have no default constructor.
template <class T> T await(QCoro::Task<T> task) {
    auto wrapped = [](QCoro::Task<T> inner) -> QCoro::Task<std::optional<T>> {
        co_return co_await std::move(inner);
    };
    return *QCoro::waitFor(wrapped(std::move(task)));
}

inline void await(QCoro::Task<> task) {
    QCoro::waitFor(std::move(task));
}

// Waits on a real event loop until `predicate` holds, or the time is up; says whether it
// holds. Unlike polling with short sleeps, the loop wakes the moment a socket or a
// process has something, so a chain of local network calls costs milliseconds.
template <class Predicate> bool waitUntil(Predicate predicate, int timeoutMs = 10000) {
    if (predicate())
        return true;
    QEventLoop loop;
    QTimer check;
    check.setInterval(1);
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (predicate())
            loop.quit();
    });
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    check.start();
    loop.exec();
    return predicate();
}
