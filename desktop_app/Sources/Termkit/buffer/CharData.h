#pragma once
// The cell: a fixed 12-byte record.

#include <cstdint>

#include "Termkit/buffer/AttributeTable.h"

namespace termkit {

/// Codes above this are indices into the terminal's character table (multi-scalar
/// clusters and scalars beyond the basic plane); codes up to it are scalars.
inline constexpr int32_t kCharacterTableBase = 0x400000;

/// One cell. Characters that are not a single scalar below 0x10000 live in the character
/// table and the cell holds their index; the attribute lives in the attribute table.
struct CharData {
    int32_t code = 0; // scalar, table index above 0x400000, 0 when empty
    AttributeId attribute = AttributeTable::kEmpty;
    uint16_t payload = 0;            // TinyAtom handle, 0 for none
    int8_t width = 1;                // 1, 2, or 0 for the right half of a wide character
    uint8_t semanticContentCode = 0; // semantic class of the cell

    /// The empty cell: code 0, width 1, no payload, empty attribute.
    static const CharData Null;

    constexpr bool operator==(const CharData&) const = default;
    /// Code 0 and width 1: a cell nothing was written to (its attribute may still be set).
    constexpr bool isEmptyCell() const { return code == 0 && width == 1; }
    /// An empty cell that also carries the empty attribute and nothing else.
    constexpr bool isUntouchedBlank() const {
        return code == 0 && width == 1 && attribute == AttributeTable::kEmpty && payload == 0;
    }
    /// A copy with another attribute.
    constexpr CharData withAttribute(AttributeId id) const {
        CharData c = *this;
        c.attribute = id;
        return c;
    }
};

inline constexpr CharData kNullCharData{};
inline const CharData CharData::Null = kNullCharData;

static_assert(sizeof(CharData) == 12, "a cell must stay a 12-byte record");

} // namespace termkit
