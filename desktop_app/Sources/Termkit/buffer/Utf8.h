#pragma once
// Writing scalars as UTF-8: the one encoder of the library, on ICU's own macro.

#include <unicode/utf8.h>

#include <cstddef>
#include <string>

namespace termkit {

/// Writes one scalar as UTF-8 into `out` (room for four bytes) and returns the length.
inline size_t encodeUtf8(char32_t scalar, char* out) {
    size_t length = 0;
    U8_APPEND_UNSAFE(out, length, scalar);
    return length;
}

/// Appends one scalar to a UTF-8 string.
inline void appendUtf8(char32_t scalar, std::string& out) {
    char bytes[U8_MAX_LENGTH];
    out.append(bytes, encodeUtf8(scalar, bytes));
}

} // namespace termkit
