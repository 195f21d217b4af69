#pragma once

#include "Result/Result.h"

#include <QString>

// The error of a fallible operation: one sentence a person can read.
struct Error {
    QString message;
    friend bool operator==(const Error&, const Error&) = default;
};

// A value or an error; the application's operations fail with `Error` unless they say
// otherwise. Operations that can fail return this instead of throwing, so that no
// exception ever crosses Qt's event loop.
template <class T, class E = Error> using Result = result::Result<T, E>;
