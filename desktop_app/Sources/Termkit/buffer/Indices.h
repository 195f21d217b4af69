#pragma once
// Distinct small types for the kinds of coordinates, so that a screen row is never passed
// where a line index or a column is meant. Arithmetic stays within a kind: a coordinate
// moves by a count, and two coordinates of one kind are apart by a count; changing kind
// (a screen row to a line index) is the buffer's business, which knows the offset.

#include <compare>

namespace termkit {

/// An integer that means one kind of coordinate. `Tag` only tells the kinds apart.
template <class Tag, class T = int> struct Coordinate {
    T value = 0;
    constexpr Coordinate() = default;
    constexpr explicit Coordinate(T v) : value(v) {}
    constexpr auto operator<=>(const Coordinate&) const = default;

    /// The coordinate `n` further on (or back, for a negative `n`).
    constexpr Coordinate operator+(T n) const { return Coordinate(value + n); }
    constexpr Coordinate operator-(T n) const { return Coordinate(value - n); }
    /// How far apart two coordinates of the kind are.
    constexpr T operator-(Coordinate other) const { return value - other.value; }
    constexpr Coordinate& operator+=(T n) {
        value += n;
        return *this;
    }
    constexpr Coordinate& operator-=(T n) {
        value -= n;
        return *this;
    }
    constexpr Coordinate& operator++() {
        ++value;
        return *this;
    }
    constexpr Coordinate& operator--() {
        --value;
        return *this;
    }
};

struct ColTag;
struct ScreenRowTag;
struct LineIndexTag;
struct InvariantRowTag;

/// A column, 0-based.
using Col = Coordinate<ColTag>;
/// A row of the screen, 0-based from the top of the active screen.
using ScreenRow = Coordinate<ScreenRowTag>;
/// An index into a buffer's list of lines (scrollback and screen together), 0 = oldest kept.
using LineIndex = Coordinate<LineIndexTag>;
/// A row number that stays valid while old lines are recycled: line index plus the number of
/// lines that have left through the top of a full ring.
using InvariantRow = Coordinate<InvariantRowTag, long long>;

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
