#pragma once

#include <QString>
#include <QStringView>

#include <optional>

// User-perceived characters (extended grapheme clusters): what the output limit counts,
// so that an emoji or a letter with its accents is one character, not several.
namespace graphemes {

qsizetype count(QStringView text);

// Where the first `clusters` characters of `text` end, or nothing when `text` has no
// more than that many.
std::optional<qsizetype> prefixEnd(QStringView text, qsizetype clusters);

// The character count of a text that only ever grows at its end, kept without recounting
// the whole text: only its last character is looked at again, since an appended piece
// can join it (a combining accent, the second half of a flag).
class Tally {
public:
    qsizetype count() const { return m_count; }
    // `text` is the whole text after an append; everything before the last counted
    // character is unchanged.
    void update(const QString& text);

private:
    qsizetype m_count = 0;
    qsizetype m_lastStart = 0;       // where the last character begins
    qsizetype m_countBeforeLast = 0; // characters before it
};

} // namespace graphemes
