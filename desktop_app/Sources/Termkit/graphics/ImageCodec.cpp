#include "Termkit/graphics/ImageCodec.h"

#include <array>
#include <cstring>

#include <png.h>
#include <zlib.h>

namespace termkit {

namespace {

constexpr uint8_t kBase64Invalid = 0xFF;
constexpr uint8_t kBase64Skip = 0xFE;
constexpr uint8_t kBase64Padding = 0xFD;

constexpr std::array<uint8_t, 256> makeBase64Table() {
    std::array<uint8_t, 256> table{};
    for (auto& v : table)
        v = kBase64Invalid;
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i)
        table[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
    for (char c : {' ', '\t', '\r', '\n'})
        table[static_cast<uint8_t>(c)] = kBase64Skip;
    table[static_cast<uint8_t>('=')] = kBase64Padding;
    return table;
}

constexpr std::array<uint8_t, 256> kBase64Table = makeBase64Table();

constexpr size_t kInflateChunk = 64 * 1024;

} // namespace

std::optional<std::vector<uint8_t>> decodeBase64(std::string_view text, size_t limit) {
    if (text.size() / 4 * 3 > limit + 3)
        return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3 + 3);
    uint32_t accumulator = 0;
    int bits = 0;
    for (const char ch : text) {
        const uint8_t v = kBase64Table[static_cast<uint8_t>(ch)];
        if (v == kBase64Skip)
            continue;
        if (v == kBase64Padding) {
            // Padding ends a group. Programs that send in chunks pad each chunk, so the
            // concatenated text may carry padding in the middle: the next group starts afresh.
            bits = 0;
            accumulator = 0;
            continue;
        }
        if (v == kBase64Invalid)
            return std::nullopt;
        accumulator = (accumulator << 6) | v;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>(accumulator >> bits));
        }
    }
    if (out.size() > limit)
        return std::nullopt;
    return out;
}

std::optional<std::vector<uint8_t>> decompressZlib(std::span<const uint8_t> data, size_t limit) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK)
        return std::nullopt;
    std::vector<uint8_t> out;
    stream.next_in = const_cast<Bytef*>(data.data());
    stream.avail_in = static_cast<uInt>(data.size());
    int status = Z_OK;
    while (status == Z_OK) {
        if (out.size() >= limit + 1) {
            status = Z_BUF_ERROR;
            break;
        }
        const size_t have = out.size();
        const size_t grow = std::min(kInflateChunk, limit + 1 - have);
        out.resize(have + grow);
        stream.next_out = out.data() + have;
        stream.avail_out = static_cast<uInt>(grow);
        status = inflate(&stream, Z_NO_FLUSH);
        out.resize(have + grow - stream.avail_out);
        if (status == Z_BUF_ERROR && stream.avail_in == 0)
            break; // truncated input: no more to give and no end of stream
        if (status == Z_BUF_ERROR)
            status = Z_OK;
    }
    inflateEnd(&stream);
    if (status != Z_STREAM_END || out.size() > limit)
        return std::nullopt;
    return out;
}

std::optional<std::pair<int, int>> pngPixelSize(std::span<const uint8_t> data) {
    // Signature (8), IHDR length and type (8), then width and height, big-endian.
    static constexpr uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (data.size() < 24 || std::memcmp(data.data(), kSignature, 8) != 0 ||
        std::memcmp(data.data() + 12, "IHDR", 4))
        return std::nullopt;
    auto be32 = [&](size_t at) {
        return (uint32_t(data[at]) << 24) | (uint32_t(data[at + 1]) << 16) | (uint32_t(data[at + 2]) << 8) |
               uint32_t(data[at + 3]);
    };
    const uint32_t w = be32(16);
    const uint32_t h = be32(20);
    if (w == 0 || h == 0 || w > 0x7FFFFFFF || h > 0x7FFFFFFF)
        return std::nullopt;
    return std::pair<int, int>(static_cast<int>(w), static_cast<int>(h));
}

std::optional<RgbaImage> decodePngToRgba(std::span<const uint8_t> data, size_t limit) {
    const auto size = pngPixelSize(data);
    if (!size || uint64_t(size->first) * uint64_t(size->second) * 4 > limit)
        return std::nullopt;
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&image, data.data(), data.size()))
        return std::nullopt;
    image.format = PNG_FORMAT_RGBA;
    RgbaImage out;
    out.width = static_cast<int>(image.width);
    out.height = static_cast<int>(image.height);
    if (uint64_t(out.width) * uint64_t(out.height) * 4 > limit) {
        png_image_free(&image);
        return std::nullopt;
    }
    out.rgba.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, out.rgba.data(), 0, nullptr)) {
        png_image_free(&image);
        return std::nullopt;
    }
    return out;
}

std::vector<uint8_t> encodePng(const RgbaImage& source) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = static_cast<png_uint_32>(source.width);
    image.height = static_cast<png_uint_32>(source.height);
    image.format = PNG_FORMAT_RGBA;
    png_alloc_size_t size = 0;
    if (!png_image_write_to_memory(&image, nullptr, &size, 0, source.rgba.data(), 0, nullptr))
        return {};
    std::vector<uint8_t> out(size);
    if (!png_image_write_to_memory(&image, out.data(), &size, 0, source.rgba.data(), 0, nullptr))
        return {};
    out.resize(size);
    return out;
}

} // namespace termkit
