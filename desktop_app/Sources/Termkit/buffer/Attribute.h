#pragma once
// Colours and style of a cell.

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace termkit {

/// Style bits of a cell.
struct CharacterStyle {
    uint8_t bits = 0;
    static constexpr uint8_t bold = 1;
    static constexpr uint8_t underline = 2;
    static constexpr uint8_t blink = 4;
    static constexpr uint8_t inverse = 8;
    static constexpr uint8_t invisible = 16;
    static constexpr uint8_t dim = 32;
    static constexpr uint8_t italic = 64;
    static constexpr uint8_t crossedOut = 128;

    constexpr bool contains(uint8_t flag) const { return (bits & flag) != 0; }
    constexpr void insert(uint8_t flag) { bits = static_cast<uint8_t>(bits | flag); }
    constexpr void remove(uint8_t flag) { bits = static_cast<uint8_t>(bits & ~flag); }
    constexpr bool operator==(const CharacterStyle&) const = default;
};

/// Shape of the underline.
enum class UnderlineStyle : uint8_t { none = 0, single = 1, double_ = 2, curly = 3, dotted = 4, dashed = 5 };

/// Colours, style bits, underline shape and underline colour of a cell.
struct Attribute {
    /// A colour by palette index, by value, or the terminal's default (plain or inverted).
    struct Color {
        enum class Kind : uint8_t { defaultColor, defaultInvertedColor, ansi256, trueColor };
        Kind kind = Kind::defaultColor;
        uint8_t red = 0; // the palette index for ansi256
        uint8_t green = 0;
        uint8_t blue = 0;

        static constexpr Color defaultColor() { return {}; }
        static constexpr Color defaultInvertedColor() { return {Kind::defaultInvertedColor, 0, 0, 0}; }
        static constexpr Color ansi256(uint8_t code) { return {Kind::ansi256, code, 0, 0}; }
        static constexpr Color trueColor(uint8_t r, uint8_t g, uint8_t b) {
            return {Kind::trueColor, r, g, b};
        }
        constexpr uint8_t code() const { return red; }
        constexpr bool operator==(const Color&) const = default;
        /// The four bytes as one number.
        constexpr uint32_t packed() const { return std::bit_cast<uint32_t>(*this); }
    };

    /// An optional colour kept as plain bytes (zero when absent), so that attributes compare
    /// and hash as raw memory.
    class OptionalColor {
    public:
        constexpr OptionalColor() = default;
        constexpr OptionalColor(std::nullopt_t) {}
        constexpr OptionalColor(Color c) : m_value(c), m_present(true) {}
        constexpr bool has_value() const { return m_present; }
        constexpr explicit operator bool() const { return m_present; }
        constexpr const Color& operator*() const { return m_value; }
        constexpr const Color* operator->() const { return &m_value; }
        constexpr void reset() { *this = OptionalColor(); }
        constexpr bool operator==(const OptionalColor&) const = default;

    private:
        Color m_value{Color::Kind::defaultColor, 0, 0, 0};
        bool m_present = false;
    };

    Color fg;
    Color bg;
    CharacterStyle style;
    UnderlineStyle underlineStyle = UnderlineStyle::none;
    OptionalColor underlineColor;

    /// Field by field: the record is often compared right after its fields were written one
    /// by one, and a wide load over narrow stores would stall on store forwarding.
    bool operator==(const Attribute& other) const {
        return fg.packed() == other.fg.packed() && bg.packed() == other.bg.packed() &&
               style.bits == other.style.bits && underlineStyle == other.underlineStyle &&
               underlineColor == other.underlineColor;
    }

    /// The attribute as SGR parameters (without the final `m`), starting with the reset `0`;
    /// colours use the `38;5;n` and `38;2;r;g;b` forms.
    std::string toSgr() const;

    /// A 64-bit digest of every field.
    uint64_t hash() const;
};

static_assert(sizeof(Attribute) == 15, "an attribute must have no padding bytes");

/// Default colours, no style, no underline, no underline colour.
inline constexpr Attribute kEmptyAttribute{};

} // namespace termkit
