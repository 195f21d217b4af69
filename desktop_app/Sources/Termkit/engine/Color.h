#pragma once
// Colours with 16-bit channels, the 256-colour palettes, and colour specifications.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace termkit {

/// A colour in CIE L*a*b*.
struct LabColor {
    double l = 0;
    double a = 0;
    double b = 0;
};

/// How palette entries 16 to 255 are made from the 16 installed colours.
enum class Ansi256PaletteStrategy : uint8_t { xterm, base16Lab, base16LabHarmonious };

/// An RGB colour with three 16-bit channels.
struct Color {
    uint16_t red = 0;
    uint16_t green = 0;
    uint16_t blue = 0;

    constexpr Color() = default;
    constexpr Color(uint16_t r, uint16_t g, uint16_t b) : red(r), green(g), blue(b) {}
    /// From 8-bit channels: each value v becomes v * 257, so 0x37 gives 0x3737.
    static constexpr Color from8bit(uint8_t r, uint8_t g, uint8_t b) {
        return {static_cast<uint16_t>(r * 257), static_cast<uint16_t>(g * 257),
                static_cast<uint16_t>(b * 257)};
    }
    constexpr bool operator==(const Color&) const = default;

    /// The 16 colours of a new terminal.
    static const std::array<Color, 16>& defaultInstalledColors();
    /// Reads "#rgb" (3, 6, 9 or 12 digits) or "rgb:r/g/b" (1 to 4 digits a channel). The
    /// reading is lax on purpose: a non-digit ends a channel early, and any character
    /// separates channels in the rgb: form.
    static std::optional<Color> parseColor(std::span<const uint8_t> text);
    static std::optional<Color> parseColor(std::string_view text);
    /// "rgb:rrrr/gggg/bbbb" in lowercase hexadecimal.
    std::string formatAsXcolor() const;

    /// sRGB to L*a*b* (D65), on the colour quantised to 8 bits a channel.
    LabColor toLab() const;
    /// L*a*b* back to sRGB, 8 bits a channel widened to 16.
    static Color fromLab(const LabColor& lab);
};

/// The given colours, then xterm's 6x6x6 cube, then its 24 greys.
std::vector<Color> generateXtermPalette(std::span<const Color> initialColors);
/// The given colours, then a cube and a grey ramp interpolated in L*a*b* between the
/// first eight (with the background and foreground standing in for black and white).
std::vector<Color> generateBase16LabPalette(std::span<const Color> initialColors,
                                            std::optional<Color> foreground, std::optional<Color> background,
                                            bool harmonious);

} // namespace termkit
