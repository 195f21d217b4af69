#pragma once
// Built rows kept between frames, valid while their line has not changed.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace termkit {

/// Everything that changes how every row looks: when any of it differs from the last
/// frame, no built row can be reused.
struct CacheSignature {
    double scale = 1;
    int cellWidth = 0;
    int cellHeight = 0;
    int viewWidth = 0;
    int viewHeight = 0;
    int yDisp = 0;
    int rows = 0;
    int cols = 0;
    std::string fontName;
    double fontSize = 0;
    bool isAltBuffer = false;
    /// Moves when kitty images change placement (0 until images exist).
    uint64_t kittyStamp = 0;
    int bidiHostPolicy = 0;
    /// Moves when the palette or the default colours change.
    uint64_t colorStamp = 0;
    bool operator==(const CacheSignature&) const = default;
};

/// One built row per screen row, keyed by the line object it was built from, that line's
/// `generation` and its paragraph's bidi revision (0 until bidi layout exists). A row is
/// rebuilt only when one of the three differs; a new signature drops every row.
template <typename Data> class RowCache {
public:
    struct Entry {
        const void* lineRef = nullptr;
        uint64_t generation = 0;
        uint64_t bidiParagraphRevision = 0;
        Data data{};
    };

    /// Drops everything when the signature changed; true when the rows may be reused.
    bool validate(const CacheSignature& signature) {
        if (m_signature && *m_signature == signature)
            return true;
        m_signature = signature;
        m_entries.assign(static_cast<size_t>(signature.rows > 0 ? signature.rows : 0), Entry{});
        ++m_drops;
        return false;
    }
    /// The built row if it was built from this very line in this state.
    Data* lookup(int row, const void* lineRef, uint64_t generation, uint64_t bidiParagraphRevision) {
        if (row < 0 || row >= static_cast<int>(m_entries.size()))
            return nullptr;
        Entry& e = m_entries[static_cast<size_t>(row)];
        if (e.lineRef == nullptr || e.lineRef != lineRef || e.generation != generation ||
            e.bidiParagraphRevision != bidiParagraphRevision)
            return nullptr;
        return &e.data;
    }
    /// Keeps a freshly built row.
    Data& store(int row, const void* lineRef, uint64_t generation, uint64_t bidiParagraphRevision,
                Data data) {
        Entry& e = m_entries.at(static_cast<size_t>(row));
        e = Entry{lineRef, generation, bidiParagraphRevision, std::move(data)};
        return e.data;
    }
    /// Forgets every row but keeps the signature (glyph regions went stale).
    void invalidateRows() {
        for (Entry& e : m_entries)
            e = Entry{};
    }
    void clear() {
        m_entries.clear();
        m_signature.reset();
    }
    int rows() const { return static_cast<int>(m_entries.size()); }
    /// How many times the whole cache was dropped, for tests and diagnostics.
    uint64_t drops() const { return m_drops; }
    Entry& entry(int row) { return m_entries.at(static_cast<size_t>(row)); }

private:
    std::optional<CacheSignature> m_signature;
    std::vector<Entry> m_entries;
    uint64_t m_drops = 0;
};

} // namespace termkit
