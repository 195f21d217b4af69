#include "Termkit/bidi/BidiCharacters.h"

#include <array>
#include <string>

#include <unicode/uchar.h>
#include <unicode/ushape.h>

namespace termkit::bidi {

namespace {

// Tatweel joins on both sides, so it gives a letter the neighbours a form needs.
constexpr UChar kTatweel = 0x640;
// Box drawing and block elements: the characters box mirroring swaps.
constexpr char32_t kBoxFirst = 0x2500;
constexpr char32_t kBoxLast = 0x259F;

// Shapes a short context and returns the code unit at `at`, or 0 when shaping failed.
char32_t shapedUnitAt(const UChar* text, int32_t length, int32_t at) {
    std::array<UChar, 4> out{};
    UErrorCode error = U_ZERO_ERROR;
    const int32_t n = u_shapeArabic(
        text, length, out.data(), static_cast<int32_t>(out.size()),
        U_SHAPE_LETTERS_SHAPE | U_SHAPE_TEXT_DIRECTION_LOGICAL | U_SHAPE_LENGTH_GROW_SHRINK, &error);
    if (U_FAILURE(error) || at >= n)
        return 0;
    return out[static_cast<size_t>(at)];
}

// The mirror partners among box drawing and block elements, found once by name: swapping the
// words LEFT and RIGHT in a character's name names its mirror image when there is one.
std::array<char16_t, kBoxLast - kBoxFirst + 1> buildBoxMirrors() {
    std::array<char16_t, kBoxLast - kBoxFirst + 1> table{};
    for (char32_t c = kBoxFirst; c <= kBoxLast; ++c) {
        table[c - kBoxFirst] = static_cast<char16_t>(c);
        char name[128];
        UErrorCode error = U_ZERO_ERROR;
        u_charName(static_cast<UChar32>(c), U_UNICODE_CHAR_NAME, name, sizeof name, &error);
        if (U_FAILURE(error))
            continue;
        std::string swapped(name);
        for (size_t at = 0; at < swapped.size();) {
            if (swapped.compare(at, 4, "LEFT") == 0) {
                swapped.replace(at, 4, "RIGHT");
                at += 5;
            } else if (swapped.compare(at, 5, "RIGHT") == 0) {
                swapped.replace(at, 5, "LEFT");
                at += 4;
            } else {
                ++at;
            }
        }
        if (swapped == name)
            continue;
        error = U_ZERO_ERROR;
        const UChar32 partner = u_charFromName(U_UNICODE_CHAR_NAME, swapped.c_str(), &error);
        if (U_SUCCESS(error) && partner >= static_cast<UChar32>(kBoxFirst) &&
            partner <= static_cast<UChar32>(kBoxLast))
            table[c - kBoxFirst] = static_cast<char16_t>(partner);
    }
    return table;
}

} // namespace

Joining joiningOf(char32_t c) {
    switch (u_getIntPropertyValue(static_cast<UChar32>(c), UCHAR_JOINING_TYPE)) {
    case U_JT_TRANSPARENT:
        return Joining::transparent;
    case U_JT_JOIN_CAUSING:
        return Joining::causing;
    case U_JT_RIGHT_JOINING:
        return Joining::right;
    case U_JT_LEFT_JOINING:
        return Joining::left;
    case U_JT_DUAL_JOINING:
        return Joining::dual;
    default:
        return Joining::none;
    }
}

char32_t arabicForm(char32_t letter, ArabicForm form) {
    if (letter > 0xFFFF)
        return letter;
    const auto l = static_cast<UChar>(letter);
    char32_t shaped = 0;
    switch (form) {
    case ArabicForm::isolated: {
        const UChar text[] = {l};
        shaped = shapedUnitAt(text, 1, 0);
        break;
    }
    case ArabicForm::final_: {
        const UChar text[] = {kTatweel, l};
        shaped = shapedUnitAt(text, 2, 1);
        break;
    }
    case ArabicForm::initial: {
        const UChar text[] = {l, kTatweel};
        shaped = shapedUnitAt(text, 2, 0);
        break;
    }
    case ArabicForm::medial: {
        const UChar text[] = {kTatweel, l, kTatweel};
        shaped = shapedUnitAt(text, 3, 1);
        break;
    }
    }
    return shaped != 0 ? shaped : letter;
}

char32_t lamAlefLigature(char32_t alef, ArabicForm form) {
    if (alef != 0x622 && alef != 0x623 && alef != 0x625 && alef != 0x627)
        return 0;
    const auto a = static_cast<UChar>(alef);
    if (form == ArabicForm::final_) {
        const UChar text[] = {kTatweel, static_cast<UChar>(kLam), a};
        return shapedUnitAt(text, 3, 1);
    }
    const UChar text[] = {static_cast<UChar>(kLam), a};
    return shapedUnitAt(text, 2, 0);
}

char32_t mirrorOf(char32_t c) {
    return static_cast<char32_t>(u_charMirror(static_cast<UChar32>(c)));
}

char32_t boxMirror(char32_t c) {
    if (c < kBoxFirst || c > kBoxLast)
        return c;
    static const auto table = buildBoxMirrors();
    return table[c - kBoxFirst];
}

} // namespace termkit::bidi
