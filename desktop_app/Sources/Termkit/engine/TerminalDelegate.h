#pragma once
// How the terminal talks to its host. Every method but `send` has a default, so a host
// overrides only what it cares about.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Termkit/buffer/Indices.h"
#include "Termkit/engine/Color.h"
#include "Termkit/engine/TerminalOptions.h"
#include "Termkit/engine/TerminalTypes.h"

namespace termkit {

class Terminal;

/// The host of a terminal. All methods are called on the thread that feeds the terminal.
class TerminalDelegate {
public:
    virtual ~TerminalDelegate() = default;

    /// The program showed or hid the cursor.
    virtual void showCursor(Terminal& /*source*/) {}
    virtual void hideCursor(Terminal& /*source*/) {}
    /// The program set the window or icon title.
    virtual void setTerminalTitle(Terminal& /*source*/, const std::string& /*title*/) {}
    virtual void setTerminalIconTitle(Terminal& /*source*/, const std::string& /*title*/) {}
    /// A window operation; returned bytes, if any, are sent to the program.
    virtual std::optional<std::vector<uint8_t>> windowCommand(Terminal& /*source*/,
                                                              const WindowCommand& /*command*/) {
        return std::nullopt;
    }
    /// The terminal changed its size by itself (132-column mode).
    virtual void sizeChanged(Terminal& /*source*/) {}
    /// The line on display at the top changed.
    virtual void scrolled(Terminal& /*source*/, LineIndex /*yDisp*/) {}
    /// A line feed happened.
    virtual void linefeed(Terminal& /*source*/) {}
    /// The normal or alternate buffer became active.
    virtual void bufferActivated(Terminal& /*source*/) {}
    /// Synchronized output began or ended; while active the view should not present.
    virtual void synchronizedOutputChanged(Terminal& /*source*/, bool /*active*/) {}
    virtual void bell(Terminal& /*source*/) {}
    virtual void selectionChanged(Terminal& /*source*/) {}
    /// Whether the program may set the current directory and document.
    virtual bool isProcessTrusted(Terminal& /*source*/) { return true; }
    /// Cell size in pixels (width, height), if the host has a view.
    virtual std::optional<std::pair<int, int>> cellSizeInPixels(Terminal& /*source*/) { return std::nullopt; }
    virtual void cursorStyleChanged(Terminal& /*source*/, CursorStyle /*newStyle*/) {}
    virtual void hostCurrentDocumentUpdated(Terminal& /*source*/) {}
    /// A palette entry changed (`idx`), or the whole palette (no index).
    virtual void colorChanged(Terminal& /*source*/, std::optional<int> /*idx*/) {}
    /// The program set the default foreground; by default the terminal stores it.
    virtual void setForegroundColor(Terminal& source, Color color);
    /// The program set the default background; by default the terminal stores it.
    virtual void setBackgroundColor(Terminal& source, Color color);
    /// The program set (or, with none, reset) the cursor colour; by default it is stored.
    virtual void setCursorColor(Terminal& source, std::optional<Color> color);
    /// The colours shown for default foreground and background; by default the terminal's.
    virtual std::pair<Color, Color> getColors(Terminal& source);
    /// An OSC 1337 body that is not an inline image.
    virtual void iTermContent(Terminal& /*source*/, std::span<const uint8_t> /*content*/) {}
    virtual void clipboardCopy(Terminal& /*source*/, std::vector<uint8_t> /*content*/) {}
    virtual std::optional<std::vector<uint8_t>> clipboardRead(Terminal& /*source*/) { return std::nullopt; }
    virtual void notify(Terminal& /*source*/, const std::string& /*title*/, const std::string& /*body*/) {}
    virtual void progressReport(Terminal& /*source*/, const ProgressReport& /*report*/) {}
    virtual void createImage(Terminal& /*source*/, std::vector<uint8_t> /*data*/, ImageSizeRequest /*width*/,
                             ImageSizeRequest /*height*/, bool /*preserveAspectRatio*/) {}
    virtual void mouseModeChanged(Terminal& /*source*/) {}
    virtual void hostCurrentDirectoryUpdated(Terminal& /*source*/) {}
    virtual void createImageFromBitmap(Terminal& /*source*/, std::vector<uint8_t> /*bytes*/, int /*width*/,
                                       int /*height*/) {}
    /// Bytes for the program (replies to queries). Required.
    virtual void send(Terminal& source, std::span<const uint8_t> data) = 0;
};

} // namespace termkit
