// Fonts, glyph rasterising, the glyph cache, row geometry, the frame builder with its row
// cache, and the software painter: everything of drawing that needs no window.

#include <QGuiApplication>
#include <QTest>

#include <map>

#include "Termkit/view/render/FrameBuilder.h"
#include "Termkit/view/render/SoftwareRowPainter.h"

using namespace termkit;

namespace {

constexpr uint32_t kWhite = 0xFFFFFFFFu;
constexpr uint32_t kBlack = 0xFF000000u;
constexpr uint32_t kRed = 0xFFCC0000u;
constexpr uint32_t kBlue = 0xFF0000CCu;

RenderCell cell(char32_t c, uint32_t fg = kBlack, uint32_t bg = kWhite) {
    RenderCell r;
    r.code = c;
    r.fg = fg;
    r.bg = bg;
    return r;
}

RowSnapshot text(const QString& s, uint32_t fg = kBlack, uint32_t bg = kWhite) {
    RowSnapshot row;
    for (QChar c : s)
        row.cells.push_back(cell(c.unicode(), fg, bg));
    return row;
}

// A terminal stand-in: rows with line identities and generations, counting copies.
class FakeRows : public RowSource {
public:
    explicit FakeRows(int rows, int cols) : m_lines(static_cast<size_t>(rows)) {
        for (auto& line : m_lines)
            line.snapshot = text(QString(cols, QLatin1Char(' ')));
    }
    int rowCount() const override { return static_cast<int>(m_lines.size()); }
    RowKey rowKey(int row) const override {
        const Line& line = m_lines[static_cast<size_t>(row)];
        return {&line, line.generation, 0};
    }
    void copyRow(int row, RowSnapshot& out) const override {
        ++copies[row];
        out = m_lines[static_cast<size_t>(row)].snapshot;
    }
    void set(int row, RowSnapshot snapshot) {
        Line& line = m_lines[static_cast<size_t>(row)];
        line.snapshot = std::move(snapshot);
        ++line.generation;
    }
    mutable std::map<int, int> copies;

private:
    struct Line {
        RowSnapshot snapshot;
        uint64_t generation = 1;
    };
    std::vector<Line> m_lines;
};

CacheSignature signatureFor(const FontSet& fonts, int rows, int cols) {
    CacheSignature s;
    s.cellWidth = fonts.metrics().width;
    s.cellHeight = fonts.metrics().height;
    s.rows = rows;
    s.cols = cols;
    s.fontName = fonts.family().toStdString();
    s.fontSize = fonts.pointSize();
    return s;
}

int inkedPixels(const GlyphBitmap& b) {
    int n = 0;
    for (size_t i = 0; i < b.pixels.size(); i += b.isColor ? 4 : 1)
        n += b.pixels[b.isColor ? i + 3 : i] > 0 ? 1 : 0;
    return n;
}

} // namespace

class RendererTest : public QObject {
    Q_OBJECT

private slots:
    void cellMetricsOfTheDefaultFont() {
        FontSet fonts;
        const CellMetrics& m = fonts.metrics();
        QCOMPARE(fonts.family(), QString("DejaVu Sans Mono"));
        QVERIFY(m.width >= 6 && m.width <= 12);
        QVERIFY(m.height > m.width);
        QVERIFY(m.baseline > 0 && m.baseline < m.height);
        QVERIFY(m.underlinePosition >= m.baseline && m.underlinePosition < m.height);
        QVERIFY(m.strikeoutPosition > 0 && m.strikeoutPosition < m.baseline);
        // Twice the pixels at twice the ratio.
        FontSet doubled(QStringLiteral("DejaVu Sans Mono"), 11, 2);
        QVERIFY(std::abs(doubled.metrics().width - 2 * m.width) <= 1);
        QVERIFY(std::abs(doubled.metrics().height - 2 * m.height) <= 2);
    }

    void rasterisedTextSitsInItsCell() {
        FontSet fonts;
        GlyphRasterizer raster(fonts);
        const CellMetrics& m = fonts.metrics();
        const GlyphBitmap a = raster.rasterize(QStringLiteral("A"), FontStyle::regular, 1);
        QVERIFY(!a.empty());
        QVERIFY(!a.isColor);
        QVERIFY(a.bearingX >= 0 && a.bearingX + a.width <= m.width + 1);
        QVERIFY(a.bearingY >= 0 &&
                a.bearingY + a.height <= m.baseline + 1); // a capital stands on the baseline
        const GlyphBitmap g = raster.rasterize(QStringLiteral("g"), FontStyle::regular, 1);
        QVERIFY(g.bearingY + g.height > m.baseline); // a descender goes below it
        QVERIFY(raster.rasterize(QStringLiteral(" "), FontStyle::regular, 1).empty());
        const GlyphBitmap bold = raster.rasterize(QStringLiteral("A"), FontStyle::bold, 1);
        QVERIFY(inkedPixels(bold) > inkedPixels(a));
    }

    void emojiComeInColourAndFitTwoCells() {
        FontSet fonts;
        GlyphRasterizer raster(fonts);
        const GlyphBitmap smile =
            raster.rasterize(QString::fromUtf8("\xF0\x9F\x98\x80"), FontStyle::regular, 2);
        QVERIFY(!smile.empty());
        QVERIFY(smile.isColor);
        QVERIFY(smile.width <= 2 * fonts.metrics().width);
        QVERIFY(smile.height <= fonts.metrics().height);
        QCOMPARE(smile.pixels.size(), static_cast<size_t>(smile.width * smile.height * 4));
    }

    void theCacheFindsWhatItPlaced() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        const GlyphEntry* a = cache.glyph('a', FontStyle::regular, 1);
        QVERIFY(a != nullptr);
        QCOMPARE(cache.glyph('a', FontStyle::regular, 1), a);
        QVERIFY(cache.glyph('a', FontStyle::bold, 1) != a);
        QCOMPARE(cache.glyph(' ', FontStyle::regular, 1), nullptr);
        const GlyphEntry* box = cache.glyph(0x2500, FontStyle::regular, 1);
        QVERIFY(box != nullptr);
        QCOMPARE(box->width, fonts.metrics().width); // drawn by geometry: a full cell wide
        QCOMPARE(box->bearingX, 0);
        const GlyphEntry* e = cache.cluster(QString::fromUtf8("e\xCC\x81"), FontStyle::regular, 1);
        QVERIFY(e != nullptr);
        QCOMPARE(cache.cluster(QString::fromUtf8("e\xCC\x81"), FontStyle::regular, 1), e);
        QVERIFY(cache.glyph(0x1F600, FontStyle::regular, 2)->isColor);
        QVERIFY(cache.colorAtlas().revision() > 0);
    }

    void customGlyphsCanBeLeftToTheFont() {
        FontSet fonts;
        // Drawn by geometry, a line is a whole cell: it must meet its neighbours' edges.
        GlyphCache geometric(fonts, {});
        const GlyphEntry* drawn = geometric.glyph(0x2500, FontStyle::regular, 1);
        QVERIFY(drawn != nullptr);
        QCOMPARE(drawn->height, fonts.metrics().height);
        QCOMPARE(drawn->bearingY, 0);
        // From the font, it is cropped to the stroke's own ink.
        GlyphCache::Options options;
        options.customBlockGlyphs = false;
        GlyphCache fromFont(fonts, options);
        const GlyphEntry* font = fromFont.glyph(0x2500, FontStyle::regular, 1);
        QVERIFY(font != nullptr);
        QVERIFY(font->height < fonts.metrics().height / 2);
        QVERIFY(font->bearingY > 0);
    }

    void rowGeometryMergesBackgroundsAndSkipsTheDefault() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        RowSnapshot row = text(QStringLiteral("ab cd"));
        row.cells[1].bg = kRed;
        row.cells[2].bg = kRed;
        row.cells[4].bg = kBlue;
        RowBuildContext context{fonts.metrics(), kWhite, true};
        RowGeometry g;
        RowBuilder::build(row, 3, context, cache, g);
        QCOMPARE(g.backgrounds.size(), size_t(2));
        const float cw = static_cast<float>(fonts.metrics().width);
        const float top = static_cast<float>(3 * fonts.metrics().height);
        QCOMPARE(g.backgrounds[0].x0, 1 * cw);
        QCOMPARE(g.backgrounds[0].x1, 3 * cw);
        QCOMPARE(g.backgrounds[0].y0, top);
        QCOMPARE(g.backgrounds[0].argb, kRed);
        QCOMPARE(g.backgrounds[1].argb, kBlue);
        QCOMPARE(g.gray.size(), size_t(4)); // the space has no ink
        QVERIFY(g.gray[0].x0 >= 0 && g.gray[0].x1 <= cw + 1);
        QCOMPARE(g.gray[0].argb, kBlack);
    }

    void hiddenBlinkingInvisibleAndDecoratedCells() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        RowSnapshot row = text(QStringLiteral("abcde"));
        row.cells[0].flags = RenderCell::invisible;
        row.cells[1].flags = RenderCell::blink;
        row.hasBlink = true;
        row.cells[2].underline = 1;
        row.cells[3].underline = 3;
        row.cells[4].flags = RenderCell::strikethrough;
        RowBuildContext shown{fonts.metrics(), kWhite, true};
        RowGeometry g;
        RowBuilder::build(row, 0, shown, cache, g);
        QCOMPARE(g.gray.size(), size_t(4));
        QCOMPARE(g.decorations.size(), size_t(2)); // the underline and the strike
        QCOMPARE(g.decorationSprites.size(), size_t(1));
        QVERIFY(g.hasBlink);
        RowBuildContext hidden = shown;
        hidden.blinkShown = false;
        RowBuilder::build(row, 0, hidden, cache, g);
        QCOMPARE(g.gray.size(), size_t(3));
        QVERIFY(!g.blinkShown);
    }

    void wideCharactersSpanTwoCells() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        RowSnapshot row;
        RenderCell wide = cell(0x1F600, kBlack, kRed);
        wide.width = 2;
        RenderCell right = cell(0, kBlack, kRed);
        right.width = 0;
        row.cells = {wide, right, cell('x')};
        RowGeometry g;
        RowBuilder::build(row, 0, {fonts.metrics(), kWhite, true}, cache, g);
        QCOMPARE(g.color.size(), size_t(1));
        QCOMPARE(g.backgrounds.size(), size_t(1));
        QCOMPARE(g.backgrounds[0].x1, 2.0f * static_cast<float>(fonts.metrics().width));
        QCOMPARE(g.gray.size(), size_t(1));
    }

    void onlyChangedRowsAreCopiedAndBuilt() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        FrameBuilder frames(cache);
        FakeRows rows(4, 10);
        const RowBuildContext context{fonts.metrics(), kWhite, true};
        auto first = frames.build(rows, signatureFor(fonts, 4, 10), context);
        QVERIFY(first.allRows);
        QCOMPARE(first.rebuiltRows.size(), size_t(4));
        rows.copies.clear();
        rows.set(2, text(QStringLiteral("changed")));
        auto second = frames.build(rows, signatureFor(fonts, 4, 10), context);
        QVERIFY(!second.allRows);
        QCOMPARE(second.rebuiltRows, std::vector<int>{2});
        QCOMPARE(rows.copies.size(), size_t(1));
        QCOMPARE(rows.copies[2], 1);
        QCOMPARE(frames.row(2).gray.size(), size_t(7));
        // Nothing changed: nothing copied.
        rows.copies.clear();
        QVERIFY(frames.build(rows, signatureFor(fonts, 4, 10), context).rebuiltRows.empty());
        QVERIFY(rows.copies.empty());
        // A scroll (new signature) drops every row.
        CacheSignature scrolled = signatureFor(fonts, 4, 10);
        scrolled.yDisp = 1;
        auto third = frames.build(rows, scrolled, context);
        QVERIFY(third.allRows);
        QCOMPARE(third.rebuiltRows.size(), size_t(4));
    }

    void blinkingRowsAreRebuiltWhenThePhaseFlips() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        FrameBuilder frames(cache);
        FakeRows rows(3, 5);
        RowSnapshot blinking = text(QStringLiteral("blink"));
        blinking.cells[0].flags = RenderCell::blink;
        blinking.hasBlink = true;
        rows.set(1, blinking);
        RowBuildContext context{fonts.metrics(), kWhite, true};
        frames.build(rows, signatureFor(fonts, 3, 5), context);
        context.blinkShown = false;
        auto flipped = frames.build(rows, signatureFor(fonts, 3, 5), context);
        QCOMPARE(flipped.rebuiltRows, std::vector<int>{1});
        QCOMPARE(frames.row(1).gray.size(), size_t(4));
    }

    void anAtlasResetRebuildsTheWholeFrameFrozen() {
        // A large font and the smallest atlas: one screen of distinct glyphs overflows it.
        FontSet fonts(QStringLiteral("DejaVu Sans Mono"), 48, 1);
        GlyphCache::Options options;
        options.maxAtlasSize = 256;
        QStringList logs;
        options.log = [&](std::string_view line) { logs << QString::fromUtf8(line.data(), line.size()); };
        GlyphCache cache(fonts, options);
        FrameBuilder frames(cache);
        FakeRows rows(2, 20);
        const RowBuildContext context{fonts.metrics(), kWhite, true};
        frames.build(rows, signatureFor(fonts, 2, 20), context);
        rows.set(0, text(QStringLiteral("ABCDEFGHIJKLMNOPQRST")));
        rows.set(1, text(QStringLiteral("abcdefghijklmnopqrst")));
        auto result = frames.build(rows, signatureFor(fonts, 2, 20), context);
        QVERIFY(result.atlasInvalidatedDuringBuild);
        QVERIFY(result.allRows);
        QCOMPARE(result.rebuiltRows.size(), size_t(2));
        QVERIFY(result.incompleteRows > 0); // what did not fit is skipped in this frame
        QCOMPARE(logs.filter("reset at size 256").size(), 1);
        QCOMPARE(logs.filter("frozen and full").size(), 1);
        // Every glyph that was placed belongs to the atlas as it is now.
        for (int r = 0; r < 2; ++r)
            for (const GlyphQuad& q : frames.row(r).gray)
                QVERIFY(q.u1 <= 256 && q.v1 <= 256);
        // The next frame builds the incomplete rows again, without a reset loop over the
        // rows that were complete.
        auto next = frames.build(rows, signatureFor(fonts, 2, 20), context);
        QVERIFY(!next.rebuiltRows.empty());
    }

    void softwarePainterDrawsBackgroundsAndGlyphs() {
        FontSet fonts;
        GlyphCache cache(fonts, {});
        FrameBuilder frames(cache);
        FakeRows rows(2, 4);
        RowSnapshot row = text(QStringLiteral("X  "), kRed, kWhite);
        row.cells.push_back(cell(' ', kBlack, kBlue));
        rows.set(1, row);
        const RowBuildContext context{fonts.metrics(), kWhite, true};
        const CellMetrics& m = fonts.metrics();
        auto result = frames.build(rows, signatureFor(fonts, 2, 4), context);
        SoftwareRowPainter painter;
        const QSize size(4 * m.width, 2 * m.height);
        QVERIFY(painter.paint(frames, result, cache, size, m.height, kWhite));
        const QImage& image = painter.image();
        QCOMPARE(image.size(), size);
        // The blue cell is blue all over; the first row is untouched white.
        QCOMPARE(image.pixel(3 * m.width + 1, m.height + 1), kBlue);
        QCOMPARE(image.pixel(3 * m.width + m.width - 1, 2 * m.height - 1), kBlue);
        QCOMPARE(image.pixel(1, 1), kWhite);
        // The X has red ink in its cell and nowhere else in the row.
        int red = 0;
        for (int y = m.height; y < 2 * m.height; ++y)
            for (int x = 0; x < 3 * m.width; ++x)
                red += qRed(image.pixel(x, y)) > 200 && qGreen(image.pixel(x, y)) < 60 ? 1 : 0;
        QVERIFY(red > 10);
        for (int y = m.height; y < 2 * m.height; ++y)
            for (int x = m.width + 1; x < 3 * m.width; ++x)
                QCOMPARE(image.pixel(x, y), kWhite);
        // Nothing changed: nothing painted.
        auto idle = frames.build(rows, signatureFor(fonts, 2, 4), context);
        QVERIFY(!painter.paint(frames, idle, cache, size, m.height, kWhite));
    }
};

QTEST_MAIN(RendererTest)
#include "RendererTest.moc"
