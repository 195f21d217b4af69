#include "Termkit/view/glyphs/BoxDrawingRenderer.h"

namespace termkit {

namespace {

// Arms of every character of the block in the order up, right, down, left: '.' none,
// 'l' light, 'h' heavy, 'd' doubled; "----" for the ones drawn otherwise.
constexpr const char* kArms[128] = {
    ".l.l", ".h.h", "l.l.", "h.h.", "----", "----", "----", "----", // U+2500
    "----", "----", "----", "----", ".ll.", ".hl.", ".lh.", ".hh.", // U+2508
    "..ll", "..lh", "..hl", "..hh", "ll..", "lh..", "hl..", "hh..", // U+2510
    "l..l", "l..h", "h..l", "h..h", "lll.", "lhl.", "hll.", "llh.", // U+2518
    "hlh.", "hhl.", "lhh.", "hhh.", "l.ll", "l.lh", "h.ll", "l.hl", // U+2520
    "h.hl", "h.lh", "l.hh", "h.hh", ".lll", ".llh", ".hll", ".hlh", // U+2528
    ".lhl", ".lhh", ".hhl", ".hhh", "ll.l", "ll.h", "lh.l", "lh.h", // U+2530
    "hl.l", "hl.h", "hh.l", "hh.h", "llll", "lllh", "lhll", "lhlh", // U+2538
    "hlll", "llhl", "hlhl", "hllh", "hhll", "llhh", "lhhl", "hhlh", // U+2540
    "lhhh", "hlhh", "hhhl", "hhhh", "----", "----", "----", "----", // U+2548
    ".d.d", "d.d.", ".dl.", ".ld.", ".dd.", "..ld", "..dl", "..dd", // U+2550
    "ld..", "dl..", "dd..", "l..d", "d..l", "d..d", "ldl.", "dld.", // U+2558
    "ddd.", "l.ld", "d.dl", "d.dd", ".dld", ".ldl", ".ddd", "ld.d", // U+2560
    "dl.l", "dd.d", "ldld", "dldl", "dddd", "----", "----", "----", // U+2568
    "----", "----", "----", "----", "...l", "l...", ".l..", "..l.", // U+2570
    "...h", "h...", ".h..", "..h.", ".h.l", "l.h.", ".l.h", "h.l.", // U+2578
};

LineWeight weight(char c) {
    switch (c) {
    case 'l':
        return LineWeight::light;
    case 'h':
        return LineWeight::heavy;
    case 'd':
        return LineWeight::doubled;
    default:
        return LineWeight::none;
    }
}

// Dashed lines: how many dashes, which way, which weight.
struct Dash {
    char32_t codePoint;
    int count;
    bool horizontal;
    LineWeight weight;
};
constexpr Dash kDashes[] = {
    {0x2504, 3, true, LineWeight::light},  {0x2505, 3, true, LineWeight::heavy},
    {0x2506, 3, false, LineWeight::light}, {0x2507, 3, false, LineWeight::heavy},
    {0x2508, 4, true, LineWeight::light},  {0x2509, 4, true, LineWeight::heavy},
    {0x250A, 4, false, LineWeight::light}, {0x250B, 4, false, LineWeight::heavy},
    {0x254C, 2, true, LineWeight::light},  {0x254D, 2, true, LineWeight::heavy},
    {0x254E, 2, false, LineWeight::light}, {0x254F, 2, false, LineWeight::heavy},
};

} // namespace

std::optional<BoxArms> BoxDrawingRenderer::arms(char32_t codePoint) {
    if (!handles(codePoint))
        return std::nullopt;
    const char* a = kArms[codePoint - kFirst];
    if (a[0] == '-')
        return std::nullopt;
    return BoxArms{weight(a[0]), weight(a[1]), weight(a[2]), weight(a[3])};
}

std::optional<GlyphBitmap> BoxDrawingRenderer::render(const CustomGlyphKey& key) {
    if (!handles(key.codePoint))
        return std::nullopt;
    BoxDrawingCanvas canvas(key.cellWidthPx, key.cellHeightPx, key.baseThicknessPx, key.antiAlias);
    if (auto lines = arms(key.codePoint)) {
        canvas.linesChar(*lines);
        return canvas.bitmap();
    }
    for (const Dash& dash : kDashes) {
        if (dash.codePoint != key.codePoint)
            continue;
        if (dash.horizontal)
            canvas.dashHorizontal(dash.count, dash.weight);
        else
            canvas.dashVertical(dash.count, dash.weight);
        return canvas.bitmap();
    }
    switch (key.codePoint) {
    case 0x256D:
        canvas.arc(ArcCorner::downAndRight);
        break;
    case 0x256E:
        canvas.arc(ArcCorner::downAndLeft);
        break;
    case 0x256F:
        canvas.arc(ArcCorner::upAndLeft);
        break;
    case 0x2570:
        canvas.arc(ArcCorner::upAndRight);
        break;
    case 0x2571:
        canvas.lightDiagonalUpperRightToLowerLeft();
        break;
    case 0x2572:
        canvas.lightDiagonalUpperLeftToLowerRight();
        break;
    case 0x2573:
        canvas.lightDiagonalUpperRightToLowerLeft();
        canvas.lightDiagonalUpperLeftToLowerRight();
        break;
    default:
        return std::nullopt;
    }
    return canvas.bitmap();
}

} // namespace termkit
