#pragma once
// The terminal's font in its four styles, and the cell it defines.

#include <QFont>
#include <QString>

#include <array>

namespace termkit {

/// Bold and italic, as an index into the four faces.
enum class FontStyle : uint8_t { regular = 0, bold = 1, italic = 2, boldItalic = 3 };

constexpr FontStyle fontStyle(bool bold, bool italic) {
    return static_cast<FontStyle>((bold ? 1 : 0) | (italic ? 2 : 0));
}

/// The cell in device pixels: every row and column of the terminal sits on whole pixels,
/// which is what lets lines of box drawing join and backgrounds tile without seams.
struct CellMetrics {
    int width = 0;
    int height = 0;
    /// Baseline from the cell's top.
    int baseline = 0;
    int underlinePosition = 0; // top row of the underline, from the cell's top
    int underlineThickness = 1;
    int strikeoutPosition = 0;
    double devicePixelRatio = 1;
    bool operator==(const CellMetrics&) const = default;
};

/// A monospaced family at a size, for one device pixel ratio.
class FontSet {
public:
    /// The face the terminal uses unless the preferences name another.
    static constexpr const char* kDefaultFamily = "DejaVu Sans Mono";
    static constexpr double kDefaultPointSize = 11;
    /// The family colour emoji come from when the text's own font has none.
    static constexpr const char* kEmojiFamily = "Noto Color Emoji";

    FontSet(const QString& family = kDefaultFamily, double pointSize = kDefaultPointSize,
            double devicePixelRatio = 1);

    const QFont& font(FontStyle style) const { return m_fonts[static_cast<size_t>(style)]; }
    const CellMetrics& metrics() const { return m_metrics; }
    const QString& family() const { return m_family; }
    double pointSize() const { return m_pointSize; }
    /// The font's size in device pixels.
    double pixelSize() const { return m_pixelSize; }

private:
    QString m_family;
    double m_pointSize;
    double m_pixelSize;
    std::array<QFont, 4> m_fonts;
    CellMetrics m_metrics;
};

} // namespace termkit
