#pragma once
// The control part of one kitty graphics command: `key=value` pairs before the first `;`.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace termkit {

/// One parsed command, each field with the protocol's default.
struct KittyGraphicsControl {
    char action = 't';
    int suppressResponses = 0;
    int format = 32;
    char transmission = 'd';
    int width = 0;
    int height = 0;
    int cropX = 0;
    int cropY = 0;
    int cropWidth = 0;
    int cropHeight = 0;
    long long dataSize = 0;
    long long dataOffset = 0;
    std::optional<uint32_t> imageId;
    std::optional<uint32_t> imageNumber;
    std::optional<uint32_t> placementId;
    std::optional<uint32_t> parentImageId;
    std::optional<uint32_t> parentPlacementId;
    int offsetH = 0;
    int offsetV = 0;
    int pixelOffsetX = 0;
    int pixelOffsetY = 0;
    int unicodePlaceholder = 0;
    int zIndex = 0;
    int more = 0;
    std::optional<char> compression;
    int columns = 0;
    int rows = 0;
    int cursorPolicy = 0;
    std::optional<char> deleteMode;

    /// Parses the control part of `data` (up to the first `;`); `payload` gets what follows
    /// it. A pair without `=`, with a key that is not one ASCII letter, or with non-ASCII
    /// bytes is dropped; a number that does not parse leaves the default.
    static KittyGraphicsControl parse(std::span<const uint8_t> data, std::string_view* payload = nullptr);
};

} // namespace termkit
