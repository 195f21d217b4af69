#include "Termkit/view/render/GlyphAtlas.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

namespace termkit {

namespace {

// A decimal integer with an optional sign and nothing else; anything else counts as unset.
// Values beyond the range of a long long saturate, which the limits clamp anyway.
std::optional<long long> parseSignedDecimal(const char* text) {
    if (text == nullptr || *text == '\0')
        return std::nullopt;
    const char* digits = (*text == '+' || *text == '-') ? text + 1 : text;
    if (*digits == '\0' || std::strspn(digits, "0123456789") != std::strlen(digits))
        return std::nullopt;
    errno = 0;
    const long long value = std::strtoll(text, nullptr, 10);
    if (errno == ERANGE)
        return *text == '-' ? LLONG_MIN : LLONG_MAX;
    return value;
}

} // namespace

GlyphAtlas::GlyphAtlas(GlyphAtlasKind kind, int size, int maxSize, TextureAllocator device, LogSink log)
    : m_kind(kind), m_device(std::move(device)),
      m_format(kind == GlyphAtlasKind::grayscale ? GlyphAtlasFormat::grayscale : GlyphAtlasFormat::bgra),
      m_bytesPerPixel(termkit::bytesPerPixel(m_format)), m_maxSize(std::max(maxSize, kMinimumSize)),
      m_size(std::max(std::min(size, m_maxSize), kMinimumSize)), m_log(std::move(log)) {
    m_data.assign(static_cast<size_t>(m_size) * m_size * m_bytesPerPixel, 0);
}

int GlyphAtlas::recommendedMaxSize(std::optional<int> deviceMaxTextureSize, const char* environmentValue) {
    const int cap = deviceMaxTextureSize && *deviceMaxTextureSize > 0
                        ? std::min(*deviceMaxTextureSize, kLargestDeviceCap)
                        : kDefaultDeviceCap;
    const std::optional<long long> wanted = parseSignedDecimal(environmentValue);
    if (!wanted)
        return std::max(cap, kMinimumSize);
    const long long raised = std::max<long long>(*wanted, kMinimumSize);
    return static_cast<int>(std::max<long long>(std::min<long long>(raised, cap), kMinimumSize));
}

int GlyphAtlas::recommendedMaxSize(std::optional<int> deviceMaxTextureSize) {
    return recommendedMaxSize(deviceMaxTextureSize, std::getenv("TERMKIT_ATLAS_MAX"));
}

std::optional<AtlasRegion> GlyphAtlas::reserve(int width, int height) {
    if (width <= 0 || height <= 0 || width > m_size || height > m_size)
        return std::nullopt;
    int x = m_nextX;
    int y = m_nextY;
    int shelfHeight = m_rowHeight;
    if (x + width > m_size) {
        // The shelf is full: the next one starts below the tallest glyph of this one.
        y += shelfHeight + kPadding;
        x = 0;
        shelfHeight = 0;
    }
    if (y + height > m_size)
        return std::nullopt;
    m_nextX = x + width + kPadding;
    m_nextY = y;
    m_rowHeight = std::max(shelfHeight, height);
    return AtlasRegion{x, y, width, height};
}

std::optional<AtlasRegion> GlyphAtlas::ensureRegion(int width, int height) {
    if (auto region = reserve(width, height))
        return region;
    if (m_frozen) {
        if (!m_loggedFrozenMiss) {
            m_loggedFrozenMiss = true;
            log(std::string("glyph atlas (") + atlasName(m_kind) +
                ") frozen and full; glyphs will be skipped this frame");
        }
        return std::nullopt;
    }
    while (m_size < m_maxSize) {
        if (!grow(std::min(m_size * 2, m_maxSize)))
            break; // a refused texture counts as no room: fall through to the reset
        if (auto region = reserve(width, height))
            return region;
    }
    if (width > m_size || height > m_size)
        return std::nullopt; // no reset could make room for this one
    reset();
    return reserve(width, height);
}

void GlyphAtlas::write(const AtlasRegion& region, const GlyphBitmap& bitmap) {
    const int width = std::min(region.width, bitmap.width);
    const int height = std::min(region.height, bitmap.height);
    const size_t rowBytes = static_cast<size_t>(width) * m_bytesPerPixel;
    if (bitmap.isColor != (m_format == GlyphAtlasFormat::bgra) || rowBytes == 0)
        return;
    for (int row = 0; row < height; ++row) {
        const uint8_t* from =
            bitmap.pixels.data() + static_cast<size_t>(row) * bitmap.width * m_bytesPerPixel;
        uint8_t* to =
            m_data.data() + (static_cast<size_t>(region.y + row) * m_size + region.x) * m_bytesPerPixel;
        std::memcpy(to, from, rowBytes);
    }
    ++m_revision;
}

bool GlyphAtlas::grow(int newSize) {
    newSize = std::min(newSize, m_maxSize);
    if (newSize <= m_size)
        return false;
    if (m_device && !m_device(newSize)) {
        log(std::string("glyph atlas (") + atlasName(m_kind) + ") grow to " + std::to_string(newSize) +
            " failed: texture allocation");
        return false;
    }
    log(std::string("glyph atlas (") + atlasName(m_kind) + ") grow: " + std::to_string(m_size) + " -> " +
        std::to_string(newSize));
    std::vector<uint8_t> grown(static_cast<size_t>(newSize) * newSize * m_bytesPerPixel, 0);
    const size_t oldRow = static_cast<size_t>(m_size) * m_bytesPerPixel;
    const size_t newRow = static_cast<size_t>(newSize) * m_bytesPerPixel;
    for (int row = 0; row < m_size; ++row)
        std::memcpy(grown.data() + row * newRow, m_data.data() + row * oldRow, oldRow);
    m_data = std::move(grown);
    m_size = newSize;
    ++m_revision;
    return true;
}

void GlyphAtlas::reset() {
    if (!m_loggedResetOverflow) {
        m_loggedResetOverflow = true;
        log(std::string("glyph atlas (") + atlasName(m_kind) + ") reset at size " + std::to_string(m_size) +
            ": glyph working set exceeds capacity");
    }
    m_nextX = 0;
    m_nextY = 0;
    m_rowHeight = 0;
    std::fill(m_data.begin(), m_data.end(), 0);
    m_didReset = true;
    ++m_generation;
    ++m_revision;
}

void GlyphAtlas::beginFrame() {
    m_frozen = false;
}

bool GlyphAtlas::takeDidReset() {
    const bool was = m_didReset;
    m_didReset = false;
    return was;
}

void GlyphAtlas::log(std::string_view line) const {
    if (m_log)
        m_log(line);
    else
        logInfo(line);
}

} // namespace termkit
