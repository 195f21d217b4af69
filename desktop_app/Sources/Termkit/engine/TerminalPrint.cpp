// The print path: UTF-8 decoding, widths, joining of combining sequences, cell writes.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <tuple>
#include <utility>

#include "Termkit/buffer/CellFill.h"
#include "Termkit/buffer/CharacterTable.h"
#include "Termkit/buffer/Utf8.h"
#include "Termkit/engine/Terminal.h"
#include "Termkit/engine/UnicodeUtil.h"
#include "Termkit/parser/ByteScan.h"

namespace termkit {

namespace {

// Length of the UTF-8 sequence a lead byte starts, 0 for a byte that starts none.
int sequenceLength(uint8_t lead) {
    if (lead >= 0xC0 && lead < 0xE0)
        return 2;
    if (lead >= 0xE0 && lead < 0xF0)
        return 3;
    if (lead >= 0xF0 && lead < 0xF8)
        return 4;
    return 0;
}

// Decodes a complete sequence; -1 when it is overlong, a surrogate or beyond Unicode.
int32_t decode(const uint8_t* s, int length) {
    int32_t c = s[0] & (0x7F >> length);
    for (int i = 1; i < length; ++i)
        c = c << 6 | (s[i] & 0x3F);
    static constexpr int32_t kMinimum[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (c < kMinimum[length] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
        return -1;
    return c;
}

// Decodes a complete two- or three-byte sequence at `i` into `c` (-1 when it is overlong or
// a surrogate) and returns its length; 0 for anything else, left to the general decoder.
inline int decodeShort(const uint8_t* p, int n, int i, int32_t& c) {
    const uint8_t lead = p[i];
    if (lead >= 0xC2 && lead < 0xE0 && i + 1 < n && (p[i + 1] & 0xC0) == 0x80) {
        c = (lead & 0x1F) << 6 | (p[i + 1] & 0x3F);
        return 2;
    }
    if (lead >= 0xE0 && lead < 0xF0 && i + 2 < n && (p[i + 1] & 0xC0) == 0x80 && (p[i + 2] & 0xC0) == 0x80) {
        c = (lead & 0x0F) << 12 | (p[i + 1] & 0x3F) << 6 | (p[i + 2] & 0x3F);
        if (c < 0x800 || (c >= 0xD800 && c <= 0xDFFF))
            c = -1;
        return 3;
    }
    return 0;
}

// Whether a stored cluster ends in a zero-width joiner, and so calls for the next scalar.
bool endsInJoiner(std::string_view cluster) {
    return cluster.size() >= 3 && cluster.substr(cluster.size() - 3) == "\xe2\x80\x8d";
}

// Scalars of a UTF-8 cluster.
void decodeAll(std::string_view s, std::u32string& out) {
    out.clear();
    const auto* p = reinterpret_cast<const uint8_t*>(s.data());
    const auto* end = p + s.size();
    while (p < end) {
        const int n = *p < 0x80 ? 1 : std::max(sequenceLength(*p), 1);
        if (n == 1 || end - p < n) {
            out.push_back(*p);
            ++p;
            continue;
        }
        out.push_back(static_cast<char32_t>(decode(p, n)));
        p += n;
    }
}

} // namespace

int32_t Terminal::decodeSlow(const uint8_t* p, int n, int& i) {
    const uint8_t byte = p[i];
    const int length = sequenceLength(byte);
    if (length == 0) {
        // Continuation bytes and bytes that start nothing have no width: skipped.
        ++i;
        return -1;
    }
    if (n - i < length) {
        // Cut by the end of the chunk: keep the valid start for the next one.
        int k = 1;
        while (i + k < n && (p[i + k] & 0xC0) == 0x80)
            ++k;
        if (i + k == n) {
            std::copy(p + i, p + n, m_carried.begin());
            m_carriedCount = n - i;
            i = n;
            return kCarried;
        }
        i += k;
        return -1;
    }
    int k = 1;
    while (k < length && (p[i + k] & 0xC0) == 0x80)
        ++k;
    if (k < length) {
        // A bad continuation rejects the lead; the good bytes read so far stay consumed and
        // the offending byte is read again as the start of what follows.
        i += k;
        return -1;
    }
    const int32_t c = decode(p + i, length);
    i += length;
    return c;
}

void Terminal::print(std::span<const uint8_t> data) {
    handlePrint(data);
}

void Terminal::printStateReset() {
    m_carriedCount = 0;
}

void Terminal::printAscii(std::span<const uint8_t> data) {
    // The parser has checked every byte already.
    if (m_charset == nullptr && m_carriedCount == 0) [[likely]] {
        ensureAttributes();
        const uint16_t payload = m_activeHyperlink ? resolveActiveHyperlink() : 0;
        printAsciiRun(data.data(), static_cast<int>(data.size()), payload);
        return;
    }
    handlePrint(data);
}

// Printable ASCII without a character set: one bulk write per row. The row the run starts
// on is marked here; wrapping and scrolling mark the rows they move to.
void Terminal::printAsciiRun(const uint8_t* p, int n, uint16_t payload) {
    Buffer& b = *m_buffer;
    b.markRow(b.y());
    const int taken = b.insertAsciiRun(p, n, payload);
    if (taken > 0) {
        m_lastCode = p[taken - 1];
        m_lastWidth = 1;
        m_hasLastChar = true;
    }
    if (taken < n)
        printGeneral(p + taken, n - taken, payload);
}

void Terminal::handlePrint(std::span<const uint8_t> data) {
    ensureAttributes();
    Buffer& b = *m_buffer;
    const uint8_t* p = data.data();
    const int n = static_cast<int>(data.size());
    const uint16_t payload = m_activeHyperlink ? resolveActiveHyperlink() : 0;
    // Runs of printable ASCII alone arrive through printAscii: the parser has told them apart.
    b.markRow(b.y());
    printGeneral(p, n, payload);
    b.markRow(b.y());
}

__attribute__((always_inline)) inline BufferLine& Terminal::cursorLine(RowCache& row) {
    Buffer& b = *m_buffer;
    const LineIndex index = b.lineIndex(b.y());
    if (row.line == nullptr || row.index != index) {
        row.release();
        row.line = &b.line(index);
        row.index = index;
    }
    return *row.line;
}

// The common case of the print path, done inline: a scalar that joins nothing, after a
// cell that asks for nothing, that fits on the current row. The row stays cached across a
// run of such scalars and is marked changed once. Anything else returns false.
__attribute__((always_inline)) inline bool Terminal::writePlainScalar(RowCache& row, char32_t scalar,
                                                                      int width, uint16_t payload) {
    if (m_modes.insertMode)
        return false;
    Buffer& b = *m_buffer;
    const int x = b.x().value;
    BufferLine& line = cursorLine(row);
    CharData* cells = line.cellsForWrite(std::min(x + width, b.cols()));
    // The cell that a joiner would have called the scalar into: left of the cursor, or at
    // the start of a wrapped row the last one of the row above. Right after a plain scalar
    // written here there is nothing to look at.
    int32_t before = 0;
    if (x == row.plainEnd) {
        // A single scalar of non-zero width: neither a joiner nor a cluster ending in one.
    } else if (x > 0) {
        int col = std::min(x, b.cols()) - 1;
        if (cells[col].width == 0 && col > 0)
            --col;
        before = cells[col].code;
    } else if (line.isWrapped() && row.index > LineIndex(0)) {
        const CharData* above = std::as_const(b).line(row.index - 1).cells();
        int col = b.cols() - 1;
        if (above[col].width == 0 && col > 0)
            --col;
        before = above[col].code;
    }
    if (before == static_cast<int32_t>(UnicodeUtil::kZeroWidthJoiner))
        return false;
    if (before >= kCharacterTableBase) {
        // A stored cluster that ends in a joiner calls for the next scalar.
        if (endsInJoiner(m_tables->characters.stored(before)))
            return false;
    }
    const int32_t code = scalar < 0x10000 ? static_cast<int32_t>(scalar) : m_tables->characters.code(scalar);
    m_lastCode = code;
    m_lastWidth = width;
    m_hasLastChar = true;
    if (x + width - 1 > rightLimit().value) {
        // Wrapping, margins and the edge: the buffer's general writer decides.
        row.release();
        b.insertCharacter(code, width, payload);
        return true;
    }
    cells[x] = CharData{code, m_modes.curAttr, payload, static_cast<int8_t>(width), b.semanticContent()};
    if (width == 2)
        cells[x + 1] = CharData{0, m_modes.curAttr, payload, 0, b.semanticContent()};
    b.setX(Col(x + width));
    row.plainEnd = x + width;
    return true;
}

// Where a cell's width sits in the word after its code.
constexpr int kWidthShift = 8 * static_cast<int>(offsetof(CharData, width) - 4);
static_assert(offsetof(CharData, code) == 0 && offsetof(CharData, attribute) == 4 && sizeof(CharData) == 12);

// Insert mode, the character set, the margins, the attribute, the payload and the semantic
// class stay as they are for the whole of a print call: the word loop reads them once.
void Terminal::prepareWordLoop(RowCache& row, uint16_t payload) const {
    row.wordLoop = !m_modes.insertMode && m_charset == nullptr;
    row.limit = rightLimit().value;
    const CharData spacer{0, m_modes.curAttr, payload, 0, m_buffer->semanticContent()};
    std::memcpy(&row.cellRest, reinterpret_cast<const char*>(&spacer) + 4, 8);
}

// After a plain scalar written into the cached row, the scalars that follow it are very
// often plain too (a word of one script): they go straight into the row in one loop, each
// decoded, looked up and written once, until anything that needs the general path (a mark,
// a joiner, a flag letter, an emoji, a malformed or cut sequence, a control, the edge of
// the row, an active character set); a mark on the scalar before is joined on the way. It
// decodes two- and three-byte sequences itself, as
// decodeShort does: calling decodeShort here measured a few per cent slower on wide and
// mixed-script text, and this loop exists for that speed. A cell is written as its code and
// one 8-byte word for the rest, and the width comes from the two-bit plane table.
void Terminal::continuePlainRun(RowCache& row, const uint8_t* p, int n, int& i) {
    Buffer& b = *m_buffer;
    int x = b.x().value;
    if (row.line == nullptr || x != row.plainEnd || !row.wordLoop)
        return;
    const int limit = row.limit;
    CharData* cells = row.line->cellsForWrite(x);
    // Where the cells written since the loop started, or since the last mark it joined, begin.
    int segmentStart = x;
    // What leaving the loop leaves behind: the cursor after the cells written, the row's
    // plain end, and the last scalar written (the cell before the cursor, or the one before
    // that when it is the right half of a wide scalar).
    auto finishSegment = [&]() __attribute__((always_inline)) {
        if (x == segmentStart)
            return;
        row.line->cellsForWrite(x);
        b.setX(Col(x));
        row.plainEnd = x;
        const CharData& last = cells[x - 1].width == 0 ? cells[x - 2] : cells[x - 1];
        m_lastCode = last.code;
        m_lastWidth = last.width;
        m_hasLastChar = true;
        segmentStart = x;
    };
    // A cell is two stores: its code, and one word for the rest.
    const uint64_t rest = row.cellRest;
    const uint64_t narrow = rest | uint64_t(1) << kWidthShift;
    const uint64_t wide = rest | uint64_t(2) << kWidthShift;
    auto write = [](CharData * cell, int32_t code, uint64_t tail) __attribute__((always_inline)) {
        cell->code = code;
        std::memcpy(reinterpret_cast<char*>(cell) + 4, &tail, 8);
    };
    // Cells hold byte-sized fields, which may alias anything: the position is kept in a
    // local so that each cell written does not make it be stored and read back.
    int pos = i;
    while (pos < n) {
        const uint8_t lead = p[pos];
        if (lead < 0x80) {
            if (static_cast<uint8_t>(lead - 0x20) >= 0x5F || x > limit)
                break;
            write(cells + x, lead, narrow);
            ++x;
            ++pos;
            continue;
        }
        int32_t c;
        int length;
        if (lead >= 0xE0 && lead < 0xF0) {
            if (pos + 2 >= n)
                break;
            uint16_t tail;
            std::memcpy(&tail, p + pos + 1, 2);
            if ((tail & 0xC0C0) != 0x8080)
                break;
            c = (lead & 0x0F) << 12 | (tail & 0x3F) << 6 | (tail >> 8 & 0x3F);
            // Overlong forms go to the general path; surrogates have no plain width.
            if (c < 0x800)
                break;
            length = 3;
        } else if (lead >= 0xC2 && lead < 0xE0) {
            if (pos + 1 >= n || (p[pos + 1] & 0xC0) != 0x80)
                break;
            c = (lead & 0x1F) << 6 | (p[pos + 1] & 0x3F);
            length = 2;
        } else {
            break;
        }
        const int width = static_cast<int>(UnicodeUtil::plainWidth(static_cast<char32_t>(c)));
        if (width == 0) {
            // A scalar of no width (a mark, mostly) joins the cell before in place, as in the
            // general path, and the word goes on after it unless its cluster calls for more.
            const uint8_t info = UnicodeUtil::info(static_cast<char32_t>(c));
            if ((info & UnicodeUtil::kWidthMask) != 1 || c == UnicodeUtil::kTextSelector ||
                c == UnicodeUtil::kEmojiSelector || x == 0)
                break;
            finishSegment();
            pos += length;
            joinZeroWidth(row, static_cast<char32_t>(c), info, p, n, pos);
            if (row.plainEnd != x)
                break;
            continue;
        }
        if (x + width - 1 > limit)
            break;
        if (width == 2) {
            write(cells + x, c, wide);
            write(cells + x + 1, 0, rest);
        } else {
            write(cells + x, c, narrow);
        }
        x += width;
        pos += length;
    }
    i = pos;
    finishSegment();
}

// Writes the cluster of a cell's code into `out` as UTF-8 and returns its length, or a
// length beyond `room` when it would not fit there.
size_t Terminal::cellCluster(int32_t code, char* out, size_t room) const {
    if (code >= kCharacterTableBase) {
        const std::string_view stored = m_tables->characters.stored(code);
        if (stored.size() > room)
            return room + 1;
        std::memcpy(out, stored.data(), stored.size());
        return stored.size();
    }
    return code != 0 ? encodeUtf8(static_cast<char32_t>(code), out) : 0;
}

// Copies the marks that directly follow `i` in the chunk into `out` (after `length` bytes)
// as long as each one extends any cluster and has no width, and returns where they end.
// Stops before anything else, a sequence cut by the chunk, or when `out` would overflow.
// The combining diacritical marks (U+0300 to U+036F, two bytes from CC 80 to CD AF), the
// marks met most, all extend any cluster and have no width: they are taken without being
// decoded and looked up.
__attribute__((always_inline)) inline int
Terminal::extendingMarksEnd(const uint8_t* p, int n, int i, char* out, size_t capacity, size_t& length) {
    while (i < n) {
        if (i + 1 < n) {
            // One test for the block: the two bytes as a number from CC 80 to CD AF whose
            // low byte is a continuation byte.
            const auto pair = static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
            if ((static_cast<uint32_t>(pair - 0xCC80) < 0x130) & ((pair & 0xC0) == 0x80)) {
                if (length + 2 > capacity)
                    break;
                std::memcpy(out + length, p + i, 2);
                length += 2;
                i += 2;
                continue;
            }
        }
        int32_t c = -1;
        const int bytes = decodeShort(p, n, i, c);
        if (bytes == 0 || c < 0)
            break;
        const uint8_t info = UnicodeUtil::info(static_cast<char32_t>(c));
        if ((info & UnicodeUtil::kWidthMask) != 1 || (info & UnicodeUtil::kExtendsCluster) == 0)
            break;
        if (c == UnicodeUtil::kTextSelector || c == UnicodeUtil::kEmojiSelector)
            break;
        if (length + bytes > capacity)
            break;
        std::memcpy(out + length, p + i, bytes);
        length += bytes;
        i += bytes;
    }
    return i;
}

// A zero-width scalar other than a presentation selector, joined to the cell before the
// cursor on the cached row: it changes no width, so it only needs the joined code. Returns
// false when the cell before is not on this row, leaving the case to the general path.
// Marks that extend any cluster always append to it, so when more of them follow in the
// chunk the whole cluster is built at once and only it is stored, not every step to it.
__attribute__((always_inline)) inline bool
Terminal::joinZeroWidth(RowCache& row, char32_t scalar, uint8_t info, const uint8_t* p, int n, int& i) {
    const Buffer& b = *m_buffer;
    const int x = b.x().value;
    if (x == 0)
        return false;
    CharData* cells = cursorLine(row).cellsForWrite(std::min(x, b.cols()));
    int col = std::min(x, b.cols()) - 1;
    if (cells[col].width == 0 && col > 0)
        --col;
    const int32_t target = cells[col].code;
    row.plainEnd = -1;
    // Building the whole cluster only pays when a two- or three-byte sequence follows.
    if ((info & UnicodeUtil::kExtendsCluster) != 0 && i < n && p[i] >= 0xC2 && p[i] < 0xF0) {
        char cluster[64];
        size_t length = cellCluster(target, cluster, sizeof cluster - 4);
        if (length <= sizeof cluster - 4) {
            length += encodeUtf8(scalar, cluster + length);
            const size_t first = length;
            const int end = extendingMarksEnd(p, n, i, cluster, sizeof cluster, length);
            if (length > first) {
                // The cell's cluster and at least two marks: never a single scalar.
                cells[col].code = m_tables->characters.clusterCode(std::string_view(cluster, length));
                i = end;
                if (!endsInJoiner(std::string_view(cluster, length)))
                    row.plainEnd = x;
                return true;
            }
        }
    }
    const int32_t joined = joinedCode(target, scalar);
    // Not one cluster: a zero-width scalar has nowhere to go and is dropped.
    if (joined >= 0) {
        cells[col].code = joined;
        // A cluster that ends in anything but a joiner calls for nothing that follows: the
        // plain paths may write after it without looking at it again.
        if (scalar != UnicodeUtil::kZeroWidthJoiner)
            row.plainEnd = x;
    }
    return true;
}

// Finishes the character the previous chunk cut; false when this chunk ended inside it too.
bool Terminal::finishCarried(const uint8_t* p, int n, int& i, uint16_t payload) {
    const int length = sequenceLength(m_carried[0]);
    while (m_carriedCount < length && i < n && (p[i] & 0xC0) == 0x80)
        m_carried[m_carriedCount++] = p[i++];
    if (m_carriedCount < length && i == n)
        return false;
    const int32_t c = m_carriedCount == length ? decode(m_carried.data(), length) : -1;
    m_carriedCount = 0;
    if (c >= 0) {
        const uint8_t info = UnicodeUtil::info(static_cast<char32_t>(c));
        const int width = (info & UnicodeUtil::kWidthMask) - 1;
        if (width >= 0 && !tryJoin(static_cast<char32_t>(c), width, info)) {
            if (width > 0)
                printScalar(static_cast<char32_t>(c), width, payload);
        }
    }
    return true;
}

// An ASCII byte at `i`: through the character set when one is active, otherwise the whole
// run of printable ASCII that starts there (a control or DEL inside a print run is skipped).
void Terminal::printAscii(RowCache& row, const uint8_t* p, int n, int& i, uint16_t payload) {
    Buffer& b = *m_buffer;
    const uint8_t byte = p[i];
    if (m_charset != nullptr) {
        row.release();
        const char32_t mapped = m_charset->lookup(byte);
        if (mapped != 0) {
            printScalar(mapped, 1, payload);
        } else if (byte >= 0x20 && byte < 0x7F) {
            printScalar(byte, 1, payload);
        }
        ++i;
        return;
    }
    // A run of printable ASCII goes through the bulk writer; anything else is skipped.
    const uint8_t* runEnd = findNonPrintableAscii(p + i, p + n);
    const int run = static_cast<int>(runEnd - (p + i));
    if (run == 0) {
        ++i;
        return;
    }
    // ASCII never joins the cell before it, so a run that fits goes straight into the
    // cached row; longer runs take the bulk writer, which wraps.
    const int x = b.x().value;
    if (!m_modes.insertMode && x + run - 1 <= rightLimit().value) {
        writeAsciiCells(cursorLine(row).cellsForWrite(x + run) + x, p + i, run,
                        CharData{0, m_modes.curAttr, payload, 1, b.semanticContent()});
        b.setX(Col(x + run));
        row.plainEnd = x + run;
    } else {
        row.release();
        const int taken = b.insertAsciiRun(p + i, run, payload);
        for (int k = taken; k < run; ++k)
            printScalar(p[i + k], 1, payload);
    }
    m_lastCode = p[i + run - 1];
    m_lastWidth = 1;
    m_hasLastChar = true;
    i += run;
}

void Terminal::printGeneral(const uint8_t* p, int n, uint16_t payload) {
    int i = 0;
    if (m_carriedCount > 0 && !finishCarried(p, n, i, payload))
        return;
    RowCache row;
    prepareWordLoop(row, payload);
    while (i < n) {
        const uint8_t byte = p[i];
        if (byte < 0x80) {
            // After a plain cell (or a cluster that calls for nothing more) the word loop
            // takes the ASCII and whatever plain text follows it in one go.
            if (row.line != nullptr && row.plainEnd == m_buffer->x().value) {
                const int from = i;
                continuePlainRun(row, p, n, i);
                if (i != from)
                    continue;
            }
            printAscii(row, p, n, i, payload);
            continue;
        }
        int32_t c = -1;
        if (const int length = decodeShort(p, n, i, c); length > 0) {
            i += length;
            if (c < 0)
                continue;
        } else if (byte >= 0xF0 && byte < 0xF8 && i + 3 < n && (p[i + 1] & 0xC0) == 0x80 &&
                   (p[i + 2] & 0xC0) == 0x80 && (p[i + 3] & 0xC0) == 0x80) {
            // A complete four-byte sequence (emoji, mostly), decoded as decodeSlow would.
            c = decode(p + i, 4);
            i += 4;
            if (c < 0)
                continue;
        } else {
            c = decodeSlow(p, n, i);
            if (c == kCarried) {
                row.release();
                return;
            }
            if (c < 0)
                continue;
        }
        const uint8_t info = UnicodeUtil::info(static_cast<char32_t>(c));
        const int width = (info & UnicodeUtil::kWidthMask) - 1;
        if (width < 0)
            continue;
        if (width > 0 && (info & (UnicodeUtil::kJoins | UnicodeUtil::kRegionalIndicator)) == 0 &&
            writePlainScalar(row, static_cast<char32_t>(c), width, payload)) {
            continuePlainRun(row, p, n, i);
            continue;
        }
        if (width == 0 && c != UnicodeUtil::kTextSelector && c != UnicodeUtil::kEmojiSelector &&
            joinZeroWidth(row, static_cast<char32_t>(c), info, p, n, i)) {
            continue;
        }
        row.release();
        if (tryJoin(static_cast<char32_t>(c), width, info))
            continue;
        if (width > 0)
            printScalar(static_cast<char32_t>(c), width, payload);
    }
    row.release();
}

void Terminal::printScalar(char32_t scalar, int width, uint16_t payload) {
    if (width == 2 && m_options.regionalIndicatorWidth == RegionalIndicatorWidth::narrow &&
        UnicodeUtil::isRegionalIndicator(scalar)) {
        width = 1;
    }
    const int32_t code = m_tables->characters.code(scalar);
    m_buffer->insertCharacter(code, width, payload);
    m_lastCode = code;
    m_lastWidth = width;
    m_hasLastChar = true;
}

// The cell a joining scalar would join: left of the cursor, or at the start of a wrapped
// row the last one of the row above; nothing at the start of an unwrapped row.
__attribute__((always_inline)) inline std::optional<Col> Terminal::combiningTarget(LineIndex& lineIndex,
                                                                                   BufferLine*& line) const {
    Buffer& b = *m_buffer;
    const LineIndex cursorRow = b.lineIndex(b.y());
    int col;
    if (b.x() == Col(0)) {
        if (cursorRow == LineIndex(0) || !b.line(cursorRow).isWrapped())
            return std::nullopt;
        lineIndex = cursorRow - 1;
        col = b.cols() - 1;
    } else {
        lineIndex = cursorRow;
        col = std::min(b.x().value, b.cols()) - 1;
    }
    line = &b.line(lineIndex);
    const CharData* cells = std::as_const(*line).cells();
    if (cells[col].width == 0 && col > 0)
        --col;
    return Col(col);
}

// The last scalar of a stored cluster, and its scalar count as far as it matters here:
// 0, 1, or 2 for "more than one".
std::pair<char32_t, int> Terminal::lastScalarOf(int32_t code) {
    if (code < kCharacterTableBase)
        return {static_cast<char32_t>(code), code != 0 ? 1 : 0};
    const std::string_view s = m_tables->characters.stored(code);
    if (s.empty())
        return {0, 0};
    // Step back over continuation bytes to the start of the last sequence.
    size_t start = s.size() - 1;
    while (start > 0 && (static_cast<uint8_t>(s[start]) & 0xC0) == 0x80)
        --start;
    const auto* p = reinterpret_cast<const uint8_t*>(s.data()) + start;
    const int length = static_cast<int>(s.size() - start);
    const int32_t last = length == 1 ? p[0] : decode(p, length);
    return {last < 0 ? 0 : static_cast<char32_t>(last), start == 0 ? 1 : 2};
}

int32_t Terminal::joinedCode(int32_t targetCode, char32_t scalar) {
    // Joining is a pure function of the stored cluster and the scalar, and the character
    // table never forgets, so recent answers are kept in a small two-way cache: each key has
    // two places side by side, the newer answer in front.
    const uint64_t key = static_cast<uint64_t>(static_cast<uint32_t>(targetCode)) << 21 | scalar;
    if (m_joinCache.empty())
        m_joinCache.resize(size_t(1) << kJoinCacheBits);
    JoinCacheEntry* pair =
        &m_joinCache[((key * 0x9E3779B97F4A7C15ull) >> (64 - kJoinCacheBits)) & ~size_t(1)];
    if (pair[0].key == key)
        return pair[0].code;
    if (pair[1].key == key) {
        std::swap(pair[0], pair[1]);
        return pair[0].code;
    }
    // Extenders, joiners and spacing marks continue any cluster that is not a control, and
    // cells never hold controls: only other scalars need the full boundary rules.
    bool joins = targetCode == 0 || (UnicodeUtil::info(scalar) & UnicodeUtil::kExtendsCluster) != 0;
    if (!joins) {
        m_joinScratch.clear();
        m_tables->characters.appendCharacter(targetCode, m_joinScratch);
        decodeAll(m_joinScratch, m_scalarScratch);
        joins = UnicodeUtil::continuesCluster(m_scalarScratch.data(),
                                              static_cast<int>(m_scalarScratch.size()), scalar);
    }
    int32_t result = -1;
    if (joins) {
        // The joined cluster is built in a stack buffer; only very long ones need the heap.
        char buffer[64];
        size_t length = cellCluster(targetCode, buffer, sizeof buffer - 4);
        if (length <= sizeof buffer - 4) {
            length += encodeUtf8(scalar, buffer + length);
            result = m_tables->characters.code(std::string_view(buffer, length));
        } else {
            m_joinScratch.clear();
            m_tables->characters.appendCharacter(targetCode, m_joinScratch);
            appendUtf8(scalar, m_joinScratch);
            result = m_tables->characters.code(std::string_view(m_joinScratch));
        }
    }
    pair[1] = pair[0];
    pair[0] = {key, result};
    return result;
}

bool Terminal::tryJoin(char32_t scalar, int width, uint8_t info) {
    const bool narrowIndicators = m_options.regionalIndicatorWidth == RegionalIndicatorWidth::narrow;
    const bool regional = (info & UnicodeUtil::kRegionalIndicator) != 0;
    if (width == 2 && narrowIndicators && regional)
        width = 1;
    bool wants = (info & UnicodeUtil::kJoins) != 0;
    LineIndex lineIndex;
    BufferLine* targetLine = nullptr;
    const std::optional<Col> targetCol = combiningTarget(lineIndex, targetLine);
    if (!targetCol)
        return wants && width == 0; // nothing to join: a zero-width scalar is dropped
    const int col = targetCol->value;
    Buffer& b = *m_buffer;
    const LineIndex cursorRow = b.lineIndex(b.y());
    BufferLine& line = *targetLine;
    CharData& target = line.cellsForWrite(std::min(col + 2, b.cols()))[col];
    if (!wants) {
        // Only a joiner at the end of the cell before, or a first flag letter, calls for more.
        if (target.code < kCharacterTableBase) {
            const auto last = static_cast<char32_t>(target.code);
            wants =
                last == UnicodeUtil::kZeroWidthJoiner || (regional && UnicodeUtil::isRegionalIndicator(last));
        } else {
            const auto [last, count] = lastScalarOf(target.code);
            wants = last == UnicodeUtil::kZeroWidthJoiner ||
                    (regional && count == 1 && UnicodeUtil::isRegionalIndicator(last));
        }
        if (!wants)
            return false;
    }
    const bool selector = scalar == UnicodeUtil::kTextSelector || scalar == UnicodeUtil::kEmojiSelector;
    char32_t last = 0;
    int count = 0;
    if (selector || regional)
        std::tie(last, count) = lastScalarOf(target.code);
    // A selector after something that takes none is ignored altogether.
    if (selector && !UnicodeUtil::isEmojiVariationBase(last))
        return true;
    const int32_t joined = joinedCode(target.code, scalar);
    if (joined < 0)
        return width == 0; // not one cluster: a zero-width scalar is dropped, others print alone
    auto widen = [&]() {
        // The next cell becomes the right half, and the cursor moves past it.
        if (col + 1 >= b.cols())
            return;
        line.cellsForWrite(col + 2)[col + 1] =
            CharData{0, target.attribute, target.payload, 0, target.semanticContentCode};
        target.width = 2;
        if (lineIndex == cursorRow)
            b.setX(std::min(b.x() + 1, Col(b.cols())));
    };
    if (scalar == UnicodeUtil::kTextSelector && target.width == 2) {
        target.width = 1;
        if (lineIndex == cursorRow && b.x() > Col(0))
            b.setX(b.x() - 1);
    } else if (scalar == UnicodeUtil::kEmojiSelector && target.width == 1) {
        widen();
    } else if (regional && narrowIndicators && count == 1 && UnicodeUtil::isRegionalIndicator(last) &&
               target.width == 1) {
        widen();
    }
    target.code = joined;
    line.touch();
    // The cursor row is marked by the print call; a join onto the row above marks that too.
    if (lineIndex != cursorRow)
        b.markRows(std::max(b.screenRow(lineIndex), ScreenRow(0)), b.y());
    return true;
}

} // namespace termkit
