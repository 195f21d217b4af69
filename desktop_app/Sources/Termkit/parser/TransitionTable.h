#pragma once
// The shared transition table of the escape sequence parser.

#include <array>
#include <cstdint>

#include "Termkit/parser/ParserState.h"

namespace termkit {

/// One byte per (state, byte) pair: the action in the upper nibble, the next state in the lower.
class TransitionTable {
public:
    /// Number of entries; indices are `state << 8 | byte` with bytes clamped to 0xA0.
    static constexpr int kSize = 4095;
    /// Highest byte column that is ever looked up; higher bytes are clamped to it.
    static constexpr uint8_t kHighestColumn = 0xA0;

    TransitionTable() { table.fill(0); }

    /// Sets the entry for one state and byte.
    void add(uint8_t code, ParserState state, ParserAction action, ParserState next) {
        table[index(state, code)] =
            static_cast<uint8_t>(static_cast<uint8_t>(action) << 4 | static_cast<uint8_t>(next));
    }
    /// Sets the entry for one state and every byte of an inclusive range.
    void addRange(uint8_t first, uint8_t last, ParserState state, ParserAction action, ParserState next) {
        for (int c = first; c <= last; ++c)
            add(static_cast<uint8_t>(c), state, action, next);
    }
    /// Raw entry for a state and an already clamped byte.
    uint8_t at(ParserState state, uint8_t code) const { return table[index(state, code)]; }

    static constexpr int index(ParserState state, uint8_t code) {
        return static_cast<int>(state) << 8 | code;
    }

    std::array<uint8_t, kSize> table;
};

/// Builds the table by the VT500 rules with this terminal's departures, later rules winning.
TransitionTable buildVt500TransitionTable();

/// The table built once per process and shared by every parser.
const TransitionTable& sharedVt500Table();

} // namespace termkit
