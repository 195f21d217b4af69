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

// What the first pass learns: the picture's size.
struct Extent {
    int width = 0;
    int height = 0;
};

// Walks the body once without drawing, to size the pixels before the drawing pass.
Extent measure(const uint8_t* at, const uint8_t* end) {
    Extent extent;
    std::array<int, kMaxParameters> p{};
    int x = 0;
    int band = 0;
    int rasterWidth = 0;
    int rasterHeight = 0;
    while (at < end) {
        const uint8_t c = *at++;
        if (c >= '?' && c <= '~') {
            ++x;
            if (c != '?') {
                extent.width = std::max(extent.width, x);
                const int top = 32 - __builtin_clz(unsigned(c - '?'));
                extent.height = std::max(extent.height, band * 6 + top);
            }
        } else if (c == '!') {
            readParameters(at, end, p);
            if (at < end && *at >= '?' && *at <= '~') {
                const uint8_t s = *at++;
                x += std::max(1, p[0]);
                if (s != '?') {
                    extent.width = std::max(extent.width, x);
                    extent.height = std::max(extent.height, band * 6 + 32 - __builtin_clz(unsigned(s - '?')));
                }
            }
        } else if (c == '$') {
            x = 0;
        } else if (c == '-') {
            x = 0;
            ++band;
        } else if (c == '"') {
            readParameters(at, end, p);
            rasterWidth = p[2];
            rasterHeight = p[3];
        } else if (c == '#') {
            readParameters(at, end, p);
        }
    }
    extent.width = std::min(std::max(extent.width, rasterWidth), kSixelMaxWidth);
    extent.height = std::min(std::max(extent.height, rasterHeight), kSixelMaxHeight);
    return extent;
}

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
    const uint8_t* const begin = body.data();
    const uint8_t* const end = begin + body.size();
    const Extent extent = measure(begin, end);
    if (extent.width <= 0 || extent.height <= 0)
        return std::nullopt;
    std::vector<uint32_t> palette(kSixelRegisters, sixelRgba(0, 0, 0));
    for (size_t i = 0; i < kVt340Palette.size(); ++i)
        palette[i] = sixelRgba(percentTo255(kVt340Palette[i][0]), percentTo255(kVt340Palette[i][1]),
                               percentTo255(kVt340Palette[i][2]));
    const int width = extent.width;
    const int height = extent.height;
    std::vector<uint32_t> pixels(size_t(width) * size_t(height), 0);
    // Which pixels a sixel set, for the opaque background; only kept when it is needed.
    std::vector<uint8_t> set(transparentBackground ? 0 : pixels.size(), 0);

    std::array<int, kMaxParameters> p{};
    uint32_t colour = palette[0];
    int x = 0;
    int y = 0; // top row of the current band
    auto draw = [&](unsigned bits, int count) {
        const int n = std::min(count, width - x);
        if (n > 0 && bits != 0) {
            for (int b = 0; b < 6 && y + b < height; ++b) {
                if (!(bits & (1u << b)))
                    continue;
                uint32_t* row = pixels.data() + size_t(y + b) * size_t(width) + size_t(x);
                std::fill(row, row + n, colour);
                if (!set.empty())
                    std::memset(set.data() + size_t(y + b) * size_t(width) + size_t(x), 1, size_t(n));
            }
        }
        x += count;
    };
    const uint8_t* at = begin;
    while (at < end) {
        const uint8_t c = *at++;
        if (c >= '?' && c <= '~') {
            draw(c - '?', 1);
        } else if (c == '!') {
            readParameters(at, end, p);
            if (at < end && *at >= '?' && *at <= '~')
                draw(*at++ - '?', std::max(1, p[0]));
        } else if (c == '$') {
            x = 0;
        } else if (c == '-') {
            x = 0;
            y += 6;
            if (y >= height)
                break;
        } else if (c == '#') {
            const int count = readParameters(at, end, p);
            const int index = std::clamp(p[0], 0, kSixelRegisters - 1);
            if (count >= 5 && p[1] == 2)
                palette[size_t(index)] =
                    sixelRgba(percentTo255(p[2]), percentTo255(p[3]), percentTo255(p[4]));
            else if (count >= 5 && p[1] == 1)
                palette[size_t(index)] = hlsToRgb(p[2], p[3], p[4]);
            colour = palette[size_t(index)];
        } else if (c == '"') {
            readParameters(at, end, p);
        }
        if (x > width)
            x = width; // later sixels on this row fall outside the picture
    }
    if (!transparentBackground)
        for (size_t i = 0; i < pixels.size(); ++i)
            if (!set[i])
                pixels[i] = palette[0];
    RgbaImage out;
    out.width = width;
    out.height = height;
    out.rgba.resize(pixels.size() * 4);
    std::memcpy(out.rgba.data(), pixels.data(), out.rgba.size());
    return out;
}

} // namespace termkit
