#pragma once
// Decoding and encoding what image protocols carry: base64, zlib streams and PNG files.
// Every decoder takes a limit on what it may produce, so a hostile stream cannot make the
// terminal allocate more than the caller allows.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace termkit {

/// Pixels as 8-bit RGBA rows, top to bottom, alpha not premultiplied.
struct RgbaImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;
    size_t byteSize() const { return rgba.size(); }
};

/// Standard base64 (padding optional and allowed between groups, whitespace skipped);
/// nothing for any other byte or a result over `limit` bytes.
std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text, size_t limit);

/// Inflates a zlib stream; nothing when it is broken, truncated or inflates past `limit`.
std::optional<std::vector<uint8_t>> decompressZlib(std::span<const uint8_t> data, size_t limit);

/// Width and height from a PNG header, or nothing when the bytes are not a PNG.
std::optional<std::pair<int, int>> pngPixelSize(std::span<const uint8_t> data);

/// Decodes a PNG of any colour type and depth into RGBA; nothing when it is broken or its
/// pixels would take more than `limit` bytes.
std::optional<RgbaImage> decodePngToRgba(std::span<const uint8_t> data, size_t limit);

/// Encodes RGBA pixels as a PNG file's bytes.
std::vector<uint8_t> encodePng(const RgbaImage& image);

} // namespace termkit
