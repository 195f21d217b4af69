#pragma once
// How a failed assertion shows a coordinate: its number.

#include <ostream>

#include "Termkit/buffer/Indices.h"

namespace termkit {

template <class Tag, class T> void PrintTo(const Coordinate<Tag, T>& coordinate, std::ostream* out) {
    *out << coordinate.value;
}

} // namespace termkit
