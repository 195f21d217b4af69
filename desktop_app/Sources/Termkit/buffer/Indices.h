#pragma once
// Distinct small types for the three kinds of coordinates, so that a screen row is never
// passed where a line index or a column is meant.

#include <compare>

namespace termkit {

/// A column, 0-based.
struct Col {
    int value = 0;
    constexpr Col() = default;
    constexpr explicit Col(int v) : value(v) {}
    constexpr auto operator<=>(const Col&) const = default;
};

/// A row of the screen, 0-based from the top of the active screen.
struct ScreenRow {
    int value = 0;
    constexpr ScreenRow() = default;
    constexpr explicit ScreenRow(int v) : value(v) {}
    constexpr auto operator<=>(const ScreenRow&) const = default;
};

/// An index into a buffer's list of lines (scrollback and screen together), 0 = oldest kept.
struct LineIndex {
    int value = 0;
    constexpr LineIndex() = default;
    constexpr explicit LineIndex(int v) : value(v) {}
    constexpr auto operator<=>(const LineIndex&) const = default;
};

/// A row number that stays valid while old lines are recycled: line index plus the number of
/// lines that have left through the top of a full ring.
struct InvariantRow {
    long long value = 0;
    constexpr InvariantRow() = default;
    constexpr explicit InvariantRow(long long v) : value(v) {}
    constexpr auto operator<=>(const InvariantRow&) const = default;
};

/// A position in a buffer, ordered by row, then column.
struct Position {
    Col col;
    LineIndex row;
    constexpr Position() = default;
    constexpr Position(Col c, LineIndex r) : col(c), row(r) {}
    constexpr bool operator==(const Position&) const = default;
    constexpr bool before(const Position& o) const { return row < o.row || (row == o.row && col < o.col); }
    constexpr bool after(const Position& o) const { return o.before(*this); }
    constexpr bool equal(const Position& o) const { return *this == o; }
};

} // namespace termkit
