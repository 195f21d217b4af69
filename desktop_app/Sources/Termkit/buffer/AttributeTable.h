#pragma once
// Interning of attributes, so that a cell holds a 32-bit id instead of the whole record.

#include <cstdint>
#include <functional>
#include <vector>

#include "Termkit/buffer/Attribute.h"

namespace termkit {

/// Index of an interned attribute; 0 is always the empty attribute.
using AttributeId = uint32_t;

/// The attributes of one terminal, each stored once. Ids of attributes that no cell uses
/// any more are reclaimed by a mark-and-sweep pass when the table has grown, so a stream of
/// ever-new true colours does not grow memory without bound.
class AttributeTable {
public:
    /// Id of the empty attribute, never reclaimed.
    static constexpr AttributeId kEmpty = 0;
    /// Collection is first considered when this many ids are live.
    static constexpr size_t kInitialCollectThreshold = 1 << 14;

    /// Marks every id in use by calling `mark(id)` for it.
    using Marker = std::function<void(const std::function<void(AttributeId)>& mark)>;

    AttributeTable();

    /// The id of `attribute`, adding it if new. May run a collection first (see `setMarker`),
    /// so callers must not hold unmarked ids across this call.
    AttributeId intern(const Attribute& attribute);
    /// The attribute behind an id.
    const Attribute& operator[](AttributeId id) const { return m_entries[id]; }
    /// Number of ids in use.
    size_t liveCount() const { return m_entries.size() - m_free.size(); }
    /// Size of the id space so far (ids are below this).
    size_t capacity() const { return m_entries.size(); }
    /// Installs the function that reports the ids still in use.
    void setMarker(Marker marker) { m_marker = std::move(marker); }
    /// Frees every id that the marker does not report. Needs a marker.
    void collectGarbage();
    /// How many collections have run: an id handed out since the last one keeps naming the
    /// same attribute until this changes.
    uint32_t collections() const { return m_collections; }

private:
    AttributeId findOrInsert(const Attribute& attribute, uint64_t hash);
    // Adds a new attribute in a free slot of the hash table.
    AttributeId insertAt(size_t slot, const Attribute& attribute);
    void rehash(size_t slotCount);

    std::vector<Attribute> m_entries;
    std::vector<uint8_t> m_live;
    std::vector<AttributeId> m_free;
    std::vector<uint8_t> m_marks;
    // Open addressing by hash; a slot holds id + 1, 0 when empty.
    std::vector<uint32_t> m_slots;
    size_t m_collectThreshold = kInitialCollectThreshold;
    uint32_t m_collections = 0;
    Marker m_marker;
    // The last lookup, because runs of cells share their attribute.
    Attribute m_lastAttribute;
    AttributeId m_lastId = kEmpty;
    // Recently used attributes by hash, small enough to stay in the first-level cache while
    // the table itself may hold tens of thousands of colours.
    static constexpr size_t kRecentBits = 10;
    struct Recent {
        Attribute attribute;
        AttributeId id = kEmpty;
    };
    std::vector<Recent> m_recent = std::vector<Recent>(size_t(1) << kRecentBits);
};

} // namespace termkit
