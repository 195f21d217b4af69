#pragma once
// States and actions of the VT500-style escape sequence state machine.

#include <cstdint>

namespace termkit {

/// Parser states; the values index the transition table, so their order is fixed.
enum class ParserState : uint8_t {
    ground = 0,
    escape = 1,
    escapeIntermediate = 2,
    csiEntry = 3,
    csiParam = 4,
    csiIntermediate = 5,
    csiIgnore = 6,
    sosPmApcString = 7,
    oscString = 8,
    apcString = 9,
    dcsEntry = 10,
    dcsParam = 11,
    dcsIgnore = 12,
    dcsIntermediate = 13,
    dcsPassthrough = 14,
};

/// Number of parser states.
inline constexpr int kParserStateCount = 15;

/// Actions run on a transition; the values are stored in the upper nibble of a table entry.
enum class ParserAction : uint8_t {
    ignore = 0,
    error = 1,
    print = 2,
    execute = 3,
    oscStart = 4,
    oscPut = 5,
    oscEnd = 6,
    csiDispatch = 7,
    param = 8,
    collect = 9,
    escDispatch = 10,
    clear = 11,
    dcsHook = 12,
    dcsPut = 13,
    dcsUnhook = 14,
};

/// Readable name of a state, for log lines.
const char* parserStateName(ParserState state);

} // namespace termkit
