#pragma once

#include <QObject>

#include <functional>

#include "Termkit/process/SerialExecutor.h"

namespace termkit {

// Runs the terminal library's work on the Qt main thread. Every post is its own queued
// call, and the library cuts a long delivery of process output into short slices, each
// posted behind whatever is already waiting: input, timers and painting get their turn
// between two slices, so a program that floods its terminal never freezes the window.
class MainThreadExecutor : public SerialExecutor {
public:
    // Needs the application object; made and destroyed on the main thread.
    MainThreadExecutor();
    ~MainThreadExecutor() override;
    MainThreadExecutor(const MainThreadExecutor&) = delete;
    MainThreadExecutor& operator=(const MainThreadExecutor&) = delete;

    // Queues work for the main thread; from any thread. Work still queued when the
    // executor is destroyed is dropped.
    void post(std::function<void()> work) override;
    bool isMainQueue() const override { return true; }

    // The executor the application's terminals share by default.
    static MainThreadExecutor& shared();

private:
    // Queued calls are addressed to this object, which lives on the main thread.
    QObject m_context;
};

} // namespace termkit
