#pragma once
// Joining and positional forms of Arabic letters, for display only.

#include <span>
#include <vector>

namespace termkit::bidi {

/// Shapes a paragraph given as one base scalar per unit (0 for a unit without one), in
/// logical order. Returns the scalar to show per unit: the unit's own when it keeps its
/// form, a presentation form, a lam-alef ligature in the lam's unit, or 0 for the unit the
/// ligature's alef leaves blank. Transparent units (lone marks) do not break joining.
std::vector<char32_t> shapeArabic(std::span<const char32_t> bases);

} // namespace termkit::bidi
