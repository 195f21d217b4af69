#pragma once

#include <QString>
#include <QStringView>

namespace improve::text {

// Below this code point every character is its own canonical form and none combines
// with a neighbour, so two different strings made only of such characters can never be
// canonically equivalent. Combining marks start here (U+0300).
inline constexpr char32_t kFirstNormalizationSensitive = 0x0300;

// U+0009 and every character of general category Zs: the blanks inside a line.
bool isHorizontalSpace(char32_t c);

// U+000A to U+000D, U+0085, U+2028 and U+2029: the characters that end a line.
bool isNewline(char32_t c);

// The union of the two classes above.
bool isWhiteSpace(char32_t c);

// Each trim takes the class's characters off both ends and nowhere else.
QStringView trimHorizontal(QStringView s);
QStringView trimNewlines(QStringView s);
QStringView trimWhiteSpace(QStringView s);

// A line is blank when nothing is left of it after trimming horizontal white space.
bool isBlank(QStringView line);

// Equality as Unicode text under canonical equivalence: both sides are compared in NFC,
// so "é" typed precomposed matches "e" followed by a combining acute accent.
bool sameText(QStringView a, QStringView b);

} // namespace improve::text
