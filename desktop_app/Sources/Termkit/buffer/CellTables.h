#pragma once
// The side tables that cells refer into, shared by a terminal's two buffers.

#include "Termkit/buffer/AttributeTable.h"
#include "Termkit/buffer/CharacterTable.h"

namespace termkit {

/// Attributes and multi-scalar characters, interned once per terminal.
struct CellTables {
    AttributeTable attributes;
    CharacterTable characters;
};

} // namespace termkit
