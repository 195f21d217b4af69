#pragma once
// Small value types the terminal shares with its host.

#include <cstdint>
#include <optional>
#include <string>

namespace termkit {

/// What a program asks of the window through `CSI Ps t`.
struct WindowCommand {
    enum class Kind : uint8_t {
        deiconifyWindow,
        iconifyWindow,
        moveWindowTo,
        resizeWindowTo,
        bringToFront,
        sendToBack,
        refreshWindow,
        resizeTo,
        restoreMaximizedWindow,
        maximizeWindow,
        maximizeWindowVertically,
        maximizeWindowHorizontally,
        undoFullScreen,
        switchToFullScreen,
        toggleFullScreen,
        reportTerminalState,
        reportTerminalPosition,
        reportTextAreaPosition,
        reportSizeOfScreenInPixels,
        reportCellSizeInPixels,
        reportTextAreaCharacters,
        reportScreenSizeCharacters,
        reportIconLabel,
        reportWindowTitle,
    };
    Kind kind;
    int a = 0; // x, height, or columns, as the kind says
    int b = 0; // y, width, or rows
    bool operator==(const WindowCommand&) const = default;
};

/// A size asked for an inline image.
struct ImageSizeRequest {
    enum class Kind : uint8_t { cells, pixels, percent, automatic };
    Kind kind = Kind::automatic;
    int value = 0;
    bool operator==(const ImageSizeRequest&) const = default;
};

/// Progress shown by the host, from OSC 9;4.
struct ProgressReport {
    enum class State : uint8_t { remove, set, error, indeterminate, pause };
    State state = State::remove;
    std::optional<int> progress;
    bool operator==(const ProgressReport&) const = default;
};

/// Which pointer events are reported to the program.
enum class MouseMode : uint8_t { off, x10, vt200, buttonEventTracking, anyEvent };
/// How pointer reports are encoded.
enum class MouseProtocolEncoding : uint8_t { x10, utf8, sgr, urxvt, sgrPixel };
/// Conformance level set by DECSCL.
enum class TerminalConformance : uint8_t { vt100, vt200, vt300, vt400, vt500 };
/// Which buffer an operation means.
enum class BufferKind : uint8_t { active, normal, alt };

} // namespace termkit
