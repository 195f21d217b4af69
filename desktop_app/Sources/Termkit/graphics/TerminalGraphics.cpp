#include "Termkit/graphics/TerminalGraphics.h"

#include <algorithm>
#include <charconv>

#include "Termkit/engine/Terminal.h"
#include "Termkit/graphics/SixelDecoder.h"

namespace termkit {

namespace {

ImageSizeRequest parseSizeRequest(std::string_view value) {
    if (value.empty() || value == "auto")
        return {};
    ImageSizeRequest::Kind kind = ImageSizeRequest::Kind::cells;
    if (value.ends_with("px")) {
        kind = ImageSizeRequest::Kind::pixels;
        value.remove_suffix(2);
    } else if (value.ends_with("%")) {
        kind = ImageSizeRequest::Kind::percent;
        value.remove_suffix(1);
    }
    int n = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), n);
    if (error != std::errc() || end != value.data() + value.size() || n <= 0)
        return {};
    return {kind, n};
}

// One side in cells, or nothing when it is left to the picture.
std::optional<double> requestedCells(ImageSizeRequest request, int cellPixels, int screenCells) {
    switch (request.kind) {
    case ImageSizeRequest::Kind::cells:
        return double(request.value);
    case ImageSizeRequest::Kind::pixels:
        return double(request.value) / cellPixels;
    case ImageSizeRequest::Kind::percent:
        return screenCells * request.value / 100.0;
    case ImageSizeRequest::Kind::automatic:
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

// --- Sixel -----------------------------------------------------------------------------------

void SixelDcsHandler::hook(std::span<const uint8_t>, const CsiParameters& parameters, uint8_t) {
    m_data.clear();
    m_overflow = false;
    // The second parameter 1 asks that pixels no sixel sets show what is behind them.
    m_transparent = parameters.at(1) == 1;
}

void SixelDcsHandler::put(std::span<const uint8_t> data) {
    if (m_overflow || m_data.size() + data.size() > kSixelMaxDataBytes) {
        m_overflow = true;
        return;
    }
    m_data.append(reinterpret_cast<const char*>(data.data()), data.size());
}

void SixelDcsHandler::unhook() {
    if (m_overflow) {
        m_terminal.log("Termkit: sixel image over the size limit dropped");
    } else if (auto image = decodeSixel({reinterpret_cast<const uint8_t*>(m_data.data()), m_data.size()},
                                        m_transparent)) {
        m_graphics.placeImageAtNaturalSize(m_terminal, std::make_shared<const RgbaImage>(std::move(*image)),
                                           ImageSource::sixel);
    }
    m_data.clear();
    m_data.shrink_to_fit();
}

// --- The extension -------------------------------------------------------------------------------

void TerminalGraphics::attach(Terminal& terminal) {
    terminal.registerOscHandler(
        1337, [this, &terminal](std::span<const uint8_t> data) { inlineImage(terminal, data); });
}

void TerminalGraphics::handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data) {
    m_kitty.handleKittyGraphics(terminal, data);
}

DcsHandler* TerminalGraphics::sixelDcsHandler(Terminal& terminal) {
    if (!m_sixel)
        m_sixel = std::make_unique<SixelDcsHandler>(*this, terminal);
    return m_sixel.get();
}

void TerminalGraphics::reset(Terminal& terminal, bool hard) {
    if (hard)
        m_kitty.clearAllKittyImages();
    else
        m_kitty.clearKittyImages();
    if (m_next != nullptr)
        m_next->reset(terminal, hard);
}

void TerminalGraphics::oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) {
    if (m_next != nullptr)
        m_next->oscSemanticPrompt(terminal, data);
    else
        TerminalExtensions::oscSemanticPrompt(terminal, data);
}

void TerminalGraphics::applyCurrentBidiStateAtParagraphStart(Terminal& terminal, unsigned properties) {
    if (m_next != nullptr)
        m_next->applyCurrentBidiStateAtParagraphStart(terminal, properties);
}

void TerminalGraphics::semanticNoteAlternateScreenSwitch(Terminal& terminal) {
    if (m_next != nullptr)
        m_next->semanticNoteAlternateScreenSwitch(terminal);
}

void TerminalGraphics::finishSemanticLineAdvance(Terminal& terminal) {
    if (m_next != nullptr)
        m_next->finishSemanticLineAdvance(terminal);
}

uint32_t TerminalGraphics::placeImage(Terminal& terminal, std::shared_ptr<const RgbaImage> pixels,
                                      ImageSource source, double widthInCells, double heightInCells) {
    return m_kitty.placeForeignImage(terminal, std::move(pixels), source, widthInCells, heightInCells);
}

uint32_t TerminalGraphics::placeImageAtNaturalSize(Terminal& terminal,
                                                   std::shared_ptr<const RgbaImage> pixels,
                                                   ImageSource source) {
    const auto [cellWidth, cellHeight] = terminalCellSize(terminal);
    const double w = double(pixels->width) / cellWidth;
    const double h = double(pixels->height) / cellHeight;
    return placeImage(terminal, std::move(pixels), source, w, h);
}

// --- Inline images ---------------------------------------------------------------------------------

std::pair<double, double> inlineImageCells(ImageSizeRequest width, ImageSizeRequest height,
                                           bool preserveAspectRatio, int pixelWidth, int pixelHeight,
                                           std::pair<int, int> cell, int cols, int rows) {
    const double naturalW = double(pixelWidth) / cell.first;
    const double naturalH = double(pixelHeight) / cell.second;
    const auto w = requestedCells(width, cell.first, cols);
    const auto h = requestedCells(height, cell.second, rows);
    // The picture's aspect in cells: how many rows one column of it needs.
    const double rowsPerCol = naturalH / naturalW;
    if (w && h) {
        if (!preserveAspectRatio)
            return {*w, *h};
        // Fit inside the box the two sides make.
        const double fitted = std::min(*w, *h / rowsPerCol);
        return {fitted, fitted * rowsPerCol};
    }
    if (w)
        return {*w, preserveAspectRatio ? *w * rowsPerCol : naturalH};
    if (h)
        return {preserveAspectRatio ? *h / rowsPerCol : naturalW, *h};
    return {naturalW, naturalH};
}

void TerminalGraphics::inlineImage(Terminal& terminal, std::span<const uint8_t> data) {
    const std::string_view body(reinterpret_cast<const char*>(data.data()), data.size());
    const size_t colon = body.find(':');
    if (!body.starts_with("File=") || colon == std::string_view::npos) {
        if (terminal.delegate() != nullptr)
            terminal.delegate()->iTermContent(terminal, data);
        return;
    }
    bool isInline = false;
    bool preserve = true;
    ImageSizeRequest width;
    ImageSizeRequest height;
    std::string_view arguments = body.substr(5, colon - 5);
    while (!arguments.empty()) {
        const size_t semicolon = arguments.find(';');
        const std::string_view item = arguments.substr(0, semicolon);
        arguments =
            semicolon == std::string_view::npos ? std::string_view() : arguments.substr(semicolon + 1);
        const size_t eq = item.find('=');
        if (eq == std::string_view::npos)
            continue;
        const std::string_view key = item.substr(0, eq);
        const std::string_view value = item.substr(eq + 1);
        if (key == "inline")
            isInline = value == "1";
        else if (key == "width")
            width = parseSizeRequest(value);
        else if (key == "height")
            height = parseSizeRequest(value);
        else if (key == "preserveAspectRatio")
            preserve = value != "0";
    }
    if (!isInline) {
        if (terminal.delegate() != nullptr)
            terminal.delegate()->iTermContent(terminal, data);
        return;
    }
    const auto bytes = decodeBase64(body.substr(colon + 1), kKittyPayloadLimitBytes);
    auto image = bytes ? decodePngToRgba(*bytes, kKittyPayloadLimitBytes) : std::nullopt;
    if (!image) {
        // A format the core does not decode may still be something the host can show.
        if (bytes && terminal.delegate() != nullptr)
            terminal.delegate()->createImage(terminal, *bytes, width, height, preserve);
        return;
    }
    const auto [w, h] = inlineImageCells(width, height, preserve, image->width, image->height,
                                         terminalCellSize(terminal), terminal.cols(), terminal.rows());
    placeImage(terminal, std::make_shared<const RgbaImage>(std::move(*image)), ImageSource::inlineImage, w,
               h);
}

} // namespace termkit
