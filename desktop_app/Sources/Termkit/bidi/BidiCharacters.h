#pragma once
// Character data the bidi layout needs: which scalars can change a row's order, Arabic
// joining classes and presentation forms, and mirrored glyphs.

#include <cstdint>

namespace termkit::bidi {

/// How a letter joins its neighbours; the order and names follow the Unicode joining types.
enum class Joining : uint8_t { none, transparent, causing, right, left, dual };

/// Whether a scalar is strongly right-to-left or a directional control that can start a
/// right-to-left run. A cheap range test: false for every scalar below U+0590.
constexpr bool isRightToLeftTrigger(char32_t c) {
    if (c < 0x590)
        return false;
    return (c <= 0x8FF) || (c >= 0xFB1D && c <= 0xFDFF) || (c >= 0xFE70 && c <= 0xFEFF) ||
           (c >= 0x10800 && c <= 0x10FFF) || (c >= 0x1E800 && c <= 0x1EFFF) || c == 0x200F || c == 0x202B ||
           c == 0x202E || c == 0x2067 || c == 0x2068;
}

/// The joining class of a scalar (from the character database ICU carries).
Joining joiningOf(char32_t c);

/// The positional forms a joining letter can take.
enum class ArabicForm : uint8_t { isolated, final_, initial, medial };

/// The presentation form of a letter, or the letter itself when it has none.
char32_t arabicForm(char32_t letter, ArabicForm form);
/// The lam-alef ligature of lam followed by `alef` in the given form (isolated or final),
/// or 0 when `alef` is no alef that ligates.
char32_t lamAlefLigature(char32_t alef, ArabicForm form);
/// Arabic letter lam.
inline constexpr char32_t kLam = 0x644;

/// The mirrored glyph of a scalar in a right-to-left run (brackets and the like), or the
/// scalar itself.
char32_t mirrorOf(char32_t c);
/// The left-right mirror image of a box drawing or block element character, or the scalar
/// itself; used only when box mirroring is on.
char32_t boxMirror(char32_t c);

} // namespace termkit::bidi
