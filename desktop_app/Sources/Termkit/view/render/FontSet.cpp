#include "Termkit/view/render/FontSet.h"

#include <QFontMetricsF>
#include <QRawFont>

#include <algorithm>
#include <cmath>

namespace termkit {

namespace {

// Points to pixels at the desktop's usual 96 dots an inch; the device pixel ratio scales
// from there, so a size means the same cell on every screen of a given scale.
constexpr double kPixelsPerPoint = 96.0 / 72.0;

QFont makeFont(const QString& family, double pixelSize, bool bold, bool italic) {
    QFont font(family);
    font.setPixelSize(std::max(1, static_cast<int>(std::lround(pixelSize))));
    font.setStyleHint(QFont::Monospace, QFont::PreferDefault);
    font.setFixedPitch(true);
    font.setKerning(false);
    font.setBold(bold);
    font.setItalic(italic);
    // Emoji come from the colour font when the face has none of its own.
    font.setFamilies({family, QString::fromLatin1(FontSet::kEmojiFamily)});
    return font;
}

} // namespace

FontSet::FontSet(const QString& family, double pointSize, double devicePixelRatio)
    : m_family(family), m_pointSize(pointSize), m_pixelSize(pointSize * kPixelsPerPoint * devicePixelRatio) {
    for (int i = 0; i < 4; ++i)
        m_fonts[static_cast<size_t>(i)] = makeFont(family, m_pixelSize, (i & 1) != 0, (i & 2) != 0);
    const QFontMetricsF fm(m_fonts[0]);
    CellMetrics& m = m_metrics;
    m.devicePixelRatio = devicePixelRatio;
    m.width = std::max(1, static_cast<int>(std::lround(fm.horizontalAdvance(QLatin1Char('M')))));
    m.baseline = static_cast<int>(std::ceil(fm.ascent()));
    m.height = std::max(1, m.baseline + static_cast<int>(std::ceil(fm.descent())));
    m.underlineThickness = std::max(1, static_cast<int>(std::lround(fm.lineWidth())));
    m.underlinePosition =
        std::min(m.height - m.underlineThickness,
                 m.baseline + std::max(1, static_cast<int>(std::lround(fm.underlinePos()))));
    m.strikeoutPosition = m.baseline - std::max(1, static_cast<int>(std::lround(fm.strikeOutPos())));
}

} // namespace termkit
