#pragma once
// A terminal with the image protocols, a host that keeps its replies, and small pictures.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/ImageCells.h"
#include "Termkit/graphics/ImageCodec.h"
#include "Termkit/graphics/TerminalGraphics.h"

namespace termkit::testing {

/// Keeps every reply as text and reports a fixed cell size.
class GraphicsHost : public TerminalDelegate {
public:
    std::vector<std::string> replies;
    std::pair<int, int> cell{10, 20};
    std::vector<std::string> iTermBodies;
    void send(Terminal&, std::span<const uint8_t> data) override {
        replies.emplace_back(data.begin(), data.end());
    }
    std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) override { return cell; }
    void iTermContent(Terminal&, std::span<const uint8_t> content) override {
        iTermBodies.emplace_back(content.begin(), content.end());
    }
};

/// A terminal wired to its graphics, of the given size.
struct GraphicsTerminal {
    GraphicsHost host;
    TerminalGraphics graphics;
    std::unique_ptr<Terminal> terminal;
    explicit GraphicsTerminal(int cols = 20, int rows = 10, int scrollback = 50,
                              long long cacheLimit = 335544320) {
        TerminalOptions options;
        options.cols = cols;
        options.rows = rows;
        options.scrollback = scrollback;
        options.kittyImageCacheLimitBytes = cacheLimit;
        terminal = std::make_unique<Terminal>(&host, options, nullptr, &graphics);
        terminal->setSilentLog(true);
        graphics.attach(*terminal);
    }
    void feed(std::string_view bytes) { terminal->feed(bytes); }
    KittyGraphicsState& kitty() { return graphics.kitty(); }
    std::vector<VisiblePlacement> placements() const { return visiblePlacements(*terminal); }
};

/// A picture whose every pixel tells its position: red = x * 255 / (w - 1), green = y * 255 /
/// (h - 1), blue a fixed 64, opaque.
inline RgbaImage gradient(int width, int height) {
    RgbaImage image;
    image.width = width;
    image.height = height;
    image.rgba.resize(size_t(width) * size_t(height) * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t* p = &image.rgba[(size_t(y) * width + x) * 4];
            p[0] = uint8_t(width > 1 ? x * 255 / (width - 1) : 0);
            p[1] = uint8_t(height > 1 ? y * 255 / (height - 1) : 0);
            p[2] = 64;
            p[3] = 255;
        }
    return image;
}

/// Standard base64 with padding.
inline std::string base64(std::span<const uint8_t> data) {
    static const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        const uint32_t v = (uint32_t(data[i]) << 16) | (uint32_t(data[i + 1]) << 8) | data[i + 2];
        for (int s = 18; s >= 0; s -= 6)
            out += alphabet[(v >> s) & 63];
    }
    if (i + 1 == data.size()) {
        const uint32_t v = uint32_t(data[i]) << 16;
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == data.size()) {
        const uint32_t v = (uint32_t(data[i]) << 16) | (uint32_t(data[i + 1]) << 8);
        out += alphabet[(v >> 18) & 63];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

inline std::string base64(std::string_view text) {
    return base64(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

/// An APC `G` command.
inline std::string apc(std::string_view control, std::string_view payload = {}) {
    std::string out = "\x1b_G";
    out += control;
    if (!payload.empty()) {
        out += ';';
        out += payload;
    }
    out += "\x1b\\";
    return out;
}

/// A kitty reply as the terminal sends it.
inline std::string kittyReply(std::string_view items, std::string_view message) {
    return "\x1b_G" + std::string(items) + ";" + std::string(message) + "\x1b\\";
}

} // namespace termkit::testing
