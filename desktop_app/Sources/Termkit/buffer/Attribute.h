#pragma once
// Colours and style of a cell.

#include <cstdint>
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
    uint8_t red = 0;  // the palette index for ansi256
    uint8_t green = 0;
    uint8_t blue = 0;

    static constexpr Color defaultColor() { return {}; }
    static constexpr Color defaultInvertedColor() { return {Kind::defaultInvertedColor, 0, 0, 0}; }
    static constexpr Color ansi256(uint8_t code) { return {Kind::ansi256, code, 0, 0}; }
    static constexpr Color trueColor(uint8_t r, uint8_t g, uint8_t b) { return {Kind::trueColor, r, g, b}; }
    constexpr uint8_t code() const { return red; }
    constexpr bool operator==(const Color&) const = default;
    /// The four bytes as one number, for hashing.
    constexpr uint32_t packed() const {
      return static_cast<uint32_t>(kind) << 24 | static_cast<uint32_t>(red) << 16 |
             static_cast<uint32_t>(green) << 8 | blue;
    }
  };

  Color fg;
  Color bg;
  CharacterStyle style;
  UnderlineStyle underlineStyle = UnderlineStyle::none;
  std::optional<Color> underlineColor;

  constexpr bool operator==(const Attribute&) const = default;

  /// The attribute as SGR parameters (without the final `m`), starting with the reset `0`;
  /// colours use the `38;5;n` and `38;2;r;g;b` forms.
  std::string toSgr() const;

  /// A 64-bit digest of every field.
  uint64_t hash() const;
};

/// Default colours, no style, no underline, no underline colour.
inline constexpr Attribute kEmptyAttribute{};

}  // namespace termkit
