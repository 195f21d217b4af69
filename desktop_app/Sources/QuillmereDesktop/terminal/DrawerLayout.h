#pragma once

#include <QRect>

#include <optional>

// Where the drawer goes: glued to the main window's left edge, as tall as the main window,
// and never off the left edge of the screen. At the screen's edge it covers part of the
// main window instead.
namespace drawerLayout {

// The drawer's width in logical pixels.
inline constexpr int defaultWidth = 460;

// The drawer's frame from the main window's frame (with its decorations) and the available
// area of the main window's screen; without a screen, the main window's frame stands in.
QRect frame(const QRect& mainFrame, const std::optional<QRect>& availableGeometry, int width = defaultWidth);

} // namespace drawerLayout
