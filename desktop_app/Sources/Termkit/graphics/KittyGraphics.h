#pragma once
// The kitty graphics protocol's state: stored images, placements, the chunked transfer in
// progress, and the commands that change them.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Termkit/graphics/ImageCells.h"
#include "Termkit/graphics/ImageCodec.h"
#include "Termkit/graphics/KittyGraphicsControl.h"

namespace termkit {

class Terminal;

/// The most a payload may decode or inflate to; anything larger is refused whole.
inline constexpr size_t kKittyPayloadLimitBytes = 419430400;
/// How deep placements relative to placements may nest.
inline constexpr int kKittyMaxRelativeDepth = 8;
/// The most cells a placement may span in either direction.
inline constexpr int kKittyMaxPlacementCells = 10000;

/// A stored image. Its pixels are shared with the slices on the lines that show it.
struct KittyGraphicsImage {
    std::shared_ptr<const RgbaImage> payload;
    bool wasPng = false;
    size_t byteSize = 0;
    uint64_t lastAccessTick = 0;
};

/// Identifies a placement.
struct KittyPlacementKey {
    uint32_t imageId = 0;
    uint32_t placementId = 0;
    auto operator<=>(const KittyPlacementKey&) const = default;
};

/// What is kept of a placement. Its rows live on the lines; `token` expires when the last
/// of them is erased or recycled.
struct KittyPlacementRecord {
    uint32_t imageId = 0;
    uint32_t placementId = 0;
    std::optional<uint32_t> parentImageId;
    std::optional<uint32_t> parentPlacementId;
    int parentOffsetH = 0;
    int parentOffsetV = 0;
    int pixelOffsetX = 0;
    int pixelOffsetY = 0;
    int col = 0;
    int row = 0;
    int cols = 0;
    int rows = 0;
    int zIndex = 0;
    bool isVirtual = false;
    bool isAlternateBuffer = false;
    uint64_t sequence = 0; // order of placing, which breaks ties of z-index
    std::weak_ptr<PlacementToken> token;
    /// The command that made it, to place it again when its parent moves.
    KittyGraphicsControl control;
};

/// A chunked transfer in progress: the first chunk's control and the base64 so far.
struct KittyGraphicsPending {
    KittyGraphicsControl control;
    std::string base64Payload;
};

/// One terminal's kitty graphics. Single-threaded, like the terminal.
class KittyGraphicsState {
public:
    /// The bytes of an APC `G` string after the `G`.
    void handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data);
    /// Runs one complete command.
    void processKittyGraphics(Terminal& terminal, const KittyGraphicsControl& control,
                              std::string_view base64Payload);
    /// Forgets the transfer in progress (soft reset).
    void clearKittyImages();
    /// Forgets everything (hard reset).
    void clearAllKittyImages();
    /// Places decoded pixels at the cursor as a non-kitty image (sixel, inline images) and
    /// moves the cursor below it; returns the id it shows under.
    uint32_t placeForeignImage(Terminal& terminal, std::shared_ptr<const RgbaImage> pixels,
                               ImageSource source, double widthInCells, double heightInCells);

    /// Whether programs may send pictures by file, temporary file or shared memory; a host
    /// turns it off for programs it does not trust with the local file system.
    void setLocalTransmissionAllowed(bool allowed) { m_localTransmissionAllowed = allowed; }

    // Reading, for hosts and tests.
    const std::unordered_map<uint32_t, KittyGraphicsImage>& imagesById() const { return m_imagesById; }
    const std::unordered_map<uint32_t, uint32_t>& imageNumbers() const { return m_imageNumbers; }
    const std::map<KittyPlacementKey, KittyPlacementRecord>& placementsByKey() const {
        return m_placementsByKey;
    }
    const std::optional<KittyGraphicsPending>& pending() const { return m_pending; }
    size_t totalImageBytes() const { return m_totalImageBytes; }
    /// Drops the records of placements whose rows are all gone from the lines.
    void prunePlacements();
    /// Whether any virtual placement exists, which placeholder cells could show.
    bool hasVirtualPlacements() const { return !m_virtualTokens.empty(); }
    /// The virtual placement placeholder cells name; placement id 0 takes the image's virtual
    /// placement with the lowest id. Nothing when there is none.
    const KittyPlacementRecord* virtualPlacement(uint32_t imageId, uint32_t placementId) const;

private:
    struct Outcome {
        std::string error; // empty: success
        std::optional<uint32_t> imageId;
    };
    Outcome handleKittyTransmit(Terminal& terminal, const KittyGraphicsControl& control,
                                std::string_view base64, bool display);
    Outcome handleKittyPut(Terminal& terminal, const KittyGraphicsControl& control);
    Outcome handleKittyDelete(Terminal& terminal, const KittyGraphicsControl& control);
    Outcome handleKittyQuery(const KittyGraphicsControl& control, std::string_view base64);
    std::string loadAndDecode(const KittyGraphicsControl& control, std::string_view base64, RgbaImage& out,
                              bool& wasPng);
    uint32_t storeKittyImage(Terminal& terminal, const KittyGraphicsControl& control, RgbaImage image,
                             bool wasPng);
    void enforceKittyImageCacheLimit(Terminal& terminal, size_t limit, uint32_t keep);
    void attachSlices(Terminal& terminal, const ImageSlice& base, int row, bool movesCursor);
    std::string displayKittyImage(Terminal& terminal, const KittyGraphicsControl& control, uint32_t imageId);
    std::string resolveKittyPlacementOrigin(Terminal& terminal, const KittyGraphicsControl& control, int& col,
                                            int& row);
    void removePlacement(Terminal& terminal, const KittyPlacementKey& key);
    void updateKittyRelativePlacementsForCurrentBuffer(Terminal& terminal, const KittyPlacementKey& parent);
    void cleanupUnusedKittyImages(const std::vector<uint32_t>& candidates);
    void removeImage(uint32_t imageId);
    void reply(Terminal& terminal, const KittyGraphicsControl& control, std::optional<uint32_t> imageId,
               const std::string& error);

    std::unordered_map<uint32_t, KittyGraphicsImage> m_imagesById;
    std::unordered_map<uint32_t, uint32_t> m_imageNumbers;
    uint32_t m_nextImageId = 1;
    uint32_t m_nextPlacementId = 1;
    std::optional<KittyGraphicsPending> m_pending;
    bool m_pendingOverflow = false;
    bool m_localTransmissionAllowed = true;
    // Virtual placements have no lines to keep their token alive; the store keeps it.
    std::map<KittyPlacementKey, std::shared_ptr<PlacementToken>> m_virtualTokens;
    std::map<KittyPlacementKey, KittyPlacementRecord> m_placementsByKey;
    size_t m_totalImageBytes = 0;
    uint64_t m_nextImageAccessTick = 1;
    uint64_t m_nextSequence = 1;
    int m_relativeDepth = 0;
    // Images from sixel and inline images are numbered apart from kitty's.
    uint32_t m_nextForeignImageId = 1;
};

} // namespace termkit
