#pragma once
// The one always-on assertion: a broken internal invariant aborts with a message.

#include <string>

namespace termkit {

/// Prints the message to standard error and aborts. Never used for bad input.
[[noreturn]] void invariantFailed(const std::string& message, const char* file, int line);

} // namespace termkit

/// Checks an internal invariant in every build type.
#define TERMKIT_INVARIANT(condition, message)                                                                \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            ::termkit::invariantFailed((message), __FILE__, __LINE__);                                       \
    } while (false)
