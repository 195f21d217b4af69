#include "Termkit/engine/Color.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace termkit {

const std::array<Color, 16>& Color::defaultInstalledColors() {
    static const std::array<Color, 16> colors = {
        from8bit(0x00, 0x00, 0x00), from8bit(0x99, 0x00, 0x01), from8bit(0x00, 0xA6, 0x03),
        from8bit(0x99, 0x99, 0x00), from8bit(0x03, 0x00, 0xB2), from8bit(0xB2, 0x00, 0xB2),
        from8bit(0x00, 0xA5, 0xB2), from8bit(0xBF, 0xBF, 0xBF), from8bit(0x8A, 0x89, 0x8A),
        from8bit(0xE5, 0x00, 0x01), from8bit(0x00, 0xD8, 0x00), from8bit(0xE5, 0xE5, 0x00),
        from8bit(0x07, 0x00, 0xFE), from8bit(0xE5, 0x00, 0xE5), from8bit(0x00, 0xE5, 0xE5),
        from8bit(0xE5, 0xE5, 0xE5),
    };
    return colors;
}

namespace {

int hexValue(uint8_t c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Widens a value of `digits` hexadecimal digits to 16 bits. One digit is repeated (so "#fff"
// is white); three digits overlap their two halves (0xABC gives 0xABEB): that is how such
// colours have always been read.
uint16_t scale(int value, int digits) {
    switch (digits) {
    case 1:
        return static_cast<uint16_t>(value * 0x1111);
    case 2:
        return static_cast<uint16_t>(value * 257);
    case 3:
        return static_cast<uint16_t>((value << 4) | (value >> 4));
    default:
        return static_cast<uint16_t>(value);
    }
}

// Reads up to `digits` hexadecimal digits; a non-digit ends the value early.
int readFixed(std::span<const uint8_t> text, size_t start, int digits) {
    int value = 0;
    for (int i = 0; i < digits && start + i < text.size(); ++i) {
        const int d = hexValue(text[start + i]);
        if (d < 0)
            break;
        value = value * 16 + d;
    }
    return value;
}

std::optional<Color> parseHash(std::span<const uint8_t> text) {
    const size_t n = text.size() - 1;
    int digits;
    switch (n) {
    case 3:
        digits = 1;
        break;
    case 6:
        digits = 2;
        break;
    case 9:
        digits = 3;
        break;
    case 12:
        digits = 4;
        break;
    default:
        return std::nullopt;
    }
    const int r = readFixed(text, 1, digits);
    const int g = readFixed(text, 1 + digits, digits);
    const int b = readFixed(text, 1 + 2 * digits, digits);
    return Color(scale(r, digits), scale(g, digits), scale(b, digits));
}

std::optional<Color> parseRgb(std::span<const uint8_t> text) {
    size_t i = 4;
    int values[3] = {0, 0, 0};
    int counts[3] = {0, 0, 0};
    for (int channel = 0; channel < 3; ++channel) {
        while (i < text.size() && counts[channel] < 4) {
            const int d = hexValue(text[i]);
            if (d < 0)
                break;
            values[channel] = values[channel] * 16 + d;
            ++counts[channel];
            ++i;
        }
        // The first non-digit ends the channel and is consumed whatever it is; one further
        // slash is skipped when it stands there.
        if (i < text.size())
            ++i;
        if (i < text.size() && text[i] == '/')
            ++i;
    }
    const int digits = std::max({counts[0], counts[1], counts[2]});
    if (digits == 0)
        return std::nullopt;
    return Color(scale(values[0], digits), scale(values[1], digits), scale(values[2], digits));
}

} // namespace

std::optional<Color> Color::parseColor(std::span<const uint8_t> text) {
    if (!text.empty() && text[0] == '#')
        return parseHash(text);
    static constexpr uint8_t kRgb[] = {'r', 'g', 'b', ':'};
    if (text.size() < 4 || !std::equal(kRgb, kRgb + 4, text.begin()))
        return std::nullopt;
    return parseRgb(text);
}

std::optional<Color> Color::parseColor(std::string_view text) {
    return parseColor(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

std::string Color::formatAsXcolor() const {
    char out[32];
    std::snprintf(out, sizeof out, "rgb:%04x/%04x/%04x", red, green, blue);
    return out;
}

namespace {

constexpr double kWhiteX = 0.95047;
constexpr double kWhiteY = 1.0;
constexpr double kWhiteZ = 1.08883;
constexpr double kEpsilon = 0.008856;

double quantise(uint16_t channel) {
    const double v = std::min(std::round(channel / 65535.0 * 255.0), 255.0);
    return v / 255.0;
}

double linearise(double v) {
    return v > 0.04045 ? std::pow((v + 0.055) / 1.055, 2.4) : v / 12.92;
}

double labF(double t) {
    return t > kEpsilon ? std::cbrt(t) : 7.787 * t + 16.0 / 116.0;
}

double labFInverse(double f) {
    const double cube = f * f * f;
    return cube > kEpsilon ? cube : (f - 16.0 / 116.0) / 7.787;
}

double gammaEncode(double v) {
    return v > 0.0031308 ? 1.055 * std::pow(v, 1.0 / 2.4) - 0.055 : 12.92 * v;
}

uint16_t toChannel(double v) {
    v = std::clamp(v, 0.0, 1.0);
    const int byte = std::min(static_cast<int>(v * 255.0 + 0.5), 255);
    return static_cast<uint16_t>(byte * 257);
}

LabColor lerp(const LabColor& a, const LabColor& b, double t) {
    return {a.l + (b.l - a.l) * t, a.a + (b.a - a.a) * t, a.b + (b.b - a.b) * t};
}

} // namespace

LabColor Color::toLab() const {
    const double r = linearise(quantise(red));
    const double g = linearise(quantise(green));
    const double b = linearise(quantise(blue));
    const double x = (0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / kWhiteX;
    const double y = (0.2126729 * r + 0.7151522 * g + 0.0721750 * b) / kWhiteY;
    const double z = (0.0193339 * r + 0.1191920 * g + 0.9503041 * b) / kWhiteZ;
    const double fx = labF(x);
    const double fy = labF(y);
    const double fz = labF(z);
    return {116.0 * fy - 16.0, 500.0 * (fx - fy), 200.0 * (fy - fz)};
}

Color Color::fromLab(const LabColor& lab) {
    const double fy = (lab.l + 16.0) / 116.0;
    const double fx = fy + lab.a / 500.0;
    const double fz = fy - lab.b / 200.0;
    const double x = labFInverse(fx) * kWhiteX;
    const double y = labFInverse(fy) * kWhiteY;
    const double z = labFInverse(fz) * kWhiteZ;
    const double r = 3.2404542 * x - 1.5371385 * y - 0.4985314 * z;
    const double g = -0.9692660 * x + 1.8760108 * y + 0.0415560 * z;
    const double b = 0.0556434 * x - 0.2040259 * y + 1.0572252 * z;
    return {toChannel(gammaEncode(r)), toChannel(gammaEncode(g)), toChannel(gammaEncode(b))};
}

std::vector<Color> generateXtermPalette(std::span<const Color> initialColors) {
    static constexpr uint8_t kSteps[6] = {0x00, 0x5F, 0x87, 0xAF, 0xD7, 0xFF};
    std::vector<Color> out(initialColors.begin(), initialColors.end());
    for (int r = 0; r < 6; ++r) {
        for (int g = 0; g < 6; ++g) {
            for (int b = 0; b < 6; ++b)
                out.push_back(Color::from8bit(kSteps[r], kSteps[g], kSteps[b]));
        }
    }
    for (int i = 0; i < 24; ++i) {
        const auto v = static_cast<uint8_t>(8 + 10 * i);
        out.push_back(Color::from8bit(v, v, v));
    }
    return out;
}

std::vector<Color> generateBase16LabPalette(std::span<const Color> initialColors,
                                            std::optional<Color> foreground, std::optional<Color> background,
                                            bool harmonious) {
    if (initialColors.size() < 8)
        return generateXtermPalette(initialColors);
    LabColor c[8];
    for (int i = 0; i < 8; ++i)
        c[i] = initialColors[i].toLab();
    if (background)
        c[0] = background->toLab();
    if (foreground)
        c[7] = foreground->toLab();
    // The cube runs from dark to light unless a light theme asked to keep its order.
    if (!harmonious && c[7].l < c[0].l)
        std::swap(c[0], c[7]);

    std::vector<Color> out(initialColors.begin(), initialColors.end());
    for (int r = 0; r < 6; ++r) {
        const double tr = r / 5.0;
        const LabColor e0 = lerp(c[0], c[1], tr);
        const LabColor e1 = lerp(c[2], c[3], tr);
        const LabColor e2 = lerp(c[4], c[5], tr);
        const LabColor e3 = lerp(c[6], c[7], tr);
        for (int g = 0; g < 6; ++g) {
            const double tg = g / 5.0;
            const LabColor f0 = lerp(e0, e1, tg);
            const LabColor f1 = lerp(e2, e3, tg);
            for (int b = 0; b < 6; ++b)
                out.push_back(Color::fromLab(lerp(f0, f1, b / 5.0)));
        }
    }
    // The ramp holds neither end colour: 1/25 to 24/25 of the way.
    for (int i = 1; i <= 24; ++i)
        out.push_back(Color::fromLab(lerp(c[0], c[7], i / 25.0)));
    return out;
}

} // namespace termkit
