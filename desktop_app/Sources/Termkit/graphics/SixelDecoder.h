#pragma once
// Decoding a sixel body (what follows `DCS P1;P2;P3 q`) into RGBA pixels.

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "Termkit/graphics/ImageCodec.h"

namespace termkit {

/// The largest picture a sixel stream may draw; drawing beyond is clipped.
inline constexpr int kSixelMaxWidth = 4096;
inline constexpr int kSixelMaxHeight = 4096;
/// Colour registers a stream may define.
inline constexpr int kSixelRegisters = 1024;

/// A colour as 0xAABBGGRR, the byte order of RGBA in memory on a little-endian machine.
uint32_t sixelRgba(int r, int g, int b);
/// DEC's hue, lightness and saturation (hue 0 is blue, 120 red, 240 green) to RGBA.
uint32_t hlsToRgb(int hue, int lightness, int saturation);

/// Decodes one sixel body. Pixels no sixel sets stay transparent (zero) when
/// `transparentBackground`, else they take colour register 0. Nothing for an empty picture.
std::optional<RgbaImage> decodeSixel(std::span<const uint8_t> body, bool transparentBackground);

} // namespace termkit
