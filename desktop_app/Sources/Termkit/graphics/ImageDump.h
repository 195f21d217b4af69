#pragma once
// Writes what pictures a terminal shows, for tools and tests that look at a screen from the
// command line.

#include <string>

namespace termkit {

class Terminal;
class KittyGraphicsState;

/// Writes each picture visible on the active screen once into `dir` as a PNG, and returns
/// one line per placement, in z-order:
///   image id=ID placement=P source=kitty|sixel|inline row=R col=C cols=W rows=H file=NAME
/// where row and column are the placement's top-left cell (row negative when it has partly
/// scrolled away) and cols and rows its size in cells. Files that cannot be written are
/// named with "file=-". With `kitty`, each rectangle of Unicode placeholder cells that shows
/// a picture is a line too, with source=placeholder, its cells, and the kitty picture's file.
std::string dumpImages(const Terminal& terminal, const std::string& dir,
                       const KittyGraphicsState* kitty = nullptr);

} // namespace termkit
