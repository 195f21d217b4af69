#pragma once
// The side tables that cells refer into, shared by a terminal's two buffers.

#include "Termkit/buffer/AttributeTable.h"
#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/TinyAtom.h"

namespace termkit {

/// Attributes, multi-scalar characters and cell payloads, interned once per terminal.
struct CellTables {
    AttributeTable attributes;
    CharacterTable characters;
    TinyAtomTable payloads;
};

} // namespace termkit
