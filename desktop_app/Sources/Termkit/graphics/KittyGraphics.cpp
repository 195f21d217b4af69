#include "Termkit/graphics/KittyGraphics.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <functional>
#include <set>
#include <tuple>

#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/KittyPayloadLoader.h"

namespace termkit {

namespace {

int ceilDiv(long long a, int b) {
    return b <= 0 ? 0 : static_cast<int>((a + b - 1) / b);
}

bool hasCrop(const KittyGraphicsControl& c) {
    return c.cropX || c.cropY || c.cropWidth || c.cropHeight;
}

// A rectangle of cells, inclusive of its first and exclusive of its last row and column.
struct CellRect {
    int col, row, cols, rows;
    bool contains(int c, int r) const { return c >= col && c < col + cols && r >= row && r < row + rows; }
};

// The cells of a virtual placement: as asked, or the picture's size in cells; given one side
// only, the other follows the picture's aspect, so that it fills the cells it was given.
std::pair<int, int> virtualPlacementCells(const KittyGraphicsControl& c, int sourceWidth, int sourceHeight,
                                          int cellWidth, int cellHeight) {
    // In 64 bits and capped just past the largest placement, which is then refused as too big.
    auto follow = [](long long given, long long cellGiven, long long sourceGiven, long long cellOther,
                     long long sourceOther) {
        given = std::min<long long>(given, kKittyMaxPlacementCells + 1);
        const long long other =
            (given * cellGiven * sourceOther + sourceGiven * cellOther - 1) / (sourceGiven * cellOther);
        return static_cast<int>(std::clamp<long long>(other, 1, kKittyMaxPlacementCells + 1));
    };
    if (c.columns > 0 && c.rows > 0)
        return {c.columns, c.rows};
    if (c.columns > 0)
        return {c.columns, follow(c.columns, cellWidth, sourceWidth, cellHeight, sourceHeight)};
    if (c.rows > 0)
        return {follow(c.rows, cellHeight, sourceHeight, cellWidth, sourceWidth), c.rows};
    return {ceilDiv(sourceWidth, cellWidth), ceilDiv(sourceHeight, cellHeight)};
}

} // namespace

// --- Chunks and dispatch -------------------------------------------------------------------

void KittyGraphicsState::handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data) {
    std::string_view payload;
    const KittyGraphicsControl control = KittyGraphicsControl::parse(data, &payload);
    // Deleting never waits for a transfer to end, and leaves it alone.
    if (control.action == 'd' || control.action == 'D') {
        processKittyGraphics(terminal, control, payload);
        return;
    }
    if (m_pending) {
        // A run's payload may never decode past the limit; keeping more would only waste memory.
        if (m_pending->base64Payload.size() + payload.size() <= kKittyPayloadLimitBytes / 3 * 4 + 4)
            m_pending->base64Payload.append(payload);
        else
            m_pendingOverflow = true;
        if (control.more == 1)
            return;
        KittyGraphicsControl first = m_pending->control;
        first.more = 0;
        const std::string base64 = std::move(m_pending->base64Payload);
        const bool overflow = m_pendingOverflow;
        m_pending.reset();
        m_pendingOverflow = false;
        if (overflow)
            reply(terminal, first, first.imageId, "EINVAL: bad payload");
        else
            processKittyGraphics(terminal, first, base64);
        return;
    }
    if (control.more == 1) {
        m_pending = KittyGraphicsPending{control, std::string(payload)};
        return;
    }
    processKittyGraphics(terminal, control, payload);
}

void KittyGraphicsState::processKittyGraphics(Terminal& terminal, const KittyGraphicsControl& control,
                                              std::string_view base64Payload) {
    Outcome outcome;
    switch (control.action) {
    case 't':
        outcome = handleKittyTransmit(terminal, control, base64Payload, false);
        break;
    case 'T':
        outcome = handleKittyTransmit(terminal, control, base64Payload, true);
        break;
    case 'p':
        outcome = handleKittyPut(terminal, control);
        break;
    case 'd':
    case 'D':
        outcome = handleKittyDelete(terminal, control);
        break;
    case 'q':
        outcome = handleKittyQuery(control, base64Payload);
        break;
    default:
        outcome = {"EINVAL: unsupported action", control.imageId};
        break;
    }
    // Deleting succeeds silently, as it has no image to name.
    if (control.action == 'd' || control.action == 'D') {
        if (!outcome.error.empty())
            reply(terminal, control, control.imageId, outcome.error);
        return;
    }
    reply(terminal, control, outcome.imageId, outcome.error);
}

void KittyGraphicsState::reply(Terminal& terminal, const KittyGraphicsControl& control,
                               std::optional<uint32_t> imageId, const std::string& error) {
    // A command that named no image cannot be told apart in a reply, so it gets none.
    if (!control.imageId && !control.imageNumber)
        return;
    if (error.empty() ? control.suppressResponses != 0 : control.suppressResponses == 2)
        return;
    std::string items;
    auto add = [&](const char* key, std::optional<uint32_t> value) {
        if (!value)
            return;
        items += items.empty() ? "" : ",";
        items += key;
        items += std::to_string(*value);
    };
    add("i=", imageId ? imageId : control.imageId);
    add("I=", control.imageNumber);
    add("p=", control.placementId);
    const std::string message = error.empty() ? "OK" : error;
    terminal.sendResponse({std::string_view("\x1b_G"), std::string_view(items), std::string_view(";"),
                           std::string_view(message), std::string_view("\x1b\\")});
}

// --- Transmit, query and store -----------------------------------------------------------------

std::string KittyGraphicsState::loadAndDecode(const KittyGraphicsControl& control, std::string_view base64,
                                              RgbaImage& out, bool& wasPng) {
    if (control.transmission != 'd' && !m_localTransmissionAllowed)
        return "ENOTSUP: unsupported transmission";
    std::vector<uint8_t> bytes;
    if (std::string error = loadKittyPayload(control, base64, bytes); !error.empty())
        return error;
    wasPng = control.format == 100;
    return decodeKittyPayloadData(control, std::move(bytes), out);
}

KittyGraphicsState::Outcome KittyGraphicsState::handleKittyTransmit(Terminal& terminal,
                                                                    const KittyGraphicsControl& control,
                                                                    std::string_view base64, bool display) {
    if (control.imageId && control.imageNumber)
        return {"EINVAL: i and I are mutually exclusive", control.imageId};
    RgbaImage image;
    bool wasPng = false;
    if (std::string error = loadAndDecode(control, base64, image, wasPng); !error.empty())
        return {error, control.imageId};
    const uint32_t id = storeKittyImage(terminal, control, std::move(image), wasPng);
    if (!display)
        return {{}, id};
    return {displayKittyImage(terminal, control, id), id};
}

KittyGraphicsState::Outcome KittyGraphicsState::handleKittyQuery(const KittyGraphicsControl& control,
                                                                 std::string_view base64) {
    RgbaImage image;
    bool wasPng = false;
    return {loadAndDecode(control, base64, image, wasPng), control.imageId};
}

uint32_t KittyGraphicsState::storeKittyImage(Terminal& terminal, const KittyGraphicsControl& control,
                                             RgbaImage image, bool wasPng) {
    uint32_t id = 0;
    if (control.imageId && *control.imageId != 0) {
        id = *control.imageId;
    } else {
        // Fresh ids skip the ones a program chose itself.
        while (m_imagesById.contains(m_nextImageId) || m_nextImageId == 0)
            ++m_nextImageId;
        id = m_nextImageId++;
        if (control.imageNumber)
            m_imageNumbers[*control.imageNumber] = id;
    }
    removeImage(id);
    KittyGraphicsImage stored;
    stored.byteSize = image.byteSize();
    stored.payload = std::make_shared<const RgbaImage>(std::move(image));
    stored.wasPng = wasPng;
    stored.lastAccessTick = m_nextImageAccessTick++;
    m_totalImageBytes += stored.byteSize;
    m_imagesById[id] = std::move(stored);
    enforceKittyImageCacheLimit(terminal, size_t(std::max(0LL, terminal.options().kittyImageCacheLimitBytes)),
                                id);
    return id;
}

void KittyGraphicsState::removeImage(uint32_t imageId) {
    const auto it = m_imagesById.find(imageId);
    if (it == m_imagesById.end())
        return;
    m_totalImageBytes -= it->second.byteSize;
    m_imagesById.erase(it);
    std::erase_if(m_imageNumbers, [&](const auto& entry) { return entry.second == imageId; });
}

void KittyGraphicsState::enforceKittyImageCacheLimit(Terminal& terminal, size_t limit, uint32_t keep) {
    if (m_totalImageBytes <= limit)
        return;
    prunePlacements();
    std::set<uint32_t> used;
    for (const auto& [key, record] : m_placementsByKey)
        used.insert(key.imageId);
    // Oldest first: unplaced images go before any that is on screen.
    std::vector<std::pair<uint64_t, uint32_t>> byAge;
    for (const auto& [id, image] : m_imagesById)
        byAge.emplace_back(image.lastAccessTick, id);
    std::sort(byAge.begin(), byAge.end());
    for (bool inUse : {false, true}) {
        for (const auto& [tick, id] : byAge) {
            if (m_totalImageBytes <= limit)
                return;
            // The image just stored is the one the program is about to use.
            if (id == keep || used.contains(id) != inUse || !m_imagesById.contains(id))
                continue;
            if (inUse) {
                std::vector<KittyPlacementKey> keys;
                for (const auto& [key, record] : m_placementsByKey)
                    if (key.imageId == id)
                        keys.push_back(key);
                for (const auto& key : keys)
                    removePlacement(terminal, key);
            }
            removeImage(id);
        }
    }
}

// --- Display -------------------------------------------------------------------------------------

KittyGraphicsState::Outcome KittyGraphicsState::handleKittyPut(Terminal& terminal,
                                                               const KittyGraphicsControl& control) {
    std::optional<uint32_t> id = control.imageId;
    if (!id && control.imageNumber) {
        const auto it = m_imageNumbers.find(*control.imageNumber);
        if (it != m_imageNumbers.end())
            id = it->second;
    }
    if (!id || !m_imagesById.contains(*id))
        return {"ENOENT: image not found", control.imageId};
    m_imagesById[*id].lastAccessTick = m_nextImageAccessTick++;
    return {displayKittyImage(terminal, control, *id), id};
}

std::string KittyGraphicsState::resolveKittyPlacementOrigin(Terminal& terminal,
                                                            const KittyGraphicsControl& control, int& col,
                                                            int& row) {
    const Buffer& buffer = terminal.buffer();
    if (!control.parentImageId) {
        col = std::min(buffer.x().value, buffer.cols() - 1);
        row = buffer.y().value;
        return {};
    }
    prunePlacements();
    const KittyPlacementKey parentKey{*control.parentImageId, control.parentPlacementId.value_or(0)};
    auto it = m_placementsByKey.find(parentKey);
    if (!control.parentPlacementId) {
        // Without a placement id, any placement of the parent image will do.
        it = m_placementsByKey.lower_bound({*control.parentImageId, 0});
        if (it != m_placementsByKey.end() && it->first.imageId != *control.parentImageId)
            it = m_placementsByKey.end();
    }
    if (it == m_placementsByKey.end())
        return "ENOPARENT: parent placement not found";
    if (it->second.isAlternateBuffer != terminal.isAlternateBufferActive())
        return "ENOPARENT: parent placement not in current buffer";
    // The parent's rows have moved with the text since it was placed: find where it is now.
    const auto token = it->second.token.lock();
    bool found = false;
    for (const VisiblePlacement& placement : visiblePlacements(terminal)) {
        if (placement.slice->token == token) {
            col = placement.col + control.offsetH;
            row = placement.row + control.offsetV;
            found = true;
        }
    }
    if (!found) {
        col = it->second.col + control.offsetH;
        row = it->second.row + control.offsetV;
    }
    return {};
}

std::string KittyGraphicsState::displayKittyImage(Terminal& terminal, const KittyGraphicsControl& control,
                                                  uint32_t imageId) {
    const auto found = m_imagesById.find(imageId);
    if (found == m_imagesById.end())
        return "ENOENT: image not found";
    const KittyGraphicsImage& image = found->second;
    if (control.unicodePlaceholder == 1 && control.parentImageId)
        return "EINVAL: virtual placement cannot refer to parent";
    if (hasCrop(control) && image.wasPng)
        return "ENOTSUP: cannot crop png";
    const RgbaImage& pixels = *image.payload;
    const int sourceWidth = control.cropWidth > 0 ? control.cropWidth : pixels.width - control.cropX;
    const int sourceHeight = control.cropHeight > 0 ? control.cropHeight : pixels.height - control.cropY;
    if (control.cropX < 0 || control.cropY < 0 || sourceWidth <= 0 || sourceHeight <= 0 ||
        control.cropX + sourceWidth > pixels.width || control.cropY + sourceHeight > pixels.height)
        return "EINVAL: bad crop";
    int col = 0;
    int row = 0;
    if (std::string error = resolveKittyPlacementOrigin(terminal, control, col, row); !error.empty())
        return error;
    const auto [cellWidth, cellHeight] = terminalCellSize(terminal);
    int cols = control.columns > 0 ? control.columns
                                   : ceilDiv(sourceWidth + std::max(0, control.pixelOffsetX), cellWidth);
    int rows = control.rows > 0 ? control.rows
                                : ceilDiv(sourceHeight + std::max(0, control.pixelOffsetY), cellHeight);
    const bool isVirtual = control.unicodePlaceholder == 1;
    if (isVirtual)
        std::tie(cols, rows) =
            virtualPlacementCells(control, sourceWidth, sourceHeight, cellWidth, cellHeight);
    if (control.columns < 0 || control.rows < 0 || cols > kKittyMaxPlacementCells ||
        rows > kKittyMaxPlacementCells ||
        (!isVirtual && (col < 0 || col >= terminal.cols() || row < 0 || row >= terminal.rows())))
        return "EINVAL: placement out of range";

    uint32_t placementId = control.placementId.value_or(0);
    // A fresh id never takes over a placement a program numbered itself.
    while (placementId == 0 ||
           (!control.placementId.value_or(0) && m_placementsByKey.contains({imageId, placementId})))
        placementId = m_nextPlacementId++;
    const KittyPlacementKey key{imageId, placementId};
    removePlacement(terminal, key);

    KittyPlacementRecord record;
    record.imageId = imageId;
    record.placementId = placementId;
    record.parentImageId = control.parentImageId;
    record.parentPlacementId = control.parentPlacementId;
    record.parentOffsetH = control.offsetH;
    record.parentOffsetV = control.offsetV;
    record.pixelOffsetX = control.pixelOffsetX;
    record.pixelOffsetY = control.pixelOffsetY;
    record.col = col;
    record.row = row;
    record.cols = cols;
    record.rows = rows;
    record.zIndex = control.zIndex;
    record.isVirtual = isVirtual;
    record.isAlternateBuffer = terminal.isAlternateBufferActive();
    record.control = control;
    record.sequence = m_nextSequence++;
    if (isVirtual) {
        // Virtual placements are drawn where placeholder characters name them, not here.
        m_virtualTokens[key] = std::make_shared<PlacementToken>();
        record.token = m_virtualTokens[key];
        m_placementsByKey[key] = record;
        return {};
    }

    ImageSlice base;
    base.pixels = image.payload;
    base.token = std::make_shared<PlacementToken>();
    base.source = ImageSource::kitty;
    base.imageId = imageId;
    base.placementId = placementId;
    base.zIndex = control.zIndex;
    base.sequence = record.sequence;
    base.col = col;
    base.cols = cols;
    base.rows = rows;
    base.sourceX = control.cropX;
    base.sourceY = control.cropY;
    base.sourceWidth = sourceWidth;
    base.sourceHeight = sourceHeight;
    base.offsetXInCells = double(control.pixelOffsetX) / cellWidth;
    base.offsetYInCells = double(control.pixelOffsetY) / cellHeight;
    base.widthInCells = control.columns > 0 ? double(control.columns) : double(sourceWidth) / cellWidth;
    base.heightInCells = control.rows > 0 ? double(control.rows) : double(sourceHeight) / cellHeight;
    record.token = base.token;
    m_placementsByKey[key] = record;

    const bool movesCursor = control.cursorPolicy == 0 && !control.parentImageId;
    attachSlices(terminal, base, row, movesCursor);
    updateKittyRelativePlacementsForCurrentBuffer(terminal, key);
    return {};
}

void KittyGraphicsState::updateKittyRelativePlacementsForCurrentBuffer(Terminal& terminal,
                                                                       const KittyPlacementKey& parent) {
    // A chain of relative placements is followed only so deep, which also ends a cycle.
    if (m_relativeDepth >= kKittyMaxRelativeDepth)
        return;
    std::vector<KittyPlacementRecord> children;
    for (const auto& [key, record] : m_placementsByKey) {
        const bool child = record.parentImageId == parent.imageId &&
                           record.parentPlacementId.value_or(parent.placementId) == parent.placementId &&
                           !(key == parent) && record.isAlternateBuffer == terminal.isAlternateBufferActive();
        if (child && !record.isVirtual)
            children.push_back(record);
    }
    ++m_relativeDepth;
    for (const KittyPlacementRecord& child : children) {
        KittyGraphicsControl control = child.control;
        control.placementId = child.placementId;
        if (!m_imagesById.contains(child.imageId))
            continue;
        // Placed again from where the parent is now; one that no longer fits is dropped.
        if (!displayKittyImage(terminal, control, child.imageId).empty())
            removePlacement(terminal, {child.imageId, child.placementId});
    }
    --m_relativeDepth;
}

void KittyGraphicsState::attachSlices(Terminal& terminal, const ImageSlice& base, int row, bool movesCursor) {
    for (int r = 0; r < base.rows; ++r) {
        auto slice = std::make_shared<ImageSlice>(base);
        slice->row = r;
        if (movesCursor) {
            // The image pushes the text down as printed lines would, scrolling at the bottom.
            if (r > 0)
                terminal.cmdIndex();
            terminal.attachImage(terminal.buffer().y(), makeTerminalImage(std::move(slice)));
        } else if (row + r < terminal.rows()) {
            terminal.attachImage(ScreenRow(row + r), makeTerminalImage(std::move(slice)));
        }
    }
    if (movesCursor)
        terminal.setCursorColumn(Col(std::min(base.col + base.cols, terminal.cols() - 1)));
}

uint32_t KittyGraphicsState::placeForeignImage(Terminal& terminal, std::shared_ptr<const RgbaImage> pixels,
                                               ImageSource source, double widthInCells,
                                               double heightInCells) {
    ImageSlice base;
    base.sourceWidth = pixels->width;
    base.sourceHeight = pixels->height;
    base.pixels = std::move(pixels);
    base.token = std::make_shared<PlacementToken>();
    base.source = source;
    base.imageId = m_nextForeignImageId++;
    base.zIndex = 0;
    base.sequence = m_nextSequence++;
    base.col = std::min(terminal.buffer().x().value, terminal.cols() - 1);
    base.cols = std::max(1, static_cast<int>(std::ceil(widthInCells - 1e-9)));
    base.rows = std::max(1, static_cast<int>(std::ceil(heightInCells - 1e-9)));
    base.widthInCells = widthInCells;
    base.heightInCells = heightInCells;
    const int startCol = base.col;
    attachSlices(terminal, base, terminal.buffer().y().value, true);
    // Text goes on below the picture, in the column it started in.
    terminal.cmdIndex();
    terminal.setCursorColumn(Col(startCol));
    return base.imageId;
}

// --- Delete --------------------------------------------------------------------------------------

void KittyGraphicsState::removePlacement(Terminal& terminal, const KittyPlacementKey& key) {
    const auto it = m_placementsByKey.find(key);
    if (it == m_placementsByKey.end())
        return;
    if (const auto token = it->second.token.lock()) {
        const PlacementToken* raw = token.get();
        terminal.removeImages(
            [raw](const TerminalImage& image) { return imageSlice(image).token.get() == raw; });
    }
    m_virtualTokens.erase(key);
    m_placementsByKey.erase(it);
}

const KittyPlacementRecord* KittyGraphicsState::virtualPlacement(uint32_t imageId,
                                                                 uint32_t placementId) const {
    if (placementId != 0) {
        const auto it = m_placementsByKey.find({imageId, placementId});
        return it != m_placementsByKey.end() && it->second.isVirtual ? &it->second : nullptr;
    }
    for (auto it = m_placementsByKey.lower_bound({imageId, 0});
         it != m_placementsByKey.end() && it->first.imageId == imageId; ++it)
        if (it->second.isVirtual)
            return &it->second;
    return nullptr;
}

void KittyGraphicsState::prunePlacements() {
    std::erase_if(m_placementsByKey, [](const auto& entry) { return entry.second.token.expired(); });
}

void KittyGraphicsState::cleanupUnusedKittyImages(const std::vector<uint32_t>& candidates) {
    for (uint32_t id : candidates) {
        const auto it = m_placementsByKey.lower_bound({id, 0});
        if (it == m_placementsByKey.end() || it->first.imageId != id)
            removeImage(id);
    }
}

KittyGraphicsState::Outcome KittyGraphicsState::handleKittyDelete(Terminal& terminal,
                                                                  const KittyGraphicsControl& control) {
    prunePlacements();
    const char mode = control.deleteMode.value_or('a');
    const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(mode)));
    const bool freeData = mode != lower;
    const Buffer& buffer = terminal.buffer();
    const int cursorCol = std::min(buffer.x().value, buffer.cols() - 1);
    const int cursorRow = buffer.y().value;

    // Where each placement of the active buffer is now.
    std::map<const PlacementToken*, CellRect> onScreen;
    for (const VisiblePlacement& p : visiblePlacements(terminal))
        onScreen[p.slice->token.get()] = {p.col, p.row, p.slice->cols, p.slice->rows};
    auto rectOf = [&](const KittyPlacementRecord& r) -> std::optional<CellRect> {
        const auto token = r.token.lock();
        const auto it = onScreen.find(token.get());
        if (it == onScreen.end())
            return std::nullopt;
        return it->second;
    };

    std::function<bool(const KittyPlacementRecord&)> pick;
    std::vector<uint32_t> alsoFree;
    switch (lower) {
    case 'a':
        pick = [&](const auto& r) { return rectOf(r).has_value(); };
        break;
    case 'i':
        if (!control.imageId)
            return {"EINVAL: missing image id", {}};
        pick = [&](const auto& r) {
            return r.imageId == *control.imageId &&
                   (!control.placementId || r.placementId == *control.placementId);
        };
        if (!control.placementId)
            alsoFree.push_back(*control.imageId);
        break;
    case 'n': {
        if (!control.imageNumber)
            return {"EINVAL: missing image number", {}};
        const auto it = m_imageNumbers.find(*control.imageNumber);
        const uint32_t id = it == m_imageNumbers.end() ? 0 : it->second;
        pick = [&, id](const auto& r) {
            return id != 0 && r.imageId == id &&
                   (!control.placementId || r.placementId == *control.placementId);
        };
        if (id != 0 && !control.placementId)
            alsoFree.push_back(id);
        break;
    }
    case 'c':
        pick = [&](const auto& r) { return rectOf(r) && rectOf(r)->contains(cursorCol, cursorRow); };
        break;
    case 'p':
    case 'q':
        if (control.cropX <= 0 || control.cropY <= 0)
            return {"EINVAL: missing cell position", {}};
        pick = [&, lower](const auto& r) {
            return rectOf(r) && rectOf(r)->contains(control.cropX - 1, control.cropY - 1) &&
                   (lower == 'p' || r.zIndex == control.zIndex);
        };
        break;
    case 'x':
        if (control.cropX <= 0)
            return {"EINVAL: missing column", {}};
        pick = [&](const auto& r) {
            const auto rect = rectOf(r);
            return rect && control.cropX - 1 >= rect->col && control.cropX - 1 < rect->col + rect->cols;
        };
        break;
    case 'y':
        if (control.cropY <= 0)
            return {"EINVAL: missing row", {}};
        pick = [&](const auto& r) {
            const auto rect = rectOf(r);
            return rect && control.cropY - 1 >= rect->row && control.cropY - 1 < rect->row + rect->rows;
        };
        break;
    case 'z':
        pick = [&](const auto& r) { return r.zIndex == control.zIndex && rectOf(r).has_value(); };
        break;
    case 'r':
        if (control.cropX <= 0 || control.cropY <= 0 || control.cropX > control.cropY)
            return {"EINVAL: missing id range", {}};
        pick = [&](const auto& r) {
            return r.imageId >= uint32_t(control.cropX) && r.imageId <= uint32_t(control.cropY);
        };
        for (const auto& [id, image] : m_imagesById)
            if (id >= uint32_t(control.cropX) && id <= uint32_t(control.cropY))
                alsoFree.push_back(id);
        break;
    default:
        return {"EINVAL: unsupported delete", {}};
    }

    std::vector<KittyPlacementKey> doomed;
    for (const auto& [key, record] : m_placementsByKey)
        if (pick(record))
            doomed.push_back(key);
    for (const auto& key : doomed) {
        removePlacement(terminal, key);
        alsoFree.push_back(key.imageId);
    }
    if (freeData)
        cleanupUnusedKittyImages(alsoFree);
    return {{}, control.imageId};
}

// --- Reset -----------------------------------------------------------------------------------------

void KittyGraphicsState::clearKittyImages() {
    m_pending.reset();
    m_pendingOverflow = false;
}

void KittyGraphicsState::clearAllKittyImages() {
    clearKittyImages();
    m_imagesById.clear();
    m_imageNumbers.clear();
    m_placementsByKey.clear();
    m_virtualTokens.clear();
    m_totalImageBytes = 0;
}

} // namespace termkit
