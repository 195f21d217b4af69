#pragma once
// The image protocols of a terminal: kitty graphics (APC `G`), sixel (DCS `q`) and inline
// images (OSC 1337 `File=`), all drawn as slices on the lines they cover.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Termkit/engine/TerminalExtensions.h"
#include "Termkit/engine/TerminalTypes.h"
#include "Termkit/graphics/KittyGraphics.h"
#include "Termkit/parser/DcsHandler.h"

namespace termkit {

class TerminalGraphics;

/// The largest sixel body kept; a longer one is dropped whole.
inline constexpr size_t kSixelMaxDataBytes = 64u * 1024 * 1024;

/// Receives one sixel string and places the picture it draws at the cursor.
class SixelDcsHandler : public DcsHandler {
public:
    SixelDcsHandler(TerminalGraphics& graphics, Terminal& terminal)
        : m_graphics(graphics), m_terminal(terminal) {}
    void hook(std::span<const uint8_t> collect, const CsiParameters& parameters, uint8_t flag) override;
    void put(std::span<const uint8_t> data) override;
    void unhook() override;

private:
    TerminalGraphics& m_graphics;
    Terminal& m_terminal;
    std::string m_data;
    bool m_transparent = false;
    bool m_overflow = false;
};

/// One terminal's image protocols. Make one per terminal, hand it to the terminal as its
/// extensions, then `attach` it so that it also receives inline images. A terminal has one
/// slot for extensions: what is not about pictures goes on to `next`, when there is one.
class TerminalGraphics : public TerminalExtensions {
public:
    explicit TerminalGraphics(TerminalExtensions* next = nullptr) : m_next(next) {}

    /// Takes OSC 1337 from the terminal; other OSC 1337 bodies still reach the delegate.
    void attach(Terminal& terminal);

    void handleKittyGraphics(Terminal& terminal, std::span<const uint8_t> data) override;
    DcsHandler* sixelDcsHandler(Terminal& terminal) override;
    void reset(Terminal& terminal, bool hard) override;
    void oscSemanticPrompt(Terminal& terminal, std::span<const uint8_t> data) override;
    void applyCurrentBidiStateAtParagraphStart(Terminal& terminal, unsigned properties) override;
    void semanticNoteAlternateScreenSwitch(Terminal& terminal) override;
    void finishSemanticLineAdvance(Terminal& terminal) override;

    /// Places decoded pixels at the cursor, sized in cells.
    uint32_t placeImage(Terminal& terminal, std::shared_ptr<const RgbaImage> pixels, ImageSource source,
                        double widthInCells, double heightInCells);
    /// Places a picture the size of its pixels at the cell size in use.
    uint32_t placeImageAtNaturalSize(Terminal& terminal, std::shared_ptr<const RgbaImage> pixels,
                                     ImageSource source);

    KittyGraphicsState& kitty() { return m_kitty; }
    const KittyGraphicsState& kitty() const { return m_kitty; }

private:
    void inlineImage(Terminal& terminal, std::span<const uint8_t> data);

    TerminalExtensions* m_next;
    KittyGraphicsState m_kitty;
    std::unique_ptr<SixelDcsHandler> m_sixel;
};

/// The size of an inline image in cells for its requests, the picture's pixels, the cell size
/// and the screen; keeps the aspect ratio when asked and only one side is free.
std::pair<double, double> inlineImageCells(ImageSizeRequest width, ImageSizeRequest height,
                                           bool preserveAspectRatio, int pixelWidth, int pixelHeight,
                                           std::pair<int, int> cell, int cols, int rows);

} // namespace termkit
