#include "Termkit/graphics/SixelDecoder.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace termkit {

namespace {

// The VT340's colour registers at power-up; the rest start black.
constexpr std::array<std::array<int, 3>, 16> kVt340Palette = {{
    {0, 0, 0},
    {20, 20, 80},
    {80, 13, 13},
    {20, 80, 20},
    {80, 20, 80},
    {20, 80, 80},
    {80, 80, 20},
    {53, 53, 53},
    {26, 26, 26},
    {33, 33, 60},
    {60, 26, 26},
    {33, 60, 33},
    {60, 33, 60},
    {33, 60, 60},
    {60, 60, 33},
    {80, 80, 80},
}};

constexpr int kMaxParameters = 5;

int percentTo255(int p) {
    return (std::clamp(p, 0, 100) * 255 + 50) / 100;
}

// Reads one decimal number from `at` (0 when there is none), capped so it cannot overflow.
int readNumber(const uint8_t*& at, const uint8_t* end) {
    int v = 0;
    while (at < end && unsigned(*at - '0') < 10) {
        if (v < (1 << 20))
            v = v * 10 + (*at - '0');
        ++at;
    }
    return v;
}

// Reads up to `kMaxParameters` decimal parameters separated by `;` from `at`; returns how
// many there were (0 when none).
int readParameters(const uint8_t*& at, const uint8_t* end, std::array<int, kMaxParameters>& out) {
    int index = 0;
    bool any = false;
    out.fill(0);
    while (at < end) {
        if (*at >= '0' && *at <= '9') {
            int v = 0;
            while (at < end && *at >= '0' && *at <= '9') {
                v = std::min(v * 10 + (*at - '0'), 1 << 20);
                ++at;
            }
            if (index < kMaxParameters)
                out[size_t(index)] = v;
            any = true;
        } else if (*at == ';') {
            ++index;
            any = true;
            ++at;
        } else {
            break;
        }
    }
    return any ? std::min(index + 1, kMaxParameters) : 0;
}

// The picture as it is drawn. A band of six rows is drawn column by column into a buffer
// that keeps each column's six pixels together, which is how sixels arrive, and appended to
// the picture's rows when the band ends; the picture grows as bands and columns come.
// Pixels are 32-bit words in RGBA byte order; zero is a pixel nothing drew.
//
// The rows are the picture's own memory: with raster attributes (which programs send) they
// are reserved once at the announced size and then only appended to, so each page of a new
// picture is touched once, by its pixels, and never zero-filled first or moved as it grows.
class Canvas {
public:
    Canvas(int widthHint, int heightHint) {
        m_bandCapacity = std::max(widthHint, 1);
        m_band.resize(size_t(m_bandCapacity) * 6, 0);
        if (widthHint > 0) {
            m_rowsWidth = widthHint;
            m_line.resize(size_t(widthHint), 0);
            const size_t bands = (size_t(std::max(heightHint, 0)) + 5) / 6;
            m_rows.reserve(size_t(widthHint) * std::max<size_t>(bands, 1) * 6 * 4);
        }
    }

    // Draws the six-pixel column `bits` at column x of the band, `count` times to the right.
    void draw(unsigned bits, int x, int count, uint32_t colour) {
        if (x + count > m_bandCapacity)
            growBand(x + count);
        m_bandRight = std::max(m_bandRight, x + count);
        m_bandBottom = std::max(m_bandBottom, 32 - __builtin_clz(bits));
        uint32_t* column = m_band.data() + size_t(x) * 6;
        if (bits == 0x3F) {
            for (int i = 0; i < count; ++i, column += 6)
                for (int b = 0; b < 6; ++b)
                    column[b] = colour;
            return;
        }
        for (int i = 0; i < count; ++i, column += 6)
            for (unsigned rest = bits; rest != 0; rest &= rest - 1)
                column[__builtin_ctz(rest)] = colour;
    }

    // Draws a run of single sixels (bytes '?' to '~') from column x, keeping only the rows
    // in `rowMask`. Runs are most of a stream, so this is the loop that matters.
    void drawRun(const uint8_t* sixels, int length, int x, unsigned rowMask, uint32_t colour) {
        if (x + length > m_bandCapacity)
            growBand(x + length);
        uint32_t* column = m_band.data() + size_t(x) * 6;
        unsigned seen = 0;
        int last = -1;
        for (int i = 0; i < length; ++i, column += 6) {
            const unsigned bits = unsigned(sixels[i] - '?') & rowMask;
            if (bits == 0)
                continue;
            seen |= bits;
            last = i;
            for (unsigned rest = bits; rest != 0; rest &= rest - 1)
                column[__builtin_ctz(rest)] = colour;
        }
        if (last >= 0) {
            m_bandRight = std::max(m_bandRight, x + last + 1);
            m_bandBottom = std::max(m_bandBottom, 32 - __builtin_clz(seen));
        }
    }

    // Ends the band whose top row is `y`: its six rows are appended to the picture's.
    void endBand(int y) {
        if (m_bandRight == 0)
            return;
        if (m_rowsWidth < m_bandRight)
            restride(m_bandCapacity);
        m_width = std::max(m_width, m_bandRight);
        m_height = y + m_bandBottom;
        const size_t stride = size_t(m_rowsWidth) * 4;
        // Bands that drew nothing left their rows transparent.
        m_rows.resize(size_t(y) * stride, 0);
        for (int b = 0; b < 6; ++b) {
            const uint32_t* column = m_band.data() + b;
            for (int x = 0; x < m_bandRight; ++x)
                m_line[size_t(x)] = column[size_t(x) * 6];
            const auto* bytes = reinterpret_cast<const uint8_t*>(m_line.data());
            m_rows.insert(m_rows.end(), bytes, bytes + stride);
        }
        std::fill(m_band.begin(), m_band.begin() + std::ptrdiff_t(m_bandRight) * 6, 0u);
        // The line keeps zeros past the widest band so far, which later bands never write.
        std::fill(m_line.begin(), m_line.begin() + m_bandRight, 0u);
        m_bandRight = 0;
        m_bandBottom = 0;
    }

    int width() const { return m_width; }
    int height() const { return m_height; }

    // The picture, `width` by `height`, with undrawn pixels set to `background`. The rows
    // become the picture's when their stride already is its width, as it is when the
    // program said the size up front.
    RgbaImage take(int width, int height, uint32_t background) {
        RgbaImage out;
        out.width = width;
        out.height = height;
        const size_t bytes = size_t(width) * size_t(height) * 4;
        if (width == m_rowsWidth) {
            m_rows.resize(bytes, 0);
            out.rgba = std::move(m_rows);
        } else {
            out.rgba.assign(bytes, 0);
            const size_t rows = m_rowsWidth > 0 ? m_rows.size() / (size_t(m_rowsWidth) * 4) : 0;
            for (size_t y = 0; y < std::min(rows, size_t(height)); ++y)
                std::memcpy(out.rgba.data() + y * size_t(width) * 4,
                            m_rows.data() + y * size_t(m_rowsWidth) * 4,
                            size_t(std::min(width, m_rowsWidth)) * 4);
        }
        if (background != 0) {
            for (size_t at = 0; at < bytes; at += 4) {
                uint32_t pixel = 0;
                std::memcpy(&pixel, out.rgba.data() + at, 4);
                if (pixel == 0)
                    std::memcpy(out.rgba.data() + at, &background, 4);
            }
        }
        return out;
    }

private:
    void growBand(int width) {
        const int grown = std::min(std::max(width, m_bandCapacity * 2), kSixelMaxWidth);
        m_band.resize(size_t(grown) * 6, 0);
        m_bandCapacity = grown;
    }

    // Widens the rows drawn so far to a new stride.
    void restride(int width) {
        m_line.resize(size_t(width), 0);
        if (m_rows.empty()) {
            m_rowsWidth = width; // nothing to move, and any reservation is kept
            return;
        }
        const size_t rows = m_rows.size() / (size_t(m_rowsWidth) * 4);
        std::vector<uint8_t> wider(rows * size_t(width) * 4, 0);
        for (size_t y = 0; y < rows; ++y)
            std::memcpy(wider.data() + y * size_t(width) * 4, m_rows.data() + y * size_t(m_rowsWidth) * 4,
                        size_t(m_rowsWidth) * 4);
        m_rows = std::move(wider);
        m_rowsWidth = width;
    }

    std::vector<uint32_t> m_band;
    int m_bandCapacity = 0;
    int m_bandRight = 0;
    int m_bandBottom = 0;
    std::vector<uint8_t> m_rows;
    std::vector<uint32_t> m_line; // one row of the band on its way to the rows
    int m_rowsWidth = 0;
    int m_width = 0;
    int m_height = 0;
};

} // namespace

uint32_t sixelRgba(int r, int g, int b) {
    return 0xFF000000u | (uint32_t(b & 0xFF) << 16) | (uint32_t(g & 0xFF) << 8) | uint32_t(r & 0xFF);
}

uint32_t hlsToRgb(int hue, int lightness, int saturation) {
    // DEC's wheel starts at blue; the usual formula starts at red, 120 degrees later.
    const double h = double(((hue + 240) % 360 + 360) % 360) / 360.0;
    const double l = std::clamp(lightness, 0, 100) / 100.0;
    const double s = std::clamp(saturation, 0, 100) / 100.0;
    if (s == 0) {
        const int v = int(l * 255 + 0.5);
        return sixelRgba(v, v, v);
    }
    const double q = l < 0.5 ? l * (1 + s) : l + s - l * s;
    const double p = 2 * l - q;
    auto channel = [&](double t) {
        t = t < 0 ? t + 1 : (t > 1 ? t - 1 : t);
        double v = p;
        if (t < 1.0 / 6)
            v = p + (q - p) * 6 * t;
        else if (t < 0.5)
            v = q;
        else if (t < 2.0 / 3)
            v = p + (q - p) * (2.0 / 3 - t) * 6;
        return int(v * 255 + 0.5);
    };
    return sixelRgba(channel(h + 1.0 / 3), channel(h), channel(h - 1.0 / 3));
}

std::optional<RgbaImage> decodeSixel(std::span<const uint8_t> body, bool transparentBackground) {
    const uint8_t* at = body.data();
    const uint8_t* const end = at + body.size();
    std::array<uint32_t, kSixelRegisters> palette{};
    for (size_t i = 0; i < kVt340Palette.size(); ++i)
        palette[i] = sixelRgba(percentTo255(kVt340Palette[i][0]), percentTo255(kVt340Palette[i][1]),
                               percentTo255(kVt340Palette[i][2]));
    for (size_t i = kVt340Palette.size(); i < palette.size(); ++i)
        palette[i] = sixelRgba(0, 0, 0);
    std::array<int, kMaxParameters> p{};
    // Raster attributes before the first sixel give the size; they come first in practice.
    int rasterWidth = 0;
    int rasterHeight = 0;
    if (at < end && *at == '"') {
        ++at;
        readParameters(at, end, p);
        rasterWidth = std::clamp(p[2], 0, kSixelMaxWidth);
        rasterHeight = std::clamp(p[3], 0, kSixelMaxHeight);
    }
    Canvas canvas(rasterWidth, rasterHeight);
    uint32_t colour = palette[0];
    int x = 0;
    int y = 0; // top row of the current band
    // Rows of the band that lie inside the largest picture allowed.
    unsigned rowMask = 0x3F;
    auto sixel = [&](unsigned bits, int count) {
        bits &= rowMask;
        const int n = std::min(count, kSixelMaxWidth - x);
        if (bits != 0 && n > 0)
            canvas.draw(bits, x, n, colour);
        x = std::min(x + count, kSixelMaxWidth);
    };
    while (at < end) {
        const uint8_t c = *at++;
        if (c >= '?' && c <= '~') {
            const uint8_t* run = at - 1;
            while (at < end && *at >= '?' && *at <= '~')
                ++at;
            const int length = std::min(int(at - run), kSixelMaxWidth - x);
            if (length > 0)
                canvas.drawRun(run, length, x, rowMask, colour);
            x = std::min(x + int(at - run), kSixelMaxWidth);
            continue;
        }
        switch (c) {
        case '!': {
            const int count = readNumber(at, end);
            if (at < end && *at >= '?' && *at <= '~')
                sixel(unsigned(*at++ - '?'), std::max(1, count));
            break;
        }
        case '$':
            x = 0;
            break;
        case '-':
            canvas.endBand(y);
            x = 0;
            y += 6;
            if (y >= kSixelMaxHeight)
                at = end; // nothing below the largest picture can show
            rowMask = y + 6 <= kSixelMaxHeight ? 0x3Fu : (1u << (kSixelMaxHeight - y)) - 1;
            break;
        case '#': {
            // Selecting a register is far more common than defining one.
            const uint8_t* start = at;
            const int number = readNumber(at, end);
            if (at >= end || *at != ';') {
                colour = palette[size_t(std::clamp(number, 0, kSixelRegisters - 1))];
                break;
            }
            at = start;
            const int count = readParameters(at, end, p);
            const size_t index = size_t(std::clamp(p[0], 0, kSixelRegisters - 1));
            if (count >= 5 && p[1] == 2)
                palette[index] = sixelRgba(percentTo255(p[2]), percentTo255(p[3]), percentTo255(p[4]));
            else if (count >= 5 && p[1] == 1)
                palette[index] = hlsToRgb(p[2], p[3], p[4]);
            colour = palette[index];
            break;
        }
        case '"':
            readParameters(at, end, p);
            break;
        default:
            break; // anything else in the body is ignored
        }
    }
    canvas.endBand(y);
    const int width = std::max(canvas.width(), rasterWidth);
    const int height = std::max(canvas.height(), rasterHeight);
    if (canvas.width() == 0 || height <= 0)
        return std::nullopt;
    return canvas.take(width, height, transparentBackground ? 0 : palette[0]);
}

} // namespace termkit
