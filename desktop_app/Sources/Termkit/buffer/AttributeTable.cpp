#include "Termkit/buffer/AttributeTable.h"

#include <algorithm>

#include "Termkit/buffer/Invariant.h"

namespace termkit {

namespace {
constexpr size_t kInitialSlots = 1024;
}

AttributeTable::AttributeTable() {
    m_entries.push_back(kEmptyAttribute);
    m_live.push_back(1);
    rehash(kInitialSlots);
}

void AttributeTable::rehash(size_t slotCount) {
    m_slots.assign(slotCount, 0);
    const size_t mask = slotCount - 1;
    for (size_t id = 0; id < m_entries.size(); ++id) {
        if (!m_live[id])
            continue;
        size_t slot = m_entries[id].hash() & mask;
        while (m_slots[slot] != 0)
            slot = (slot + 1) & mask;
        m_slots[slot] = static_cast<uint32_t>(id + 1);
    }
}

AttributeId AttributeTable::findOrInsert(const Attribute& attribute, uint64_t hash) {
    const size_t mask = m_slots.size() - 1;
    size_t slot = hash & mask;
    while (m_slots[slot] != 0) {
        const AttributeId id = m_slots[slot] - 1;
        if (m_entries[id] == attribute)
            return id;
        slot = (slot + 1) & mask;
    }
    return insertAt(slot, attribute);
}

AttributeId AttributeTable::insertAt(size_t slot, const Attribute& attribute) {
    AttributeId id;
    if (!m_free.empty()) {
        id = m_free.back();
        m_free.pop_back();
        m_entries[id] = attribute;
        m_live[id] = 1;
    } else {
        id = static_cast<AttributeId>(m_entries.size());
        m_entries.push_back(attribute);
        m_live.push_back(1);
    }
    m_slots[slot] = id + 1;
    // Keep the load factor under one half so probes stay short.
    if (liveCount() * 2 > m_slots.size())
        rehash(m_slots.size() * 2);
    return id;
}

AttributeId AttributeTable::intern(const Attribute& attribute) {
    if (attribute == m_lastAttribute)
        return m_lastId;
    if (attribute == kEmptyAttribute)
        return kEmpty;
    const uint64_t hash = attribute.hash();
    Recent& recent = m_recent[hash >> (64 - kRecentBits)];
    if (recent.attribute == attribute) {
        m_lastAttribute = attribute;
        m_lastId = recent.id;
        return recent.id;
    }
    // Look first without inserting, so that a known attribute never triggers a collection.
    const size_t mask = m_slots.size() - 1;
    size_t slot = hash & mask;
    for (; m_slots[slot] != 0; slot = (slot + 1) & mask) {
        const AttributeId id = m_slots[slot] - 1;
        if (m_entries[id] == attribute) {
            m_lastAttribute = attribute;
            m_lastId = id;
            recent = {attribute, id};
            return id;
        }
    }
    // A new attribute does not enter the recent cache yet: one-off true colours would only
    // push out the attributes that keep coming back. Without a collection it goes into the
    // free slot the lookup ended on; a collection rebuilds the slots, so it looks again.
    AttributeId id;
    if (m_marker && liveCount() >= m_collectThreshold) {
        collectGarbage();
        // Collection pays for itself only if the table stays at most half full of live ids.
        m_collectThreshold = std::max(kInitialCollectThreshold, liveCount() * 2);
        id = findOrInsert(attribute, hash);
    } else {
        id = insertAt(slot, attribute);
    }
    m_lastAttribute = attribute;
    m_lastId = id;
    return id;
}

void AttributeTable::collectGarbage() {
    TERMKIT_INVARIANT(static_cast<bool>(m_marker), "attribute collection without a marker");
    ++m_collections;
    // The marks reuse one vector, so a collection in steady state allocates nothing.
    std::vector<uint8_t>& marks = m_marks;
    marks.assign(m_entries.size(), 0);
    marks[kEmpty] = 1;
    m_marker([&](AttributeId id) {
        if (id < marks.size())
            marks[id] = 1;
    });
    m_free.clear();
    for (size_t id = 0; id < m_entries.size(); ++id) {
        m_live[id] = marks[id];
        if (!marks[id]) {
            m_entries[id] = kEmptyAttribute;
            m_free.push_back(static_cast<AttributeId>(id));
        }
    }
    // Hand out low ids first, so the id space stays compact.
    std::reverse(m_free.begin(), m_free.end());
    rehash(m_slots.size());
    m_lastAttribute = kEmptyAttribute;
    m_lastId = kEmpty;
    // Freed ids may be handed out again, so remembered lookups are void.
    std::fill(m_recent.begin(), m_recent.end(), Recent{});
}

} // namespace termkit
