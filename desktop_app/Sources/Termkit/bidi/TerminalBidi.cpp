#include "Termkit/bidi/TerminalBidi.h"

#include <algorithm>
#include <memory>
#include <numeric>

#include <unicode/ubidi.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include "Termkit/bidi/ArabicShaping.h"
#include "Termkit/buffer/CharacterTable.h"

namespace termkit {

namespace {

// An empty cell reads as a space: neutral, so it takes the direction around it, and at a
// row's end it goes to the paragraph's side (right-aligned text in a right-to-left paragraph).
constexpr char16_t kEmptyCellText = u' ';

using UBiDiPtr = std::unique_ptr<UBiDi, decltype(&ubidi_close)>;

// A paragraph flattened for the reordering: its units, their text and where each row's
// units and code units begin.
struct ParagraphText {
    std::vector<TerminalBidi::Cell> units;
    std::vector<char32_t> bases;      // the unit's only or first scalar; 0 for an empty cell
    std::vector<bool> singleScalar;   // whether the unit is exactly that scalar
    std::vector<int32_t> textStart;   // first UTF-16 code unit of each unit
    std::vector<size_t> rowUnitStart; // first unit of each row, and the end
    std::u16string text;
    bool hasRightToLeft = false;
};

void appendScalar(std::u16string& text, char32_t c) {
    if (c < 0x10000) {
        text.push_back(static_cast<char16_t>(c));
    } else {
        text.push_back(static_cast<char16_t>(U16_LEAD(c)));
        text.push_back(static_cast<char16_t>(U16_TRAIL(c)));
    }
}

// Adds one unit's scalars to the paragraph text; returns its first scalar.
char32_t appendUnit(const CharData& cell, const CharacterTable& characters, ParagraphText& p,
                    std::string& utf8, bool& single) {
    single = true;
    if (cell.code == 0) {
        p.text.push_back(kEmptyCellText);
        return 0;
    }
    if (cell.code < kCharacterTableBase) {
        const auto c = static_cast<char32_t>(cell.code);
        appendScalar(p.text, c);
        characters.appendCharacter(cell.code, utf8);
        p.hasRightToLeft = p.hasRightToLeft || bidi::isRightToLeftTrigger(c);
        return c;
    }
    const std::string_view cluster = characters.stored(cell.code);
    utf8.assign(cluster);
    char32_t first = 0;
    int count = 0;
    for (int32_t at = 0; at < static_cast<int32_t>(cluster.size());) {
        UChar32 c = 0;
        U8_NEXT(cluster.data(), at, static_cast<int32_t>(cluster.size()), c);
        if (c < 0)
            c = 0xFFFD;
        appendScalar(p.text, static_cast<char32_t>(c));
        p.hasRightToLeft = p.hasRightToLeft || bidi::isRightToLeftTrigger(static_cast<char32_t>(c));
        if (count++ == 0)
            first = static_cast<char32_t>(c);
    }
    if (count == 0)
        p.text.push_back(kEmptyCellText);
    single = count == 1;
    return first;
}

ParagraphText flatten(TerminalBidi::ParagraphBounds bounds, const Buffer& buffer) {
    ParagraphText p;
    const CharacterTable& characters = buffer.tables().characters;
    for (LineIndex row = bounds.first; row <= bounds.last; ++row) {
        const BufferLine& line = buffer.line(row);
        p.rowUnitStart.push_back(p.units.size());
        for (int col = 0; col < line.count(); ++col) {
            const CharData& cell = line[col];
            // The right half of a wide character belongs to the unit on its left.
            if (cell.width == 0 && col > 0 && line[col - 1].width == 2)
                continue;
            TerminalBidi::Cell unit{row, col, cell.width == 2 && col + 1 < line.count() ? 2 : 1, {}};
            p.textStart.push_back(static_cast<int32_t>(p.text.size()));
            bool single = true;
            p.bases.push_back(appendUnit(cell, characters, p, unit.text, single));
            p.singleScalar.push_back(single);
            p.units.push_back(std::move(unit));
        }
    }
    p.rowUnitStart.push_back(p.units.size());
    return p;
}

std::string utf8Of(char32_t c) {
    std::string out;
    char buffer[4];
    int32_t length = 0;
    UBool error = false;
    U8_APPEND(buffer, length, 4, static_cast<UChar32>(c), error);
    if (!error)
        out.assign(buffer, static_cast<size_t>(length));
    return out;
}

// The row's units in the given visual order, with both column maps.
BidiRowLayout makeRowLayout(const ParagraphText& p, size_t begin,
                            const std::vector<int32_t>& visualToLogicalUnit,
                            const std::vector<std::optional<std::string>>& display, int cols,
                            BidiDirection direction) {
    BidiRowLayout layout;
    layout.baseDirection = direction;
    layout.logicalToVisualCol.assign(static_cast<size_t>(cols), 0);
    layout.visualToLogicalCol.assign(static_cast<size_t>(cols), 0);
    std::iota(layout.logicalToVisualCol.begin(), layout.logicalToVisualCol.end(), 0);
    std::iota(layout.visualToLogicalCol.begin(), layout.visualToLogicalCol.end(), 0);
    layout.visualCells.reserve(visualToLogicalUnit.size());
    int visualCol = 0;
    for (int32_t logical : visualToLogicalUnit) {
        const size_t u = begin + static_cast<size_t>(logical);
        const TerminalBidi::Cell& unit = p.units[u];
        for (int k = 0; k < unit.width && visualCol + k < cols; ++k) {
            layout.logicalToVisualCol[static_cast<size_t>(unit.logicalCol + k)] = visualCol + k;
            layout.visualToLogicalCol[static_cast<size_t>(visualCol + k)] = unit.logicalCol + k;
        }
        layout.visualCells.push_back(BidiCell{unit.logicalCol, unit.width, display[u]});
        visualCol += unit.width;
    }
    return layout;
}

std::vector<int32_t> identityOrder(size_t count) {
    std::vector<int32_t> order(count);
    std::iota(order.begin(), order.end(), 0);
    return order;
}

// The glyph a unit shows at an odd (right-to-left) level: brackets and the like mirrored,
// and box drawing too when the paragraph asks for it.
std::optional<std::string> mirroredDisplay(const ParagraphText& p, size_t u, bool boxMirroring) {
    if (!p.singleScalar[u] || p.bases[u] == 0)
        return std::nullopt;
    char32_t shown = bidi::mirrorOf(p.bases[u]);
    if (boxMirroring)
        shown = bidi::boxMirror(shown);
    if (shown == p.bases[u])
        return std::nullopt;
    return utf8Of(shown);
}

// The text each unit shows after shaping: the shaped base followed by the unit's marks.
std::vector<std::optional<std::string>> shapedDisplay(const ParagraphText& p) {
    std::vector<std::optional<std::string>> display(p.units.size());
    if (!p.hasRightToLeft)
        return display;
    const std::vector<char32_t> shaped = bidi::shapeArabic(p.bases);
    for (size_t u = 0; u < p.units.size(); ++u) {
        if (shaped[u] == p.bases[u])
            continue;
        if (shaped[u] == 0) {
            display[u] = std::string();
            continue;
        }
        // Keep what follows the base scalar in the cluster (its marks).
        const std::string& original = p.units[u].text;
        size_t baseLength = 0;
        if (!original.empty()) {
            int32_t at = 0;
            UChar32 c = 0;
            U8_NEXT(original.data(), at, static_cast<int32_t>(original.size()), c);
            baseLength = static_cast<size_t>(at);
        }
        display[u] = utf8Of(shaped[u]) + original.substr(baseLength);
    }
    return display;
}

BidiDirection detectedBaseDirection(const ParagraphText& p, const BidiPresentationState& state) {
    if (!state.autodetectDirection)
        return state.fallbackDirection;
    switch (ubidi_getBaseDirection(reinterpret_cast<const UChar*>(p.text.data()),
                                   static_cast<int32_t>(p.text.size()))) {
    case UBIDI_LTR:
        return BidiDirection::leftToRight;
    case UBIDI_RTL:
        return BidiDirection::rightToLeft;
    default:
        return state.fallbackDirection;
    }
}

} // namespace

bool BidiRowLayout::isIdentity() const {
    for (size_t i = 0; i < visualToLogicalCol.size(); ++i) {
        if (visualToLogicalCol[i] != static_cast<int>(i))
            return false;
    }
    return std::none_of(visualCells.begin(), visualCells.end(),
                        [](const BidiCell& c) { return c.display.has_value(); });
}

std::string TerminalBidi::visualText(const BidiRowLayout& layout, const BufferLine& line,
                                     const CharacterTable& characters, bool trimRight) {
    std::string out;
    for (const BidiCell& cell : layout.visualCells) {
        const CharData& data = line[cell.logicalCol];
        if (cell.display) {
            // A cell left blank by a ligature still takes its column.
            out += cell.display->empty() ? std::string(static_cast<size_t>(cell.width), ' ') : *cell.display;
        } else if (data.code == 0) {
            out.append(static_cast<size_t>(cell.width), ' ');
        } else {
            characters.appendCharacter(data.code, out);
        }
    }
    if (trimRight) {
        while (!out.empty() && out.back() == ' ')
            out.pop_back();
    }
    return out;
}

std::vector<std::pair<int, int>> TerminalBidi::visualRanges(const BidiRowLayout& layout, int from, int to) {
    std::vector<std::pair<int, int>> ranges;
    const int cols = static_cast<int>(layout.visualToLogicalCol.size());
    for (int v = 0; v < cols; ++v) {
        const int logical = layout.visualToLogicalCol[static_cast<size_t>(v)];
        if (logical < from || logical >= to)
            continue;
        if (!ranges.empty() && ranges.back().second == v)
            ranges.back().second = v + 1;
        else
            ranges.emplace_back(v, v + 1);
    }
    return ranges;
}

bool TerminalBidi::isRightToLeftAt(const BidiRowLayout& layout, int logicalCol) {
    const auto& map = layout.logicalToVisualCol;
    const int cols = static_cast<int>(map.size());
    if (logicalCol < 0 || logicalCol >= cols)
        return false;
    const auto at = static_cast<size_t>(logicalCol);
    if (logicalCol + 1 < cols && map[at + 1] < map[at])
        return true;
    return logicalCol > 0 && map[at - 1] > map[at];
}

bool TerminalBidi::mayNeedBidi(const BufferLine& line, const CharacterTable& characters) {
    const CharData* cells = line.cells();
    const int end = std::min(line.cleanFrom(), line.count());
    for (int col = 0; col < end; ++col) {
        const int32_t code = cells[col].code;
        // Everything below the Hebrew block is left-to-right or neutral: the common case
        // costs one comparison per cell.
        if (code < 0x590)
            continue;
        if (code < kCharacterTableBase) {
            if (bidi::isRightToLeftTrigger(static_cast<char32_t>(code)))
                return true;
            continue;
        }
        const std::string_view cluster = characters.stored(code);
        for (int32_t at = 0; at < static_cast<int32_t>(cluster.size());) {
            UChar32 c = 0;
            U8_NEXT(cluster.data(), at, static_cast<int32_t>(cluster.size()), c);
            if (c > 0 && bidi::isRightToLeftTrigger(static_cast<char32_t>(c)))
                return true;
        }
    }
    return false;
}

TerminalBidi::ParagraphBounds TerminalBidi::paragraphBounds(LineIndex row, const Buffer& buffer,
                                                            int maximumRows) {
    const int limit = std::max(maximumRows, 1);
    const LineIndex lastLine(buffer.lineCount() - 1);
    row = std::clamp(row, LineIndex(0), lastLine);
    int count = 1;
    LineIndex first = row;
    // A paragraph longer than the limit is taken to start where the search stops.
    while (count < limit && first > LineIndex(0) && buffer.line(first).isWrapped()) {
        --first;
        ++count;
    }
    LineIndex last = row;
    while (count < limit && last < lastLine && buffer.line(last + 1).isWrapped()) {
        ++last;
        ++count;
    }
    return {first, last};
}

std::pair<LineIndex, LineIndex> TerminalBidi::renderingDependencyRange(std::pair<LineIndex, LineIndex> rows,
                                                                       const Buffer& buffer,
                                                                       int maximumRows) {
    return {paragraphBounds(rows.first, buffer, maximumRows).first,
            paragraphBounds(rows.second, buffer, maximumRows).last};
}

bool TerminalBidi::rowNeedsLayout(LineIndex row, const Buffer& buffer, int maximumRows) const {
    const BufferLine& line = buffer.line(row);
    // The common case, a line that is neither wrapped nor continued, is decided by itself.
    const bool alone =
        !line.isWrapped() && (row.value + 1 >= buffer.lineCount() || !buffer.line(row + 1).isWrapped());
    const ParagraphBounds bounds =
        alone ? ParagraphBounds{row, row} : paragraphBounds(row, buffer, maximumRows);
    const BidiPresentationState& state = buffer.line(bounds.first).bidiState();
    if (state.fallbackDirection == BidiDirection::rightToLeft)
        return true;
    if (state.supportMode == BidiSupportMode::explicit_)
        return false;
    const CharacterTable& characters = buffer.tables().characters;
    for (LineIndex r = bounds.first; r <= bounds.last; ++r) {
        if (mayNeedBidi(buffer.line(r), characters))
            return true;
    }
    return false;
}

BidiRowLayout TerminalBidi::layout(LineIndex row, const Buffer& buffer, int maximumRows) {
    const ParagraphBounds bounds = paragraphBounds(row, buffer, maximumRows);
    return layout(row, buffer, buffer.line(bounds.first).bidiState(), maximumRows);
}

BidiRowLayout TerminalBidi::layout(LineIndex row, const Buffer& buffer, const BidiPresentationState& state,
                                   int maximumRows) {
    const ParagraphBounds bounds = paragraphBounds(row, buffer, maximumRows);
    const CachedParagraph& result = paragraphResult(bounds, buffer, state);
    return result.rows[static_cast<size_t>(std::clamp(row, bounds.first, bounds.last) - bounds.first)];
}

BidiDirection TerminalBidi::paragraphDirection(LineIndex row, const Buffer& buffer, int maximumRows) {
    const ParagraphBounds bounds = paragraphBounds(row, buffer, maximumRows);
    return paragraphResult(bounds, buffer, buffer.line(bounds.first).bidiState()).baseDirection;
}

uint64_t TerminalBidi::layoutRevision(LineIndex row, const Buffer& buffer, int maximumRows) {
    const ParagraphBounds bounds = paragraphBounds(row, buffer, maximumRows);
    const CachedParagraph& result = paragraphResult(bounds, buffer, buffer.line(bounds.first).bidiState());
    return result.rows.front().paragraphRevision;
}

TerminalBidi::ParagraphContentKey TerminalBidi::contentKey(ParagraphBounds bounds, const Buffer& buffer,
                                                           const BidiPresentationState& state) {
    ParagraphContentKey key;
    key.state = state;
    key.cols = buffer.cols();
    for (LineIndex row = bounds.first; row <= bounds.last; ++row) {
        const BufferLine& line = buffer.line(row);
        key.lines.push_back(LineKey{&line, line.identity(), line.recycleGeneration(), line.generation()});
    }
    return key;
}

const TerminalBidi::CachedParagraph& TerminalBidi::paragraphResult(ParagraphBounds bounds,
                                                                   const Buffer& buffer,
                                                                   const BidiPresentationState& state) {
    // Keyed by the first line's identity, not its row: a paragraph that scrolled is found
    // again, and its content key says whether the result still holds.
    const BufferLine* identity = &buffer.line(bounds.first);
    ParagraphContentKey key = contentKey(bounds, buffer, state);
    if (auto found = m_cache.find(identity); found != m_cache.end() && found->second.key == key)
        return found->second;
    if (m_cache.size() >= kMaximumCachedParagraphs)
        m_cache.clear();
    CachedParagraph built = buildParagraph(bounds, buffer, state);
    built.key = std::move(key);
    return m_cache.insert_or_assign(identity, std::move(built)).first->second;
}

TerminalBidi::CachedParagraph TerminalBidi::buildParagraph(ParagraphBounds bounds, const Buffer& buffer,
                                                           const BidiPresentationState& state) {
    ++m_builds;
    const uint64_t revision = ++m_paragraphRevision;
    const ParagraphText p = flatten(bounds, buffer);
    const size_t rowCount = p.rowUnitStart.size() - 1;
    CachedParagraph result;
    result.rows.reserve(rowCount);
    const bool explicitMode = state.supportMode == BidiSupportMode::explicit_;
    result.baseDirection = explicitMode ? state.fallbackDirection : detectedBaseDirection(p, state);
    const bool rtl = result.baseDirection == BidiDirection::rightToLeft;
    auto rowCols = [&](size_t r) { return buffer.line(bounds.first + static_cast<int>(r)).count(); };

    if (explicitMode || (!p.hasRightToLeft && !rtl)) {
        // The application ordered the text itself, or nothing in it needs reordering: a
        // right-to-left explicit paragraph is only mirrored as a whole.
        std::vector<std::optional<std::string>> display(p.units.size());
        for (size_t r = 0; r < rowCount; ++r) {
            const size_t begin = p.rowUnitStart[r];
            std::vector<int32_t> order = identityOrder(p.rowUnitStart[r + 1] - begin);
            if (explicitMode && rtl) {
                std::reverse(order.begin(), order.end());
                for (size_t u = begin; u < p.rowUnitStart[r + 1]; ++u)
                    display[u] = mirroredDisplay(p, u, state.boxMirroring);
            }
            result.rows.push_back(makeRowLayout(p, begin, order, display, rowCols(r), result.baseDirection));
            result.rows.back().paragraphRevision = revision;
        }
        return result;
    }

    std::vector<std::optional<std::string>> display = shapedDisplay(p);
    UErrorCode error = U_ZERO_ERROR;
    UBiDiPtr paragraph(ubidi_open(), &ubidi_close);
    UBiDiPtr line(ubidi_open(), &ubidi_close);
    ubidi_setPara(paragraph.get(), reinterpret_cast<const UChar*>(p.text.data()),
                  static_cast<int32_t>(p.text.size()), rtl ? 1 : 0, nullptr, &error);
    for (size_t r = 0; r < rowCount; ++r) {
        const size_t begin = p.rowUnitStart[r];
        const size_t end = p.rowUnitStart[r + 1];
        std::vector<int32_t> order = identityOrder(end - begin);
        if (end > begin && U_SUCCESS(error)) {
            const int32_t start = p.textStart[begin];
            const int32_t limit =
                end < p.units.size() ? p.textStart[end] : static_cast<int32_t>(p.text.size());
            // Each row is a line of the one paragraph: the algorithm breaks lines only here.
            UErrorCode lineError = U_ZERO_ERROR;
            ubidi_setLine(paragraph.get(), start, limit, line.get(), &lineError);
            const UBiDiLevel* levels = ubidi_getLevels(line.get(), &lineError);
            if (U_SUCCESS(lineError) && levels != nullptr) {
                std::vector<UBiDiLevel> unitLevels(end - begin);
                for (size_t u = begin; u < end; ++u) {
                    unitLevels[u - begin] = levels[p.textStart[u] - start];
                    if ((unitLevels[u - begin] & 1) != 0 && !display[u])
                        display[u] = mirroredDisplay(p, u, state.boxMirroring);
                }
                ubidi_reorderVisual(unitLevels.data(), static_cast<int32_t>(unitLevels.size()), order.data());
            }
        }
        result.rows.push_back(makeRowLayout(p, begin, order, display, rowCols(r), result.baseDirection));
        result.rows.back().paragraphRevision = revision;
    }
    return result;
}

} // namespace termkit
